# The keyed table against std::unordered_map<std::string, int> and GLib's
# GHashTable, string keys of 16 bytes. Peers:
#   apt-get install -y libbenchmark-dev libglib2.0-dev pkg-config
find_package(PkgConfig REQUIRED)
pkg_check_modules(OSTREL_BENCH_GLIB REQUIRED IMPORTED_TARGET glib-2.0)
add_executable(bench_table ${CMAKE_CURRENT_SOURCE_DIR}/bench_table.cpp)
target_link_libraries(bench_table PRIVATE ostrel_obj benchmark::benchmark benchmark::benchmark_main
  PkgConfig::OSTREL_BENCH_GLIB)
