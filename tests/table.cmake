# The table's hash is checked against zlib's crc32 (Debian: zlib1g-dev).
find_package(ZLIB REQUIRED)
set(OSTREL_TEST_LIBS_test_table ZLIB::ZLIB)
