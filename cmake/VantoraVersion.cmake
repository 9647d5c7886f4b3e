# Which version the programs and units tell. A package's build says it; in a git clone it grows with the commits, so that what
# is installed can be told from what was; sources without a history have the project's version.

set(VANTORA_VERSION "" CACHE STRING "The version that programs and units tell; made of the last commit if empty")

set(vantora_version "${VANTORA_VERSION}")
if(vantora_version STREQUAL "")
  execute_process(COMMAND "${PROJECT_SOURCE_DIR}/scripts/version"
    OUTPUT_VARIABLE vantora_version OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE result)
  if(result EQUAL 0)
    # A new commit is a new version.
    execute_process(COMMAND git rev-parse --path-format=absolute --git-path logs/HEAD
      WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
      OUTPUT_VARIABLE commits OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(EXISTS "${commits}")
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${commits}")
    endif()
  else()
    set(vantora_version "${PROJECT_VERSION}")
  endif()
endif()

# vantora_tells_version(SOURCE...): these sources have VANTORA_VERSION. Only those that print it, so that a commit does not
# compile everything anew.
function(vantora_tells_version)
  set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_DEFINITIONS "VANTORA_VERSION=\"${vantora_version}\"")
endfunction()
