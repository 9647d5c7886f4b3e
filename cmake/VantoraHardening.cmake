# What makes a fault in one of the programs harder to use. These are the project's own flags, so that they hold for every build
# of it, whatever a distribution's build adds or leaves out. A compiler that does not know one of them goes without; the
# sanitizers, which do the same job and more, go without FORTIFY.

include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

add_library(vantora-hardening INTERFACE)

# Programs that can be loaded anywhere, whose tables of addresses are read-only before main runs, with no code on the stack.
# Libraries that are loaded get what CMake gives them; a program whose property VANTORA_STATIC is set says -static-pie itself.
set(loaded_library "$<IN_LIST:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY;MODULE_LIBRARY>")
target_compile_options(vantora-hardening INTERFACE "$<$<NOT:${loaded_library}>:-fPIE>" -fstack-protector-strong)
target_link_options(vantora-hardening INTERFACE
  "$<$<NOT:$<OR:${loaded_library},$<BOOL:$<TARGET_PROPERTY:VANTORA_STATIC>>>>:-pie>" -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

# The standard library's cheap checks: an index past the end, a value that is not there.
target_compile_definitions(vantora-hardening INTERFACE _GLIBCXX_ASSERTIONS)

# vantora_harden(FLAG): uses a flag of the compiler where it has it for this architecture.
function(vantora_harden flag)
  string(MAKE_C_IDENTIFIER "VANTORA_HAS${flag}" known)
  # clang only warns of flags that mean nothing to it.
  set(CMAKE_REQUIRED_FLAGS -Werror)
  check_cxx_compiler_flag("${flag}" ${known})
  if(${known})
    target_compile_options(vantora-hardening INTERFACE "${flag}")
  endif()
endfunction()

# A stack that grows by more than a page touches each page, and so cannot jump over the guard page.
vantora_harden(-fstack-clash-protection)

# Indirect jumps and returns that lead only where they are meant to. The C start-up code of Debian 12 and hostapd's control
# library have no landing pads, so that the linker may mark the programs for shadow stacks only, which need nothing of them.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
  vantora_harden(-fcf-protection=full)
  target_link_options(vantora-hardening INTERFACE -Wl,-z,shstk)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  vantora_harden(-mbranch-protection=standard)
endif()

# Checked variants of the C library's functions: with sizes that are known at run time (3) where compiler and library can,
# else with those known at compile time. They need an optimising compiler.
if(NOT VANTORA_SANITIZE)
  string(TOUPPER "${CMAKE_BUILD_TYPE}" build_type)
  set(CMAKE_REQUIRED_FLAGS "${CMAKE_CXX_FLAGS_${build_type}} -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("
    #include <features.h>
    #if !defined(__OPTIMIZE__) || __USE_FORTIFY_LEVEL < 3
    #error
    #endif
    int main() {}" VANTORA_HAS_FORTIFY_3)
  set(CMAKE_REQUIRED_FLAGS "${CMAKE_CXX_FLAGS_${build_type}}")
  check_cxx_source_compiles("
    #ifndef __OPTIMIZE__
    #error
    #endif
    int main() {}" VANTORA_OPTIMISES)
  unset(CMAKE_REQUIRED_FLAGS)
  # Undefined first: a distribution's build defines another level before.
  if(VANTORA_HAS_FORTIFY_3)
    target_compile_options(vantora-hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  elseif(VANTORA_OPTIMISES)
    target_compile_options(vantora-hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
endif()
