// Serializer, writing side: packets compared byte for byte with hand-computed
// ones (each alignment, both byte orders, both modes, index tables, nested
// packets and packet arrays), the descriptor errors with their log lines,
// the index and item-count limits, and reset/append/GetBuffer behaviour.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "test_util.h"
#include "ostrel_error.h"
#include "test_serializer_util.h"

using namespace slz_test;

namespace {

TEST(SerializerFormat, HandComputedPacketsPerAlignmentByteOrderAndMode) {
    const uint16_t hs[] = {1, 2, 3};
    struct Case {
        uint32_t endian, align, order;
        std::function<uint32_t(Ostrel_Serializer *)> write; // empty: no items
        const char *packet;
    } cases[] = {
        {kLE, 4, kUnordered, nullptr, "E2 00 00 04 0C 00 00 00 00 0C 0C 00"},
        {kBE, 4, kUnordered, nullptr, "E2 00 01 04 00 00 00 0C 00 0C 00 0C"},
        {kLE, 1, kOrdered, nullptr, "E2 00 02 01 0C 00 00 00 00 0C 0C 00"},
        {kBE, 8, kOrdered, nullptr, "E2 00 03 08 00 00 00 10 00 10 00 10 00 00 00 00"},
        {kLE, 4, kOrdered, [](Ostrel_Serializer *h) { return put(h, "%d", 7); },
         "E2 00 02 04 14 00 00 00 01 0C 0C 00 04 00 00 04 07 00 00 00"},
        // Alignment 8: wide header slots and padding.
        {kLE, 8, kOrdered, [](Ostrel_Serializer *h) { return put(h, "%c", 0x5A); },
         "E2 00 02 08 20 00 00 00 01 10 10 00 00 00 00 00 01 00 00 01 00 00 00 00 5A 00 00 00 00 00 00 00"},
        // Alignment 1 packs everything tightly; values are cut to the item's size.
        {kLE, 1, kOrdered, [](Ostrel_Serializer *h) { return put(h, "%c %h\t%s", 0x111, 0x12233, "ab"); },
         "E2 00 02 01 1E 00 00 00 03 0C 0C 00 01 00 00 01 11 02 00 00 02 33 22 03 00 00 20 61 62 00"},
        {kBE, 2, kOrdered, [](Ostrel_Serializer *h) { return put(h, "%c%l", 0xAB, int64_t{0x0102030405060708}); },
         "E2 00 03 02 00 00 00 1E 02 0C 00 0C 01 00 00 01 AB 00 08 00 00 08 01 02 03 04 05 06 07 08"},
        // The index table is written backwards: the second item's entry
        // (index 2, offset 8) first.
        {kLE, 4, kUnordered, [](Ostrel_Serializer *h) { return put(h, "%5.d %2.s", 0x01020304, nullptr); },
         "E2 00 00 04 20 00 00 00 02 0C 14 00 08 00 00 02 00 00 00 05 04 00 00 04 04 03 02 01 00 00 00 20"},
        {kBE, 8, kUnordered, [&hs](Ostrel_Serializer *h) { return put(h, "%1.ah #2.ad", hs, 3, nullptr, 3); },
         "E2 00 01 08 00 00 00 40 02 10 00 20 00 00 00 00 02 00 00 10 00 00 00 00 01 00 00 00 00 00 00 00 "
         "82 00 00 06 00 00 00 00 00 01 00 02 00 03 00 00 C4 00 00 04 00 00 00 00 00 00 00 03 00 00 00 00"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.packet);
        Writer w(c.endian, c.align, c.order);
        if (c.write) {
            ASSERT_EQ(c.write(w.h), 0u);
        }
        EXPECT_EQ(w.packet(), c.packet);
    }
}

TEST(SerializerFormat, StringsEmptyArraysAndPointers) {
    Writer w(kLE, 4, kOrdered);
    const int32_t none[1] = {0};
    void *ptr = reinterpret_cast<void *>(uintptr_t{0x1122334455667788});
    ASSERT_EQ(put(w.h, "%s%s%ad%p", "ab", "", none, 0, ptr), 0u);
    EXPECT_EQ(w.packet(),
              "E2 00 02 04 2C 00 00 00 04 0C 0C 00 "
              "03 00 00 20 61 62 00 00 "
              "01 00 00 20 00 00 00 00 "
              "00 00 00 84 "
              "08 00 00 18 88 77 66 55 44 33 22 11");

    // 32-bit pointer items need the extended flag as well.
    Writer w32(config(kLE, 4, kOrdered, true));
    void *arr[2] = {ptr, reinterpret_cast<void *>(uintptr_t{0xA0B0C0D0})};
    ASSERT_EQ(put(w32.h, "%p%ap", ptr, arr, 2), 0u);
    EXPECT_EQ(w32.packet(),
              "E2 00 02 04 20 00 00 00 02 0C 0C 00 "
              "04 00 00 14 88 77 66 55 "
              "08 00 00 94 88 77 66 55 D0 C0 B0 A0");
    Ostrel_SerializerConfig notExtended = config(kLE, 4, kOrdered);
    notExtended.bPointer32 = 1;
    Writer w64(notExtended);
    ASSERT_EQ(put(w64.h, "%p", ptr), 0u);
    EXPECT_EQ(w64.packet(), "E2 00 02 04 18 00 00 00 01 0C 0C 00 08 00 00 18 88 77 66 55 44 33 22 11");
}

TEST(SerializerFormat, NestedPacketAndPacketArray) {
    Writer inner(kBE, 1, kOrdered);
    ASSERT_EQ(put(inner.h, "%c", 0x7F), 0u);
    const std::string innerHex = "E2 00 03 01 00 00 00 11 01 0C 00 0C 01 00 00 01 7F";
    ASSERT_EQ(inner.packet(), innerHex);

    Writer outer(kLE, 4, kOrdered);
    ASSERT_EQ(put(outer.h, "%b", inner.h), 0u);
    EXPECT_EQ(outer.packet(), "E2 00 02 04 24 00 00 00 01 0C 0C 00 11 00 00 30 " + innerHex + " 00 00 00");

    Writer e1(kLE, 4, kOrdered), e2(kLE, 4, kUnordered);
    Ostrel_Serializer *members[] = {e1.h, e2.h};
    Writer arr(kLE, 4, kOrdered);
    ASSERT_EQ(put(arr.h, "%ab", members, 2), 0u);
    EXPECT_EQ(arr.packet(),
              "E2 00 02 04 30 00 00 00 01 0C 0C 00 "
              "02 00 00 B0 "
              "0C 00 00 30 E2 00 02 04 0C 00 00 00 00 0C 0C 00 "
              "0C 00 00 30 E2 00 00 04 0C 00 00 00 00 0C 0C 00");

    // A handle may nest its own packet as it stands.
    Writer self(kLE, 4, kOrdered);
    ASSERT_EQ(put(self.h, "%d", 1), 0u);
    ASSERT_EQ(put(self.h, "%b", self.h), 0u);
    EXPECT_EQ(self.packet(),
              "E2 00 02 04 2C 00 00 00 02 0C 0C 00 04 00 00 04 01 00 00 00 "
              "14 00 00 30 E2 00 02 04 14 00 00 00 01 0C 0C 00 04 00 00 04 01 00 00 00");
    // In unordered mode too: finishing the inner packet writes its header
    // where the outer item's index entry goes.
    Writer selfIdx(kLE, 4, kUnordered);
    ASSERT_EQ(put(selfIdx.h, "%1.d %2.b", 5, selfIdx.h), 0u);
    EXPECT_EQ(selfIdx.packet(),
              "E2 00 00 04 38 00 00 00 02 0C 14 00 08 00 00 02 00 00 00 01 04 00 00 04 05 00 00 00 "
              "18 00 00 30 E2 00 00 04 18 00 00 00 01 0C 10 00 00 00 00 01 04 00 00 04 05 00 00 00");
}

TEST(SerializerFormat, GetBufferAfterMoreItemsAndAfterReset) {
    Writer w(kLE, 4, kUnordered);
    ASSERT_EQ(put(w.h, "%1.c", 1), 0u);
    EXPECT_EQ(w.packet(), "E2 00 00 04 18 00 00 00 01 0C 10 00 00 00 00 01 01 00 00 01 01 00 00 00");
    // The header is rewritten after more items.
    ASSERT_EQ(put(w.h, "%2.c", 2), 0u);
    EXPECT_EQ(w.packet(),
              "E2 00 00 04 24 00 00 00 02 0C 14 00 08 00 00 02 00 00 00 01 "
              "01 00 00 01 01 00 00 00 01 00 00 01 02 00 00 00");
    // Reset empties the packet and frees the indexes.
    ASSERT_EQ(Ostrel_Serializer_Serialize(w.h, OSL_SLZ_MODE_RESET, ""), 0u);
    EXPECT_EQ(w.packet(), "E2 00 00 04 0C 00 00 00 00 0C 0C 00");
    ASSERT_EQ(Ostrel_Serializer_Serialize(w.h, OSL_SLZ_MODE_RESET, "%1.d", 9), 0u);
    EXPECT_EQ(w.packet(), "E2 00 00 04 18 00 00 00 01 0C 10 00 00 00 00 01 04 00 00 04 09 00 00 00");
}

// --- indexes and limits ------------------------------------------------------

TEST(SerializerIndex, MultiplesOf8AreNeverRecordedAsUsed) {
    LogCapture cap;
    Writer w(kLE, 4, kUnordered);
    EXPECT_EQ(put(w.h, "%8.d %8.d %16.c %16.c", 1, 2, 3, 4), 0u);
    EXPECT_EQ(put(w.h, "%7.d", 1), 0u);
    EXPECT_EQ(put(w.h, "%9.d %7.d", 1, 2), OSL_ERR_INVALID_FORMAT);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_FORMAT);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({"Parameter 2 used duplicated index: 7."}));
    // The first descriptor of the failed call stays: 6 items.
    EXPECT_EQ(w.bytes()[8], 6);
}

