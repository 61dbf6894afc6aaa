# Installs the built project into a scratch prefix and imports quarrygeom from there with a clean
# environment (no LD_LIBRARY_PATH): the extension must find the libraries through its RUNPATH.
# Expects: BINARY_DIR, WORK_DIR, PYTHON, PACKAGE_DIR (relative to the prefix).
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${WORK_DIR}" RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
set(script "import numpy as np, quarrygeom as qg; t = qg.Tree(qg.Mesh(np.eye(3), [[0, 1, 2]])); \
assert qg.__file__.startswith('${WORK_DIR}'), qg.__file__; \
assert abs(t.signed_distance([0, 0, 0]).distance[0] + 3 ** -0.5) < 1e-15")
execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH "PYTHONPATH=${WORK_DIR}/${PACKAGE_DIR}"
                        "${PYTHON}" -c "${script}" WORKING_DIRECTORY "${WORK_DIR}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "importing the installed package failed: ${rc}")
endif()
