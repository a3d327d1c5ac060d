# Fails when a C or C++ source of the project is not in the project's
# clang-format style.
execute_process(COMMAND git ls-files "*.c" "*.h" "*.cpp" WORKING_DIRECTORY ${SOURCE_DIR}
                OUTPUT_VARIABLE files RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(STATUS "not a git checkout: nothing to check")
  return()
endif()
string(REPLACE "\n" ";" files "${files}")
set(bad "")
foreach(f IN LISTS files)
  if(f STREQUAL "")
    continue()
  endif()
  execute_process(COMMAND ${CLANG_FORMAT} --dry-run -Werror ${f} WORKING_DIRECTORY ${SOURCE_DIR}
                  RESULT_VARIABLE frc OUTPUT_QUIET ERROR_QUIET)
  if(NOT frc EQUAL 0)
    list(APPEND bad ${f})
  endif()
endforeach()
if(bad)
  message(FATAL_ERROR "not formatted (run clang-format -i): ${bad}")
endif()
