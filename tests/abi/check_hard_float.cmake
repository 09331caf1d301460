# Run by CTest on ARM builds: the library must use the hard-float calling
# convention (floating-point arguments in VFP registers), or it could not be
# loaded by armhf applications and modules.
execute_process(COMMAND ${READELF} -A ${LIBRARY}
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${READELF} -A ${LIBRARY} failed (${result}): ${err}")
endif()
if(NOT out MATCHES "Tag_ABI_VFP_args: VFP registers")
  message(FATAL_ERROR "${LIBRARY} is not built for the hard-float ABI:\n${out}")
endif()
message(STATUS "hard-float ABI: Tag_ABI_VFP_args: VFP registers")
