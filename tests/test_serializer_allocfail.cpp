// Allocation failures in the serializer: the handle record, the first output
// block, growing the block, and the memory that '@N' reads hand out. The
// allocator is interposed here, so this suite runs only in builds without a
// sanitizer runtime.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "test_serializer_util.h"


using namespace slz_test;

namespace {

using alloc_failure::fail_allocation_number;

class SerializerAllocFailure : public ::testing::Test {
protected:
    void SetUp() override {
        if (!OSTREL_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    }
};

TEST_F(SerializerAllocFailure, HandleAndFirstBlock) {
    LogCapture cap;
    const Ostrel_SerializerConfig c = config(kLE, 8, kUnordered);
    Ostrel_Serializer *h = nullptr;
    g_OSL_errno = 0x12345;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, 0x12345u); // the record's own allocation is not stored
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({"Error in Ostrel_Serializer_SerializeInit, alloc(104) failed."}));
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE), lines({"<===Exit Ostrel_Serializer_SerializeInit with 0x90006"}));

    cap.clear();
    fail_allocation_number(1); // the handle succeeds, its buffer (16 + 255 * 8 -> 2560 bytes) fails
    EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, OSL_ERR_NO_MEMORY);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Error in __OSL_Slz_PrepareBuffer, alloc(2560) failed.",
                     "Prepare serialized output buffer failed."}));
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE), lines({"<===Exit __OSL_Slz_PrepareBuffer with 0x90006"}));

    std::vector<unsigned char> empty = unhex("E2 00 02 04 0C 00 00 00 00 0C 0C 00");
    cap.clear();
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(empty.data(), 12, &h), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({"Error in Ostrel_Serializer_DeserializeInit, alloc(104) failed."}));
}

TEST_F(SerializerAllocFailure, GrowingKeepsThePacketAsItWas) {
    Writer w(kBE, 4, kOrdered);
    ASSERT_EQ(put(w.h, "%d", 1), 0u);
    std::vector<int32_t> big(200, 3);
    LogCapture cap;
    fail_allocation_number(0);
    EXPECT_EQ(put(w.h, "%d %ad", 2, big.data(), 200), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Error in __OSL_Slz_PrepareBuffer, realloc(1024) failed.",
                     "Prepare serialized output buffer failed.", "Serialize parameter 2 failed."}));
    // The "%d" of the failed call stays; the array left nothing behind.
    EXPECT_EQ(w.packet(), "E2 00 03 04 00 00 00 1C 02 0C 00 0C 04 00 00 04 00 00 00 01 04 00 00 04 00 00 00 02");
    ASSERT_EQ(put(w.h, "%ad", big.data(), 200), 0u);
    Reader r(w.bytes());
    ASSERT_EQ(r.rc, 0u);
}

TEST_F(SerializerAllocFailure, AllocatingReads) {
    Writer w(kLE, 4, kOrdered);
    const int32_t arr[] = {1, 2, 3};
    ASSERT_EQ(put(w.h, "%ad %s %l", arr, 3, "hello", int64_t{9}), 0u);
    Reader r(w.bytes());
    LogCapture cap;
    void *p = nullptr;
    unsigned n = 0;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "@Nad", &p, &n), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%ad", nullptr, &n), 0u);
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "@Ns", &p), OSL_ERR_NO_MEMORY);
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%s", nullptr), 0u);
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "@Nl", &p), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Alloc memory (size=3*4) failed.", "Deserialize parameter 1 failed.",
                     "Alloc memory (size=6) failed.", "Deserialize parameter 1 failed.",
                     "Alloc memory (size=8) failed.", "Deserialize parameter 1 failed."}));
}

} // namespace
