// Serializer, reading side: hand-computed packets read back on this host in
// either byte order, the copy/reference/allocate descriptors and their
// errors, and the validation of received packets with each of its messages.
// Packets are given to the reader in exact-size buffers so that the
// sanitizer build catches any read past their end.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "../fuzz/fuzz_serializer_reader.h"
#include "test_util.h"
#include "ostrel_error.h"
#include "ostrel_memory.h"
#include "test_serializer_util.h"

using namespace slz_test;

namespace {

// Ordered, little-endian, A = 4: "%d" 7.
const char *kOrderedInt = "E2 00 02 04 14 00 00 00 01 0C 0C 00 04 00 00 04 07 00 00 00";
// Unordered, little-endian, A = 4: "%5.d %2.s" 0x01020304, NULL.
const char *kUnorderedPair =
    "E2 00 00 04 20 00 00 00 02 0C 14 00 08 00 00 02 00 00 00 05 04 00 00 04 04 03 02 01 00 00 00 20";
// Ordered, little-endian, A = 4: "%ab" with one empty ordered packet.
const char *kPacketArray =
    "E2 00 02 04 20 00 00 00 01 0C 0C 00 01 00 00 B0 0C 00 00 30 E2 00 02 04 0C 00 00 00 00 0C 0C 00";

std::string patch(const char *base, size_t at, const std::string &bytes) {
    std::vector<unsigned char> p = unhex(base), b = unhex(bytes);
    std::copy(b.begin(), b.end(), p.begin() + static_cast<long>(at));
    return hex(p);
}

bool host_is_big_endian() {
    const uint16_t one = 1;
    unsigned char first;
    memcpy(&first, &one, 1);
    return first == 0;
}

TEST(SerializerRead, ReferenceReadsConvertForeignOrderInPlaceEachTime) {
    // Unordered, A = 4: "%1.d" 0x01020304, in the byte order opposite to
    // this host's, so that reading it has to convert.
    const char *kBigEndianPacket = "E2 00 01 04 00 00 00 18 01 0C 00 10 01 00 00 00 04 00 00 04 01 02 03 04";
    const char *kLittleEndianPacket = "E2 00 00 04 18 00 00 00 01 0C 10 00 00 00 00 01 04 00 00 04 04 03 02 01";
    const bool big = host_is_big_endian();
    Reader r(big ? kLittleEndianPacket : kBigEndianPacket);
    ASSERT_EQ(r.rc, 0u);
    const std::string packetValue = big ? "04 03 02 01" : "01 02 03 04";
    const std::string convertedValue = big ? "01 02 03 04" : "04 03 02 01";
    EXPECT_EQ(hex(r.buf.data() + 20, 4), packetValue);
    const void *p = nullptr;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "@1.d", &p), 0u);
    EXPECT_EQ(p, r.buf.data() + 20);
    int32_t v;
    memcpy(&v, p, 4);
    EXPECT_EQ(v, 0x01020304);
    EXPECT_EQ(hex(r.buf.data() + 20, 4), convertedValue);
    // The library does not remember the conversion: a second reference read
    // converts the value back.
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "@1.d", &p), 0u);
    memcpy(&v, p, 4);
    EXPECT_EQ(v, 0x04030201);
    EXPECT_EQ(hex(r.buf.data() + 20, 4), packetValue);
}

TEST(SerializerRead, StringDestinations) {
    LogCapture cap;
    Writer w(kBE, 2, kOrdered);
    ASSERT_EQ(put(w.h, "%s %s %d %s", "abcd", "xyz", 5, nullptr), 0u);
    Reader r(w.bytes());
    char buf[8] = "-------";
    int size = 4;
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%s", buf, &size), OSL_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 5);
    EXPECT_STREQ(buf, "-------");
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%s", buf, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"The output buffer length of parameter 1 is 4 while the array length is 5.",
                     "Deserialize parameter 1 failed.", "The string length pointer of parameter 1 is NULL.",
                     "Deserialize parameter 1 failed."}));
    // The failed calls did not move the read position. A NULL buffer skips
    // the string without taking a size pointer.
    int32_t d = 0;
    char *s3 = nullptr;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%s @s %d @s", nullptr, &s3, &d, &s3), 0u);
    EXPECT_EQ(d, 5);
    EXPECT_EQ(s3, nullptr);
}

