# Warnings used by every target of the project.
set(ORV_WARNING_FLAGS -Wall -Wextra)
if(ORV_WERROR)
  list(APPEND ORV_WARNING_FLAGS -Werror)
endif()

function(orv_set_warnings target)
  target_compile_options(${target} PRIVATE ${ORV_WARNING_FLAGS})
endfunction()
