# Toolchain for a 32-bit ARM Debian 12 device (armhf), against the sysroot that scripts/armhf-sysroot prints:
#
#   VANTORA_SYSROOT="$(scripts/armhf-sysroot)" cmake --toolchain packaging/armhf.cmake ...

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT DEFINED ENV{VANTORA_SYSROOT})
  message(FATAL_ERROR "VANTORA_SYSROOT is not set; scripts/armhf-sysroot makes one and prints where it is")
endif()
set(CMAKE_SYSROOT "$ENV{VANTORA_SYSROOT}")

# Programs are this machine's; headers, libraries and what describes them are the device's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(PKG_CONFIG_EXECUTABLE /usr/bin/pkg-config)
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