TEST(SerializerIndex, DescriptorErrors) {
    LogCapture cap;
    Writer w(kLE, 4, kUnordered), ordered(kLE, 4, kOrdered);
    struct Case {
        Ostrel_Serializer *h;
        const char *fmt;
        const char *msg;
    } cases[] = {
        {w.h, "%d", "Format descriptor %d had invalid index."},
        {w.h, " %12d", "Format descriptor %12d expect '.'."},
        {w.h, "%0.d", "Index 0 is invalid."},
        {w.h, "%256.d", "Index(256) is larger than 255."},
        {w.h, "%99999999999999999999.d", "Index(999999999) is larger than 255."},
        {w.h, "x1.d", "Format descriptor x1.d doesn't start with % or @."},
        {w.h, "%1.q tail", "Unknown parameter type: q tail."},
        {w.h, "%3.as", "Not support string array: %as"},
        // Ordered mode takes an index digit for an unknown type.
        {ordered.h, "%1.d", "Unknown parameter type: 1.d."},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fmt);
        cap.clear();
        EXPECT_EQ(put(c.h, c.fmt, 1), OSL_ERR_INVALID_FORMAT);
        EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({c.msg}));
    }
    // Nothing was appended by any of them.
    EXPECT_EQ(w.packet(), "E2 00 00 04 0C 00 00 00 00 0C 0C 00");
    EXPECT_EQ(ordered.packet(), "E2 00 02 04 0C 00 00 00 00 0C 0C 00");
}