TEST(SerializerRead, ArrayDestinations) {
    LogCapture cap;
    Writer w(kBE, 8, kUnordered);
    const int32_t three[] = {-1, 2, 0x7FFFFFFF};
    ASSERT_EQ(put(w.h, "%1.ad #2.ad", three, 3, nullptr, 3), 0u);
    Reader r(w.bytes());
    ASSERT_EQ(r.rc, 0u);

    int32_t got[4] = {9, 9, 9, 9};
    unsigned n = 2;
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%1.ad", got, &n), OSL_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%1.ad", got, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Given memory is not enough, expect 3, was 2 bytes.", "Deserialize parameter 1 failed.",
                     "Deserialize to an array of which the length pointer is NULL.",
                     "Deserialize parameter 1 failed."}));
    EXPECT_EQ(std::vector<int32_t>(got, got + 4), (std::vector<int32_t>{9, 9, 9, 9}));
    // A NULL destination gives the count only.
    n = 0;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%1.ad", nullptr, &n), 0u);
    EXPECT_EQ(n, 3u);
    // A null array copied writes a NULL pointer into the destination, no
    // more, and gives its count.
    int32_t nulled[4] = {7, 7, 7, 7};
    n = 4;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%2.ad", nulled, &n), 0u);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(std::vector<int32_t>(nulled, nulled + 4), (std::vector<int32_t>{0, 0, 7, 7}));
}

TEST(SerializerRead, DescriptorAndItemMismatches) {
    LogCapture cap;
    Writer w(kLE, 4, kUnordered);
    const int32_t arr[] = {1};
    Writer inner(kLE, 4, kOrdered);
    ASSERT_EQ(Ostrel_Serializer_Serialize(w.h, 1, "%1.d %2.ad %3.s %4.b", 5, arr, 1, "x", inner.h), 0u);
    Reader r(w.bytes());
    ASSERT_EQ(r.rc, 0u);
    struct Case {
        const char *fmt;
        uint32_t rc;
        std::vector<std::string> msgs;
    } cases[] = {
        {"%7.d", OSL_ERR_NOT_FOUND, {"Can't find serialized data with index: 7."}},
        {"%0.d", OSL_ERR_NOT_FOUND, {"Can't find serialized data with index: 0."}},
        {"%1.h", OSL_ERR_INVALID_FORMAT,
         {"The item's type in the packet is 4, but is deserialized as 2.", "Deserialize parameter 1 failed."}},
        {"%1.p", OSL_ERR_INVALID_FORMAT,
         {"The item's type in the packet is 4, but is deserialized as 24.", "Deserialize parameter 1 failed."}},
        {"%1.ad", OSL_ERR_INVALID_FORMAT, {"Item in the packet is NOT an array, but is deserialized as an array."}},
        {"%2.d", OSL_ERR_INVALID_FORMAT, {"Item in the packet is an array, but is NOT deserialized as an array."}},
        {"%2.as", OSL_ERR_INVALID_FORMAT, {"Not support string array: %as", "Deserialize parameter 1 failed."}},
        {"%1.s", OSL_ERR_INVALID_FORMAT,
         {"The item's type in the packet is 4, but is deserialized as string.", "Deserialize parameter 1 failed."}},
        {"@3.b", OSL_ERR_INVALID_FORMAT,
         {"The item's type in the packet is 32, but is deserialized as packet.", "Deserialize parameter 1 failed."}},
        {"%4.b", OSL_ERR_INVALID_FORMAT, {"Not support copy packet: %b or %ab", "Deserialize parameter 1 failed."}},
        {"#1.d", OSL_ERR_INVALID_FORMAT, {"Format descriptor #1.d doesn't start with % or @."}},
        {"%1d", OSL_ERR_INVALID_FORMAT, {"Format descriptor %1d expect '.'."}},
        {"@N.d", OSL_ERR_INVALID_FORMAT, {"Format descriptor @N.d had invalid index."}},
        {"%300.d", OSL_ERR_INVALID_FORMAT, {"Index(300) is larger than 255."}},
        {"%1.x", OSL_ERR_INVALID_FORMAT, {"Unknown parameter type: x."}},
        {"%1.", OSL_ERR_INVALID_FORMAT, {"Unknown parameter type: ."}},
    };
    for (const auto &c : cases) {
        cap.clear();
        int64_t sink[4] = {};
        unsigned n = 4;
        EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, c.fmt, sink, &n), c.rc) << c.fmt;
        EXPECT_EQ(Ostrel_GetLastError(), c.rc) << c.fmt;
        std::vector<std::string> expect;
        for (const auto &m : c.msgs) expect.push_back(line(m));
        EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), expect) << c.fmt;
    }
    // Earlier descriptors of a failing call keep what they wrote.
    int32_t d = 0;
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%1.d %9.d", &d, &d), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(d, 5);
}

