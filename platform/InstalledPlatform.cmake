# The device's own libraries in place of the bundled ones. Both are looked up in the usual places and below
# CMAKE_PREFIX_PATH / CMAKE_FIND_ROOT_PATH.

function(vantora_installed_library target library header)
  string(TOUPPER "${target}" prefix)
  string(REPLACE "-" "_" prefix "VANTORA_${prefix}")
  find_library(${prefix}_LIBRARY NAMES "${library}")
  find_path(${prefix}_INCLUDE_DIR NAMES "${header}")
  foreach(part LIBRARY INCLUDE_DIR)
    if(NOT ${prefix}_${part})
      message(FATAL_ERROR
        "VANTORA_PLATFORM=installed, but lib${library} (header <${header}>) was not found: "
        "${prefix}_${part} is empty. Set it, or CMAKE_PREFIX_PATH, to where the device's libraries are, "
        "or build with VANTORA_PLATFORM=bundled.")
    endif()
  endforeach()
  add_library(vantora::${target} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(vantora::${target} PROPERTIES
    IMPORTED_LOCATION "${${prefix}_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${${prefix}_INCLUDE_DIR}")
endfunction()

vantora_installed_library(korrin-info KorrinInfo korrin-info/korrin_info.hpp)
vantora_installed_library(dbus-helper dbus-helper dbus-helper/dbus_listener.hpp)
target_link_libraries(vantora::dbus-helper INTERFACE PkgConfig::LIBSYSTEMD)
