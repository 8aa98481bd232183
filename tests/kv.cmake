# End-to-end tests of the examples: they start the real programs from the
# examples' build directory.
if(TARGET ostrel-kvd)
  set(OSTREL_TEST_DEFS_test_kv OSTREL_EXAMPLES_DIR="$<TARGET_FILE_DIR:ostrel-kvd>")
else()
  set(OSTREL_TEST_DEFS_test_kv OSTREL_EXAMPLES_DIR="")
endif()
set(OSTREL_TEST_INCLUDES_test_kv ${PROJECT_SOURCE_DIR}/examples)
set(OSTREL_TEST_PROPS_test_kv TIMEOUT 300)
# Cross builds: the build machine's own service serves the target's client
# (under the emulator), then the target's service serves the build machine's
# client, through the same rows. scripts/cross.sh builds the native peers first.
if(CMAKE_CROSSCOMPILING AND OSTREL_NATIVE_PEER_DIR AND TARGET ostrel-kvd)
  foreach(peer ostrel-kvd ostrel-kv)
    add_test(NAME cross_peer_native_${peer} COMMAND test_kv --gtest_filter=KvService.ShellRowsInOrder)
    set_tests_properties(cross_peer_native_${peer} PROPERTIES TIMEOUT 600
      ENVIRONMENT "OSTREL_NATIVE_PEER=${OSTREL_NATIVE_PEER_DIR}/examples/${peer};ZURN_LOG_DIR=${CMAKE_CURRENT_BINARY_DIR}")
  endforeach()
endif()

# The README's C++ tour: its samples stand in the README verbatim, and it runs.
add_test(NAME readme_tour_cpp_samples
  COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/check_readme_tour.sh ${PROJECT_SOURCE_DIR}/README.md
          ${PROJECT_SOURCE_DIR}/examples/tour.cpp)
if(TARGET ostrel-tour-cpp)
  add_test(NAME readme_tour_cpp_runs COMMAND ostrel-tour-cpp)
  set_tests_properties(readme_tour_cpp_runs PROPERTIES ENVIRONMENT "ZURN_LOG_DIR=${OSTREL_TEST_LOG_DIR}" TIMEOUT 120)
endif()