TEST(SerializerRead, OrderedReadsContinueAcrossCallsAndStopAtTheEnd) {
    LogCapture cap;
    Writer w(kLE, 2, kOrdered);
    ASSERT_EQ(put(w.h, "%d%d%d", 1, 2, 3), 0u);
    Reader r(w.bytes());
    int32_t a = 0, b = 0;
    // A NULL destination skips a scalar.
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%d", nullptr), 0u);
    // A failed call does not move the read position.
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%d %s", &a, nullptr), OSL_ERR_INVALID_FORMAT);
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%d %d", &a, &b), 0u);
    EXPECT_EQ(a * 10 + b, 23);
    cap.clear();
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "%d", &a), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), lines({"No more items in the packet."}));
    // Reopening rewinds.
    ASSERT_EQ(Ostrel_Serializer_DeserializeInit(r.buf.data(), static_cast<int>(r.buf.size()), &r.h), 0u);
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "%d", &a), 0u);
    EXPECT_EQ(a, 1);
}

TEST(SerializerRead, PacketArrayDestinationsAndHandleReuse) {
    LogCapture cap;
    Writer m1(kLE, 1, kOrdered), m2(kBE, 2, kOrdered);
    ASSERT_EQ(put(m1.h, "%d", 11), 0u);
    ASSERT_EQ(put(m2.h, "%d", 22), 0u);
    Ostrel_Serializer *members[] = {m1.h, m2.h};
    Writer top(kLE, 4, kOrdered);
    ASSERT_EQ(put(top.h, "%ab", members, 2), 0u);
    Reader r(top.bytes());
    ASSERT_EQ(r.rc, 0u);

    Ostrel_Serializer *got[3] = {};
    unsigned n = 1;
    cap.clear();
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "@ab", got, &n), OSL_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(Ostrel_Serializer_Deserialize(r.h, "@ab", got, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"The output buffer length of parameter 1 is 1 while the array length is 2.",
                     "Deserialize parameter 1 failed.", "The string length pointer of parameter 1 is NULL.",
                     "Deserialize parameter 1 failed."}));
    EXPECT_EQ(got[0], nullptr);
    n = 3;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "@ab", got, &n), 0u);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(got[2], nullptr);

    // Reading the packet array again reuses the handles already in the array.
    Ostrel_Serializer *keep0 = got[0];
    ASSERT_EQ(Ostrel_Serializer_DeserializeInit(r.buf.data(), static_cast<int>(r.buf.size()), &r.h), 0u);
    cap.clear();
    n = 3;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(r.h, "@ab", got, &n), 0u);
    EXPECT_EQ(got[0], keep0);
    char expect[80];
    snprintf(expect, sizeof expect, "Reuse old serializer: %p to deserialize.", static_cast<void *>(keep0));
    EXPECT_EQ(cap.texts(LOG_LEVEL_INFO).at(0), line(expect));
    int32_t v = 0;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(got[1], "%d", &v), 0u);
    EXPECT_EQ(v, 22);
    for (auto *h : {got[0], got[1]}) EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
}

