# Cancelling and destroying a group of 200 waiting threads, against 200
# std::threads woken through a condition variable and joined.
# Needs only Google Benchmark: apt-get install -y libbenchmark-dev
add_executable(bench_threadgroup ${CMAKE_CURRENT_SOURCE_DIR}/bench_threadgroup.cpp)
target_link_libraries(bench_threadgroup PRIVATE ostrel_obj benchmark::benchmark benchmark::benchmark_main)