TEST(SerializerLimits, The256thItemFailsAndThePacketKeeps255) {
    LogCapture cap;
    Writer w(kLE, 1, kUnordered);
    for (int i = 1; i <= 255; ++i) ASSERT_EQ(put(w.h, "%8.c", i), 0u);
    EXPECT_EQ(put(w.h, "%1.c", 0), OSL_ERR_INVALID_FORMAT);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({"The items count in the packet had exceeded 255."}));
    Reader r(w.bytes());
    ASSERT_EQ(r.rc, 0u);
    EXPECT_EQ(r.buf[8], 255);
    EXPECT_EQ(r.buf.size(), 12u + 255 * 4 + 255 * 5);
    // Items offset 12 + 255 * 4 = 1032.
    EXPECT_EQ(r.buf[10] | r.buf[11] << 8, 1032);
}

TEST(SerializerLimits, ArrayAndStringSizeLimits) {
    LogCapture cap;
    Writer w(kLE, 4, kOrdered);
    int32_t one = 1;
    EXPECT_EQ(put(w.h, "%ad", &one, 0x400000), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(put(w.h, "%ac", &one, -1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(put(w.h, "%ab", &one, 0x1000000), OSL_ERR_INVALID_PARAMETER);
    std::string huge(0xFFFFFE, 'x');
    EXPECT_EQ(put(w.h, "%s", huge.c_str()), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"The length (in bytes) of the array exceeds limitation.", "Serialize parameter 1 failed.",
                     "The length (in bytes) of the array exceeds limitation.", "Serialize parameter 1 failed.",
                     "The packet counts of the packet array exceeds limitation.", "Serialize parameter 1 failed.",
                     "The length of string exceeds limitation.", "Serialize parameter 1 failed."}));
    // One character less fits, with 16 MiB of payload: the buffer grows far
    // past its first block.
    huge.pop_back();
    cap.clear();
    EXPECT_EQ(put(w.h, "%s", huge.c_str()), 0u);
    EXPECT_EQ(cap.texts(LOG_LEVEL_WARN), lines({"Large realloc in __OSL_Slz_PrepareBuffer, size=16777728."}));
    std::vector<unsigned char> p = w.bytes();
    EXPECT_EQ(hex(p.data() + 12, 4), "FE FF FF 20");
    EXPECT_EQ(p.size(), 12u + 4 + 0xFFFFFE + 2);
    EXPECT_EQ(hex(p.data() + 16, 2), "78 78");
    EXPECT_EQ(hex(p.data() + p.size() - 4, 4), "78 00 00 00");
}

TEST(SerializerLimits, IndexedItemsMustStartBelow16MiB) {
    LogCapture cap;
    Writer w(kLE, 1, kUnordered);
    std::vector<uint8_t> block(0xFFFFFF, 0x42);
    ASSERT_EQ(put(w.h, "%1.ac %2.c", block.data(), 0xFFFFFB, 7), 0u);
    // 4 + 0xFFFFFB + 4 + 1 bytes written: the next item would start at 0x1000004.
    cap.clear();
    EXPECT_EQ(put(w.h, "%3.c", 1), OSL_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({"The packet length exceeds item index offset limitation."}));
    Reader r(w.bytes());
    ASSERT_EQ(r.rc, 0u);
    char c = 0;
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%2.c", &c), 0u);
    EXPECT_EQ(c, 7);
}

// --- argument, handle and item errors ---------------------------------------

TEST(SerializerErrors, InitRejectsBadConfigurations) {
    LogCapture cap;
    Ostrel_Serializer *h = nullptr;
    Ostrel_SerializerConfig c = config(2, 4, kOrdered);
    EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), OSL_ERR_INVALID_DATA);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_DATA);
    c = config(kLE, 4, 2);
    EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), OSL_ERR_INVALID_DATA);
    EXPECT_TRUE(cap.lines().empty());
    c = config(kLE, 3, kOrdered);
    EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), OSL_ERR_INVALID_DATA);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({"Invalid align length: 3."}));
    EXPECT_EQ(h, nullptr);

    cap.clear();
    EXPECT_EQ(Ostrel_Serializer_SerializeInit(nullptr, &h), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Error in Ostrel_Serializer_SerializeInit, assert(NULL != pConfig) failed.",
                     "Error in Ostrel_Serializer_SerializeInit, assert(NULL != phSer) failed."}));
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE).size(), 2u);

    cap.clear();
    c = config(kLE, 8, kUnordered);
    ASSERT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), 0u);
    char expect[80];
    snprintf(expect, sizeof expect, "Create serializer: %p for serializing.", static_cast<void *>(h));
    EXPECT_EQ(cap.texts(LOG_LEVEL_INFO), lines({expect}));
    EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
}