TEST(SerializerRead, PointerWidthOfTheReader) {
    LogCapture cap;
    Writer w(config(kBE, 4, kOrdered, true));
    ASSERT_EQ(Ostrel_Serializer_Serialize(w.h, 1, "%p", reinterpret_cast<void *>(uintptr_t{0xCAFEF00D})), 0u);
    std::vector<unsigned char> p = w.bytes();
    Ostrel_Serializer *h = nullptr;
    ASSERT_EQ(Ostrel_Serializer_DeserializeInit(p.data(), static_cast<int>(p.size()), &h), 0u);
    uint64_t v = 0;
    EXPECT_EQ(Ostrel_Serializer_Deserialize(h, "%p", &v), OSL_ERR_INVALID_FORMAT);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "The item's type in the packet is 20, but is deserialized as 24."));
    Ostrel_SerializerConfig c32 = config(kLE, 1, kUnordered, true);
    ASSERT_EQ(Ostrel_Serializer_DeserializeInit_Ex(&c32, p.data(), static_cast<int>(p.size()), &h), 0u);
    ASSERT_EQ(Ostrel_Serializer_Deserialize(h, "%p", &v), 0u);
    // The reader stores the 4-byte value at the start of the destination and
    // leaves the rest of it alone: compare with those bytes in host order.
    const uint32_t value32 = 0xCAFEF00Du;
    uint64_t expected = 0;
    memcpy(&expected, &value32, sizeof value32);
    EXPECT_EQ(v, expected);
    // Reopening without the extended call goes back to native pointers.
    ASSERT_EQ(Ostrel_Serializer_DeserializeInit(p.data(), static_cast<int>(p.size()), &h), 0u);
    EXPECT_EQ(Ostrel_Serializer_Deserialize(h, "%p", &v), OSL_ERR_INVALID_FORMAT);
    EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit_Ex(nullptr, p.data(), 1, &h), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath,
                        "Error in Ostrel_Serializer_DeserializeInit_Ex, assert(NULL != pConfig) failed."));
}

TEST(SerializerOpen, ArgumentHandleAndReuseRules) {
    LogCapture cap;
    std::vector<unsigned char> good = unhex(kOrderedInt);
    Ostrel_Serializer *h = nullptr;
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(nullptr, 20, &h), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(good.data(), 20, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(good.data(), 11, &h), OSL_ERR_INVALID_DATA);
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(good.data(), -5, &h), OSL_ERR_INVALID_DATA);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_DATA);
    Writer w(kLE, 4, kOrdered);
    Ostrel_Serializer *wh = w.h;
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(good.data(), 20, &wh), OSL_ERR_INVALID_STATUS);
    uint32_t junk[16] = {0x12345678};
    Ostrel_Serializer *bad = reinterpret_cast<Ostrel_Serializer *>(junk);
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(good.data(), 20, &bad), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    int32_t d;
    EXPECT_EQ(Ostrel_Serializer_Deserialize(w.h, "%d", &d), OSL_ERR_INVALID_STATUS);
    EXPECT_EQ(Ostrel_Serializer_Deserialize(bad, "%d", &d), OSL_ERR_INVALID_HANDLE);
    char reuseW[80], reuseB[80];
    snprintf(reuseW, sizeof reuseW, "Reuse old serializer: %p to deserialize.", static_cast<void *>(w.h));
    snprintf(reuseB, sizeof reuseB, "Reuse old serializer: %p to deserialize.", static_cast<void *>(bad));
    EXPECT_TRUE(cap.has(LOG_LEVEL_INFO, kPath, reuseW));
    EXPECT_TRUE(cap.has(LOG_LEVEL_INFO, kPath, reuseB));
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              lines({"Error in Ostrel_Serializer_DeserializeInit, assert(NULL != pucBuf) failed.",
                     "Error in Ostrel_Serializer_DeserializeInit, assert(NULL != phSer) failed.",
                     "Serialized packet length error: 11.", "Serialized packet length error: -5.",
                     "This handle can only be used to serialize.", "Invalid handle.",
                     "Handle didn't be initialized by Ostrel_Serializer_DeserializeInit()", "Invalid handle."}));

    // A reused handle that fails validation stays on its previous packet.
    ASSERT_EQ(Ostrel_Serializer_DeserializeInit(good.data(), 20, &h), 0u);
    std::vector<unsigned char> broken = good;
    broken[0] = 0;
    Ostrel_Serializer *same = h;
    EXPECT_EQ(Ostrel_Serializer_DeserializeInit(broken.data(), 20, &h), OSL_ERR_INVALID_DATA);
    EXPECT_EQ(h, same);
    ASSERT_EQ(Ostrel_Serializer_Deserialize(h, "%d", &d), 0u);
    EXPECT_EQ(d, 7);
    EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
}

// --- validation ---------------------------------------------------------------

struct Invalid {
    std::string packet;
    std::vector<std::string> messages; // before "Invalid encoded packet data."
};

