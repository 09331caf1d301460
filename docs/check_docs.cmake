# Run by CTest: doxygen over the public headers must finish without a
# warning (the warning log is empty).
file(REMOVE_RECURSE ${OUTPUT}/html)
file(REMOVE ${OUTPUT}/warnings.log)
execute_process(COMMAND ${DOXYGEN} ${DOXYFILE} WORKING_DIRECTORY ${OUTPUT}
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
set(warnings "")
if(EXISTS ${OUTPUT}/warnings.log)
  file(READ ${OUTPUT}/warnings.log warnings)
endif()
if(NOT result EQUAL 0 OR NOT warnings STREQUAL "")
  message(FATAL_ERROR "doxygen (${result}):\n${warnings}\n${out}\n${err}")
endif()
if(NOT EXISTS ${OUTPUT}/html/index.html)
  message(FATAL_ERROR "doxygen made no html/index.html")
endif()
