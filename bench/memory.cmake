# The allocation functions with memory debugging off against the system
# allocator they stand for (glibc malloc/free). Needs only Google Benchmark:
#   apt-get install -y libbenchmark-dev
# bench_memory links the library's objects into the program, as the other
# benchmarks do; bench_memory_shared calls through libOstrel.so.1, as an
# application does, which adds one PLT jump per call.
add_executable(bench_memory ${CMAKE_CURRENT_SOURCE_DIR}/bench_memory.cpp)
target_link_libraries(bench_memory PRIVATE ostrel_obj benchmark::benchmark benchmark::benchmark_main)
add_executable(bench_memory_shared ${CMAKE_CURRENT_SOURCE_DIR}/bench_memory.cpp)
target_link_libraries(bench_memory_shared PRIVATE ostrel benchmark::benchmark benchmark::benchmark_main)
