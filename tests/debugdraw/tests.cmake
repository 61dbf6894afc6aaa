# The drawing tests render offscreen (OSMesa); they apply when the library draws.
target_link_libraries(qg_tests_debugdraw PRIVATE qgrender)
if(OpenGL_FOUND AND OPENGL_GLU_FOUND)
  target_compile_definitions(qg_tests_debugdraw PRIVATE QG_TEST_LIBRARY_DRAWS)
endif()
