# Installs the built project into a scratch prefix, then configures, builds and runs
# the downstream project against that install.
# Expects: BINARY_DIR, SOURCE_DIR, WORK_DIR, BUILD_TYPE.
set(prefix "${WORK_DIR}/prefix")
set(build "${WORK_DIR}/build")
file(REMOVE_RECURSE "${WORK_DIR}")

execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${prefix}" --config "${BUILD_TYPE}"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${build}" "-DCMAKE_PREFIX_PATH=${prefix}"
                        "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
                        "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}"
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configuring the downstream project failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${build}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building the downstream project failed: ${rc}")
endif()
execute_process(COMMAND "${build}/downstream" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the downstream program failed: ${rc}")
endif()
