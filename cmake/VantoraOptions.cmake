set(VANTORA_PLATFORM "bundled" CACHE STRING
  "Where libKorrinInfo and libdbus-helper come from: bundled (platform/) or installed (the device's own)")
set_property(CACHE VANTORA_PLATFORM PROPERTY STRINGS bundled installed)
if(NOT VANTORA_PLATFORM MATCHES "^(bundled|installed)$")
  message(FATAL_ERROR "VANTORA_PLATFORM must be 'bundled' or 'installed', not '${VANTORA_PLATFORM}'")
endif()

option(VANTORA_BUILD_TESTS "Build the unit tests and the helpers of the contract tests" ON)
option(VANTORA_BUILD_BENCH "Build the programs that scripts/bench measures with" OFF)
set(VANTORA_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them (address,undefined or thread)")
option(VANTORA_COVERAGE "Instrument for gcov" OFF)
option(VANTORA_FUZZ "Instrument for libFuzzer; needs clang" OFF)

include(VantoraHardening)

# Every target of the project links this one: warnings and hardening in one place.
add_library(vantora-build-flags INTERFACE)
target_compile_options(vantora-build-flags INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wnon-virtual-dtor -Wformat=2 -ffunction-sections -fdata-sections)
target_link_options(vantora-build-flags INTERFACE -Wl,--gc-sections -Wl,--as-needed)
target_link_libraries(vantora-build-flags INTERFACE vantora-hardening)

# The loader looks a name up in the libraries in the order in which the program names them. Nearly all that it looks up at a
# start is in the C++ library, which refers to itself 3,300 times, or in the C library: named first, they are not looked for
# in the others. A sanitizer has to come before both.
add_library(vantora-load-order INTERFACE)
if(NOT VANTORA_SANITIZE)
  target_link_options(vantora-load-order INTERFACE "LINKER:--push-state,--no-as-needed,-lstdc++,-lc,--pop-state")
endif()

if(VANTORA_SANITIZE)
  target_compile_options(vantora-build-flags INTERFACE
    -fsanitize=${VANTORA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(vantora-build-flags INTERFACE -fsanitize=${VANTORA_SANITIZE})
  if(VANTORA_SANITIZE MATCHES "undefined")
    # Its look at an object opens a pipe, and where no descriptor is left, which is tested, it takes the object for a broken one.
    target_compile_options(vantora-build-flags INTERFACE -fno-sanitize=vptr)
  endif()
endif()

if(VANTORA_COVERAGE)
  target_compile_options(vantora-build-flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(vantora-build-flags INTERFACE --coverage)
endif()

if(VANTORA_FUZZ)
  # libsigc++ calls its slots through a pointer to another type of function, as do callbacks of C libraries.
  target_compile_options(vantora-build-flags INTERFACE -fsanitize=fuzzer-no-link -fno-sanitize=function)
  target_link_options(vantora-build-flags INTERFACE -fno-sanitize=function)
endif()
