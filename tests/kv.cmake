# End-to-end tests of the example service: they start the real programs.
if(TARGET ostrel-kvd)
  set(OSTREL_TEST_DEFS_test_kv
    OSTREL_KVD_PATH="$<TARGET_FILE:ostrel-kvd>"
    OSTREL_KV_PATH="$<TARGET_FILE:ostrel-kv>"
    OSTREL_PKTDUMP_PATH="$<TARGET_FILE:ostrel-pktdump>")
else()
  set(OSTREL_TEST_DEFS_test_kv OSTREL_KVD_PATH="" OSTREL_KV_PATH="" OSTREL_PKTDUMP_PATH="")
endif()
set(OSTREL_TEST_INCLUDES_test_kv ${PROJECT_SOURCE_DIR}/examples)
set(OSTREL_TEST_PROPS_test_kv TIMEOUT 300)