TEST(SerializerErrors, HandleChecksAndModes) {
    LogCapture cap;
    Writer w(kLE, 4, kOrdered);
    uint32_t notAHandle[16] = {0xA2F4C201};
    EXPECT_EQ(Ostrel_Serializer_Serialize(reinterpret_cast<Ostrel_Serializer *>(notAHandle), 1, "%d", 1),
              OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_Serializer_Serialize(nullptr, 1, "%d", 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Serializer_Serialize(w.h, 1, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE); // argument checks leave the last error alone
    EXPECT_EQ(Ostrel_Serializer_Serialize(w.h, 3, "%d", 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Serializer_Destroy(nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Serializer_Destroy(reinterpret_cast<Ostrel_Serializer *>(notAHandle)), OSL_ERR_INVALID_HANDLE);
    unsigned char *p = nullptr;
    int n = 0;
    EXPECT_EQ(Ostrel_Serializer_GetBuffer(w.h, nullptr, &n), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Serializer_GetBuffer(w.h, &p, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Invalid handle.", "Error in Ostrel_Serializer_Serialize, assert(NULL != pSer) failed.",
                     "Error in Ostrel_Serializer_Serialize, assert(NULL != szFormat) failed.",
                     "Invalid serialize mode: 3.", "Error in Ostrel_Serializer_Destroy, assert(NULL != pSer) failed.",
                     "Invalid handle.", "Error in Ostrel_Serializer_GetBuffer, assert(NULL != ppucBuf) failed.",
                     "Error in Ostrel_Serializer_GetBuffer, assert(NULL != piLength) failed."}));

    // A reading handle is refused by the writing calls.
    Reader r("E2 00 02 04 0C 00 00 00 00 0C 0C 00");
    ASSERT_EQ(r.rc, 0u);
    cap.clear();
    EXPECT_EQ(Ostrel_Serializer_Serialize(r.h, 1, "%d", 1), OSL_ERR_INVALID_STATUS);
    EXPECT_EQ(Ostrel_Serializer_GetBuffer(r.h, &p, &n), OSL_ERR_INVALID_STATUS);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_STATUS);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Handle didn't be initialized by Ostrel_Serializer_SerializeInit()",
                     "Handle didn't be initialized by Ostrel_Serializer_SerializeInit()"}));
}

