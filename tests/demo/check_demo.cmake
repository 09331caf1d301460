# Run by CTest: runs orv-demo and checks its exit status and output.
#   DEMO        the program (EMULATOR, a space-separated command, runs it)
#   DEMO_ARGS   its arguments, separated by spaces
#   EXPECT      "success" (exit 0) or "failure" (exit non-zero)
#   PATTERNS    regular expressions, separated by "@@", that stdout + stderr
#               must all match, each on one line
#   DATA_DIR    a fresh folder for --data-dir (emptied first)
if(DATA_DIR)
  file(REMOVE_RECURSE ${DATA_DIR})
  file(MAKE_DIRECTORY ${DATA_DIR})
endif()
separate_arguments(emulator UNIX_COMMAND "${EMULATOR}")
separate_arguments(args UNIX_COMMAND "${DEMO_ARGS}")
execute_process(COMMAND ${emulator} ${DEMO} ${args}
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 240)
message("exit status: ${result}\n--- stdout\n${out}--- stderr\n${err}---")
if(EXPECT STREQUAL "success" AND NOT result EQUAL 0)
  message(FATAL_ERROR "orv-demo failed (${result})")
elseif(EXPECT STREQUAL "failure" AND (result EQUAL 0 OR NOT result MATCHES "^[0-9]+$"))
  message(FATAL_ERROR "orv-demo should have exited with a non-zero status, got: ${result}")
endif()
string(REPLACE "@@" ";" patterns "${PATTERNS}")
foreach(pattern IN LISTS patterns)
  if(NOT "${out}${err}" MATCHES "${pattern}")
    message(FATAL_ERROR "missing from the output: ${pattern}")
  endif()
endforeach()
