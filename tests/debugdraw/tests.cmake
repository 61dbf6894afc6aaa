# The drawing test records the library's glVertex3f calls; it applies when the library draws.
if(OpenGL_FOUND AND OPENGL_GLU_FOUND)
  target_compile_definitions(qg_tests_debugdraw PRIVATE QG_TEST_LIBRARY_DRAWS)
endif()