TEST(SerializerErrors, NullArraysNeedTheHashPrefix) {
    LogCapture cap;
    Writer w(kLE, 4, kOrdered);
    EXPECT_EQ(put(w.h, "%d %ad", 5, nullptr, 3), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"The array pointer is NULL while its length is not 0.", "Serialize parameter 2 failed."}));
    // The first item stays, and the packet can still be appended to.
    ASSERT_EQ(put(w.h, "#ad %ac #ac", nullptr, 3, nullptr, 0, nullptr, 0), 0u);
    EXPECT_EQ(w.packet(),
              "E2 00 02 04 24 00 00 00 04 0C 0C 00 04 00 00 04 05 00 00 00 "
              "04 00 00 C4 03 00 00 00 00 00 00 81 00 00 00 81");
}

TEST(SerializerErrors, NestedPacketErrors) {
    LogCapture cap;
    Writer w(kLE, 4, kOrdered);
    EXPECT_EQ(put(w.h, "%d%b", 1, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(put(w.h, "%ab", nullptr, 2), OSL_ERR_INVALID_PARAMETER);
    Reader r("E2 00 02 04 0C 00 00 00 00 0C 0C 00");
    Ostrel_Serializer *members[] = {w.h, r.h};
    EXPECT_EQ(put(w.h, "%ab", members, 2), OSL_ERR_INVALID_STATUS);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"The packet pointer is NULL parameter 2.", "Serialize parameter 2 failed.",
                     "The array pointer is NULL while its length is 2 of parameter 1.",
                     "Serialize parameter 1 failed.",
                     "Handle didn't be initialized by Ostrel_Serializer_SerializeInit()", "Get packet buffer failed.",
                     "Insert packet[1] to another packet failed.", "Serialize parameter 1 failed."}));
    // Only the first "%d" stayed; the half-written packet array was dropped.
    EXPECT_EQ(w.packet(), "E2 00 02 04 14 00 00 00 01 0C 0C 00 04 00 00 04 01 00 00 00");
}

} // namespace
