# The thread-group self-test serves on the fixed TCP port 27778: its runs must
# not overlap with each other or with anything else using that port.
set(OSTREL_TEST_PROPS_test_threadgroup_selftest RESOURCE_LOCK port27778)
