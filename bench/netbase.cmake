# Netbase against a raw send/recv program with the same framing, in one run.
# Peers: none beyond Google Benchmark itself:
#   apt-get install -y libbenchmark-dev
add_executable(bench_netbase ${CMAKE_CURRENT_SOURCE_DIR}/bench_netbase.cpp)
target_link_libraries(bench_netbase PRIVATE ostrel benchmark::benchmark Threads::Threads)
