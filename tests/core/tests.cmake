# The arena width is read from KORV_THREAD_COUNT when the library loads, so each width
# needs its own process. A non-numeric value reads as 0; a negative one is kept.
foreach(qg_width IN ITEMS 3 1 abc -2)
  if(qg_width STREQUAL "abc")
    set(qg_expected 0)
  else()
    set(qg_expected ${qg_width})
  endif()
  add_test(NAME ParallelFrameEnvironment.KORV_THREAD_COUNT_${qg_width}
    COMMAND qg_tests_core --gtest_filter=ParallelFrameEnvironment.*:ParallelFrame.SerialAndParallel*:ParallelFrame.Exceptions*)
  set_tests_properties(ParallelFrameEnvironment.KORV_THREAD_COUNT_${qg_width} PROPERTIES
    ENVIRONMENT "KORV_THREAD_COUNT=${qg_width};QG_TEST_EXPECTED_WORKERS=${qg_expected}"
    TIMEOUT 120)
endforeach()
