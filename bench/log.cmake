# The cost of a log call that the threshold filters, against an empty call.
add_executable(bench_log ${CMAKE_CURRENT_SOURCE_DIR}/bench_log.cpp)
target_link_libraries(bench_log PRIVATE ostrel_obj benchmark::benchmark benchmark::benchmark_main)