TEST(SerializerValidate, EachRejectionWithItsMessage) {
    const Invalid cases[] = {
        {patch(kOrderedInt, 0, "E3"), {"Invalid magic number: 227."}},
        {patch(kOrderedInt, 3, "03"), {"Invalid align length: 3."}},
        {patch(kOrderedInt, 3, "10"), {"Invalid align length: 16."}},
        {patch(kOrderedInt, 4, "15"), {"The length stored in the packet is 21 while the given is 20."}},
        {patch(kOrderedInt, 4, "00 00 00 14"), {"The length stored in the packet is 335544320 while the given is 20."}},
        {patch(kOrderedInt, 9, "0B"), {"Invalid header length: 11."}},
        {patch(kOrderedInt, 9, "18"), {"Invalid header length: 24."}},
        {patch(kOrderedInt, 9, "40"), {"Invalid header length: 64."}},
        {"E2 00 02 08 10 00 00 00 00 0C 0C 00 00 00 00 00", {"Invalid header length: 12."}},
        {patch(kOrderedInt, 10, "10"), {"Invalid items offset in ordered mode: 16"}},
        {patch(kUnorderedPair, 10, "10"), {"Invalid items offset in unordered mode: 16."}},
        {patch(kUnorderedPair, 12, "0C 00 00 02"), {"Invalid index table."}},
        // An entry that points into the middle of an item.
        {patch(kUnorderedPair, 12, "04 00 00 02"), {"Invalid index table."}},
        {patch(kOrderedInt, 8, "02"), {"Invalid item 1 in packet."}},
        {patch(kOrderedInt, 12, "08 00 00 C4"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 83"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 A0"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 94"),
         {"Pointer that has different length with current arch is forbidden, item: 0.", "Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 44"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "02 00 00 04"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 18"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 05"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 20 61 62 63 64"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "08 00 00 20"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "00 00 00 30"), {"Invalid item 0 in packet."}},
        {patch(kOrderedInt, 12, "04 00 00 30"), {"Invalid item 0 in packet."}},
        {patch(kPacketArray, 16, "0C 00 00 31"), {"Invalid item 0 in packet."}},
        {patch(kPacketArray, 16, "0C 00 00 B0"), {"Invalid item 0 in packet."}},
        {patch(kPacketArray, 20, "E3"), {"Invalid item 0 in packet."}},
        {patch(kPacketArray, 12, "02 00 00 B0"), {"Invalid item 0 in packet."}},
        {patch(kPacketArray, 12, "FF FF FF B0"), {"Invalid item 0 in packet."}},
        {patch(kPacketArray, 12, "04 00 00 F0"), {"Invalid item 0 in packet."}},
        // The member's packet would start exactly at the packet end.
        {"E2 00 02 04 14 00 00 00 01 0C 0C 00 01 00 00 B0 0C 00 00 30", {"Invalid item 0 in packet."}},
        // Trailing bytes, and a payload that ends past the packet.
        {"E2 00 02 04 18 00 00 00 01 0C 0C 00 04 00 00 04 07 00 00 00 00 00 00 00",
         {"Invalid packet data: context exceeds packet length."}},
        {"E2 00 02 04 12 00 00 00 01 0C 0C 00 04 00 00 04 07 00",
         {"Invalid packet data: context exceeds packet length."}},
        {patch(kOrderedInt, 12, "08 00 00 84"), {"Invalid packet data: context exceeds packet length."}},
    };
    for (const auto &c : cases) {
        LogCapture cap;
        Reader r(c.packet);
        EXPECT_EQ(r.rc, OSL_ERR_INVALID_DATA) << c.packet;
        EXPECT_EQ(r.h, nullptr);
        EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_DATA);
        std::vector<std::string> expect;
        for (const auto &m : c.messages) expect.push_back(line(m));
        expect.push_back(line("Invalid encoded packet data."));
        EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), expect) << c.packet;
    }
}

TEST(SerializerValidate, AcceptedVariants) {
    const char *ok[] = {
        // Header of 32 bytes (longer than H) is skipped.
        "E2 77 02 04 28 00 00 00 01 20 20 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
        "04 00 00 04 07 00 00 00",
        // A 32-bit pointer scalar, an empty string item, a null array, other flag bits.
        "E2 00 FE 04 20 00 00 00 03 0C 0C 00 04 00 00 14 07 00 00 00 00 00 00 20 04 00 00 C1 09 00 00 00",
        // Unordered with two entries for the same item.
        "E2 00 00 04 24 00 00 00 02 0C 14 00 00 00 00 01 00 00 00 02 "
        "01 00 00 01 55 00 00 00 01 00 00 01 66 00 00 00",
        // Unordered and empty: it opens, but holds nothing.
        "E2 00 00 04 0C 00 00 00 00 0C 0C 00",
    };
    for (const char *p : ok) {
        Reader r{std::string(p)};
        EXPECT_EQ(r.rc, 0u) << p;
    }
    Reader big{std::string(ok[0])};
    int32_t d = 0;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(big.h, "%d", &d), 0u);
    EXPECT_EQ(d, 7);
    Reader twice{std::string(ok[2])};
    uint8_t a = 0, b = 0;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(twice.h, "%1.c %2.c", &a, &b), 0u);
    EXPECT_EQ(a + b, 0xAA);
    Reader empty{std::string(ok[3])};
    EXPECT_EQ(Ostrel_Serializer_Deserialize(empty.h, "%1.d", &d), OSL_ERR_NOT_FOUND);
}

