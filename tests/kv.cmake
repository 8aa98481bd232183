# End-to-end tests of the examples: they start the real programs from the
# examples' build directory.
if(TARGET ostrel-kvd)
  set(OSTREL_TEST_DEFS_test_kv OSTREL_EXAMPLES_DIR="$<TARGET_FILE_DIR:ostrel-kvd>")
else()
  set(OSTREL_TEST_DEFS_test_kv OSTREL_EXAMPLES_DIR="")
endif()
set(OSTREL_TEST_INCLUDES_test_kv ${PROJECT_SOURCE_DIR}/examples)
set(OSTREL_TEST_PROPS_test_kv TIMEOUT 300)
# Cross builds: the target's key-value service and client (under the
# emulator) exchange requests with the build machine's own, both ways. The
# native peers come from the build that scripts/cross.sh makes first.
if(CMAKE_CROSSCOMPILING AND OSTREL_NATIVE_PEER_DIR AND TARGET ostrel-kvd)
  add_test(NAME cross_peer_exchange
    COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/check_cross_peer.sh
            $<TARGET_FILE:ostrel-kvd> $<TARGET_FILE:ostrel-kv>
            ${OSTREL_NATIVE_PEER_DIR}/examples/ostrel-kvd ${OSTREL_NATIVE_PEER_DIR}/examples/ostrel-kv
            ${CMAKE_CROSSCOMPILING_EMULATOR})
  set_tests_properties(cross_peer_exchange PROPERTIES TIMEOUT 600)
endif()
