# Toolchain for a 32-bit ARM Debian device (armhf); cross.cmake tells how to use it.

set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
