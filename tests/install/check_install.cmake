# Installs the build tree BUILD into a fresh prefix under WORK (never the
# configured one, so a path fixed at configure time shows), builds the
# consumer project against it with the CMake package and with pkg-config, and
# runs both programs. Only the installed tree is searched. FLAGS: compiler
# and linker flags for the consumer (a sanitized library needs them).
set(prefix ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix}
  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)

file(GLOB pc_dir LIST_DIRECTORIES true ${prefix}/lib/*/pkgconfig ${prefix}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
set(ENV{PKG_CONFIG_LIBDIR} "${pc_dir}")
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF
    "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}"
  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build
  COMMAND_ERROR_IS_FATAL ANY)

set(ENV{KSU_LOG_FILE} ${WORK}/kscdp.log)
foreach(program engine_cmake engine_pkgconfig)
  execute_process(COMMAND ${WORK}/build/${program} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
