# What the toolchains of foreign architectures have in common: Debian's cross-compiler, against the sysroot that
# scripts/sysroot prints:
#
#   VANTORA_SYSROOT="$(scripts/sysroot armhf)" cmake --toolchain packaging/armhf.cmake ...

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

if(NOT DEFINED ENV{VANTORA_SYSROOT})
  message(FATAL_ERROR "VANTORA_SYSROOT is not set; scripts/sysroot makes one and prints where it is")
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
