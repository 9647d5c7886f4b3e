find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

pkg_check_modules(LIBSYSTEMD REQUIRED IMPORTED_TARGET libsystemd>=252)
pkg_check_modules(SIGCPP REQUIRED IMPORTED_TARGET sigc++-2.0)

# hostapd's control-interface client library: static only, and without a pkg-config file.
find_library(WPA_CLIENT_LIBRARY wpa_client REQUIRED)
find_path(WPA_CLIENT_INCLUDE_DIR wpa_ctrl.h REQUIRED)
add_library(wpa-client UNKNOWN IMPORTED)
set_target_properties(wpa-client PROPERTIES
  IMPORTED_LOCATION "${WPA_CLIENT_LIBRARY}"
  INTERFACE_INCLUDE_DIRECTORIES "${WPA_CLIENT_INCLUDE_DIR}")
