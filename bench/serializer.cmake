# Serializer against msgpack-c and tpl, encoding and decoding the same record.
# Peers (Debian): apt-get install -y libmsgpack-dev libtpl-dev
find_path(OSTREL_MSGPACK_INCLUDE msgpack.h)
find_library(OSTREL_MSGPACK_LIB msgpackc)
find_path(OSTREL_TPL_INCLUDE tpl.h)
find_library(OSTREL_TPL_LIB tpl)
if(OSTREL_MSGPACK_INCLUDE AND OSTREL_MSGPACK_LIB AND OSTREL_TPL_INCLUDE AND OSTREL_TPL_LIB)
  add_executable(bench_serializer ${CMAKE_CURRENT_SOURCE_DIR}/bench_serializer.cpp)
  target_include_directories(bench_serializer PRIVATE ${OSTREL_MSGPACK_INCLUDE} ${OSTREL_TPL_INCLUDE})
  target_link_libraries(bench_serializer PRIVATE ostrel_obj benchmark::benchmark benchmark::benchmark_main
    ${OSTREL_MSGPACK_LIB} ${OSTREL_TPL_LIB})
else()
  message(STATUS "bench_serializer not built: needs libmsgpack-dev and libtpl-dev")
endif()