// A packet with every kind of item, nested two levels deep.
std::vector<unsigned char> rich_packet(uint32_t endian, uint32_t align, uint32_t order) {
    Writer leaf(endian ^ 1, align, order ^ 1), mid(endian, 8 / align, order);
    const int64_t ls[] = {1, -1};
    EXPECT_EQ(Ostrel_Serializer_Serialize(leaf.h, 1, order ? "%7.al %8.s" : "%al %s", ls, 2, "deep"), 0u);
    Ostrel_Serializer *two[] = {leaf.h, leaf.h};
    EXPECT_EQ(Ostrel_Serializer_Serialize(mid.h, 1, order ? "%c %ab" : "%1.c %2.ab", 1, two, 2), 0u);
    Writer top(endian, align, order);
    const uint16_t hs[] = {1, 2, 3};
    void *ps[] = {&top, nullptr};
    if (order)
        EXPECT_EQ(Ostrel_Serializer_Serialize(top.h, 1, "%h%d%l%p%s%s%ah#ad%ap%b", 1, 2, int64_t{3}, &top, "str",
                                              nullptr, hs, 3, nullptr, 4, ps, 2, mid.h),
                  0u);
    else
        EXPECT_EQ(Ostrel_Serializer_Serialize(top.h, 1, "%9.h%3.d%200.l%4.p%5.s%6.s%7.ah#8.ad%10.ap%11.b", 1, 2,
                                              int64_t{3}, &top, "str", nullptr, hs, 3, nullptr, 4, ps, 2, mid.h),
                  0u);
    return top.bytes();
}

TEST(SerializerValidate, TruncatedAndBitFlippedPacketsNeverReadOutside) {
    ZurnGeneral_SetLogLevel(16);
    unsigned accepted = 0, items = 0;
    for (uint32_t endian : {kLE, kBE})
        for (uint32_t align : {1u, 2u, 4u, 8u})
            for (uint32_t order : {kUnordered, kOrdered}) {
                const std::vector<unsigned char> good = rich_packet(endian, align, order);
                const bool swap = endian == kBE;
                // Every shorter length, with the length field telling the truth.
                for (size_t len = 12; len < good.size(); ++len) {
                    std::vector<unsigned char> cut(good.begin(), good.begin() + static_cast<long>(len));
                    uint32_t l32 = static_cast<uint32_t>(len);
                    for (int i = 0; i < 4; ++i) cut[4 + static_cast<size_t>(i)] =
                        static_cast<unsigned char>(l32 >> (swap ? 24 - 8 * i : 8 * i));
                    Reader r(cut);
                    EXPECT_EQ(r.rc, OSL_ERR_INVALID_DATA) << "length " << len;
                }
                // Low bit, high bit and whole-byte changes of every byte, read
                // with each kind of descriptor in turn.
                for (size_t at = 0; at < good.size(); ++at)
                    for (unsigned mask : {0x01u, 0x80u, 0xFFu}) {
                        std::vector<unsigned char> m = good;
                        m[at] = static_cast<unsigned char>(m[at] ^ mask);
                        Reader r(m);
                        if (r.rc != 0) continue;
                        ++accepted;
                        slz_reader::Stats st;
                        slz_reader::read_all(r.h, static_cast<slz_reader::Flavour>((at + mask) % 3), 0, st);
                        items += st.items;
                    }
            }
    RecordProperty("accepted_mutants", static_cast<int>(accepted));
    RecordProperty("items_read", static_cast<int>(items));
    // Payload bits are free to change, so many mutants are valid packets.
    EXPECT_GT(accepted, 1000u);
    EXPECT_GT(items, accepted);
}

} // namespace
