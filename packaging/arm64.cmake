# Toolchain for a 64-bit ARM Debian device (arm64); cross.cmake tells how to use it.

set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
