# Installs the project into a fresh prefix, builds the downstream project against it and runs
# its programs with an empty environment (no LD_LIBRARY_PATH): the installed libraries must
# find each other on their own. Expects BINARY_DIR, SOURCE_DIR, WORK_DIR, BUILD_TYPE. Every
# step stops the test with the failing command.
string(RANDOM LENGTH 8 tag)
set(prefix "${WORK_DIR}/prefix-${tag}")
set(build "${WORK_DIR}/build")
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${prefix}" --config "${BUILD_TYPE}"
                OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${build}" "-DCMAKE_PREFIX_PATH=${prefix}"
                        "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
                        "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}" COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build "${build}" COMMAND_ERROR_IS_FATAL ANY)

# Every installed library loads by path from a process without any search path.
file(GLOB libraries "${prefix}/lib*/libQuarry*.so")
list(LENGTH libraries count)
if(NOT count EQUAL 2)
  message(FATAL_ERROR "expected two installed libraries, found: ${libraries}")
endif()
foreach(lib IN LISTS libraries)
  execute_process(COMMAND env -i "${build}/load_library" "${lib}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
execute_process(COMMAND env -i "${build}/downstream" COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE_RECURSE "${WORK_DIR}")
