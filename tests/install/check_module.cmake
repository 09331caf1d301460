# Run by CTest: what a module author does. Installs the library (or takes
# ORV_PREFIX, where the packages installed it), builds the
# Echo module out of the tree against the install with pkg-config only,
# checks that the prepare function is its one exported function, and has
# orv-demo load it from there.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "failed (${result}): ${command}\n${out}\n${err}")
  endif()
  set(last_output "${out}${err}" PARENT_SCOPE)
endfunction()

set(module_dir ${ORV_WORK_DIR}/my-modules)
file(REMOVE_RECURSE ${ORV_WORK_DIR})
file(MAKE_DIRECTORY ${module_dir})
if(ORV_PREFIX)  # already installed, from the packages
  set(prefix ${ORV_PREFIX})
else()
  set(prefix ${ORV_WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${ORV_BUILD_DIR} --prefix ${prefix})
endif()
file(GLOB_RECURSE pc_files ${prefix}/*/orv.pc)
get_filename_component(pc_dir ${pc_files} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)

find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
set(sysroot_flag)
if(ORV_SYSROOT)
  set(ENV{PKG_CONFIG_LIBDIR} "${pc_dir}:${ORV_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig")
  unset(ENV{PKG_CONFIG_SYSROOT_DIR})
  set(sysroot_flag --sysroot=${ORV_SYSROOT})
endif()
run(${PKG_CONFIG} --cflags --libs orv)
string(STRIP "${last_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(extra_flags UNIX_COMMAND "${ORV_CXX_FLAGS} ${ORV_LINK_FLAGS}")

# The module's sources are copied alone: nothing of the source tree is seen.
file(COPY ${ORV_MODULE_SOURCE}/EchoModule.cpp ${ORV_MODULE_SOURCE}/EchoModule.h
  DESTINATION ${ORV_WORK_DIR}/src)
set(module ${module_dir}/libVeltoSpeechEcho.so)
run(${ORV_CXX} -std=c++17 -shared -fPIC -fvisibility=hidden -fvisibility-inlines-hidden
  -Wall -Wextra -Werror ${sysroot_flag} ${extra_flags}
  ${ORV_WORK_DIR}/src/EchoModule.cpp ${pc_flags} -Wl,-rpath,${lib_dir} -o ${module})

# Exported functions of the module itself: the prepare function only.
if(ORV_NM)
  run(${ORV_NM} -D --defined-only ${module})
  if(NOT last_output MATCHES " T VeltoSpeechEcho_INIT\n")
    message(FATAL_ERROR "VeltoSpeechEcho_INIT is not exported:\n${last_output}")
  endif()
  if(last_output MATCHES "EchoManager")
    message(FATAL_ERROR "the module exports its internals:\n${last_output}")
  endif()
endif()

set(emulator)
if(ORV_EMULATOR)
  string(REPLACE " " ";" emulator "${ORV_EMULATOR}")
endif()
run(${emulator} ${ORV_DEMO} --module-dir ${module_dir} --data-dir ${ORV_WORK_DIR}/data/ --no-pace)
foreach(line "module: Echo loaded from ${module_dir}/libVeltoSpeechEcho.so" "version: echo 1.0.0"
             "done: every step passed")
  string(FIND "${last_output}" "${line}" at)
  if(at LESS 0)
    message(FATAL_ERROR "missing from orv-demo's output: ${line}\n${last_output}")
  endif()
endforeach()
message("${last_output}")
