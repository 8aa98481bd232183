# The thread-group self-test serves on the fixed TCP port 27778: the runs of
# its executable must not overlap with each other or with anything else using
# that port.
set(OSTREL_TEST_PROPS_test_threadgroup RESOURCE_LOCK port27778)
