// Serializer: packets compared byte for byte with hand-computed ones (each
// alignment, both byte orders, both modes, index tables, nested packets and
// packet arrays); every failure as a table row with its code, log lines and
// last error; the validation of received packets; random packets written and
// read back with copy, allocate and reference descriptors, then cut and
// mutated; allocation failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "../fuzz/fuzz_serializer_reader.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using slz_reader::kAllocate, slz_reader::kCopy, slz_reader::kReference;
constexpr uint32_t LE = 0, BE = 1, UN = 0, ORD = 1, kUntouched = 0x5A5A5;
constexpr uint32_t E_PARAM = OSL_ERR_INVALID_PARAMETER, E_FORMAT = OSL_ERR_INVALID_FORMAT, E_DATA = OSL_ERR_INVALID_DATA, E_MEM = OSL_ERR_NO_MEMORY,
                   E_STATUS = OSL_ERR_INVALID_STATUS, E_SMALL = OSL_ERR_BUFFER_TOO_SMALL, E_HANDLE = OSL_ERR_INVALID_HANDLE, E_NOTFOUND = OSL_ERR_NOT_FOUND;
const char *const SP1 = "Serialize parameter 1 failed.", *const DP1 = "Deserialize parameter 1 failed.";
constexpr bool big_endian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
uint32_t junk[32] = {0xA2F4C201}; // a handle of no serializer kind
// Little-endian, A = 4: empty ordered; "%d" 7; "%5.d %2.s" 0x01020304, NULL.
const char *const kEmptyOrdered = "E2000204 0C000000 000C0C00", *const kOrderedInt = "E2000204 14000000 010C0C00 04000004 07000000",
                  *const kUnorderedPair = "E2000004 20000000 020C1400 08000002 00000005 04000004 04030201 00000020";

template <class... A> std::string fmt(const char *format, A... a) {
    char t[160];
    return std::string(t, static_cast<size_t>(snprintf(t, sizeof t, format, a...)));
}
// Packets as hex text; spaces are only for the reader.
std::string hex(const Bytes &b) {
    std::string s;
    for (size_t i = 0; i < b.size(); ++i) s += fmt(i % 4 || !i ? "%02X" : " %02X", b[i]);
    return s;
}
Bytes unhex(const std::string &s) {
    Bytes out;
    for (size_t i = 0; i < s.size(); i += s[i] == ' ' ? 1 : 2)
        if (s[i] != ' ') out.push_back(static_cast<unsigned char>(std::stoul(s.substr(i, 2), nullptr, 16)));
    return out;
}
// Byte order, alignment, order, and the extended and 32-bit pointer flags.
Ostrel_SerializerConfig cfg(uint32_t e, uint32_t a, uint32_t o, int ext = 0, uint32_t p32 = 0) { return {ext, e, a, o, p32}; }
template <class... A> uint32_t put(Ostrel_Serializer *h, const char *f, A... a) { return Ostrel_Serializer_Serialize(h, 1, f, a...); }
template <class... A> uint32_t get(Ostrel_Serializer *h, const char *f, A... a) { return Ostrel_Serializer_Deserialize(h, f, a...); }
Bytes bytes_of(Ostrel_Serializer *h) {
    unsigned char *p = nullptr;
    int n = 0;
    EXPECT_EQ(Ostrel_Serializer_GetBuffer(h, &p, &n), 0u);
    return p ? Bytes(p, p + n) : Bytes();
}
struct Writer {
    Ostrel_Serializer *h = nullptr;
    explicit Writer(const Ostrel_SerializerConfig &c) { EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), 0u); }
    Writer(uint32_t endian, uint32_t align, uint32_t order) : Writer(cfg(endian, align, order)) {}
    ~Writer() { EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u); }
};
// A reading handle over its own exact-size copy of a packet, so that the
// sanitizer build sees any read past its end.
struct Reader {
    Bytes buf;
    Ostrel_Serializer *h = nullptr;
    uint32_t rc;
    explicit Reader(const Bytes &b) : buf(b), rc(Ostrel_Serializer_DeserializeInit(buf.data(), static_cast<int>(buf.size()), &h)) {}
    explicit Reader(const std::string &hx) : Reader(unhex(hx)) {}
    ~Reader() { EXPECT_EQ(h ? Ostrel_Serializer_Destroy(h) : 0, 0u); }
};
std::vector<std::string> logged(LogCapture &cap, int level) {
    std::vector<std::string> out;
    for (const LogLine &l : cap.lines())
        if (l.level == level) out.push_back(l.path == "src/serializer" ? l.text : l.path + "|" + l.text);
    return out;
}

// One call, its result and the error lines it logs. A failed argument check
// or handle allocation ("Error in <function>, ...") also traces the exit of
// that function and leaves the last error as it was; any other result is
// stored as the last error. check() returns the lines logged at level 2.
struct Call {
    uint32_t rc;
    std::vector<std::string> log;
    std::function<uint32_t()> f;
};
#define CALL_ROW(rc, call, ...) Call{rc, {__VA_ARGS__}, [&] { return static_cast<uint32_t>(call); }}
std::vector<std::string> check(const std::vector<Call> &calls) {
    LogCapture cap;
    std::vector<std::string> info;
    for (const Call &c : calls) {
        SCOPED_TRACE(testing::Message() << "row " << &c - calls.data() << ": " << (c.log.empty() ? "" : c.log[0]));
        cap.clear();
        g_OSL_errno = kUntouched;
        EXPECT_EQ(c.f(), c.rc);
        EXPECT_EQ(logged(cap, LOG_LEVEL_ERROR), c.log);
        std::vector<std::string> exits;
        for (const std::string &l : c.log)
            if (l.rfind("Error in ", 0) == 0) exits.push_back(fmt("<===Exit %s with 0x%x", l.substr(9, l.find(',') - 9).c_str(), c.rc));
        EXPECT_EQ(logged(cap, LOG_LEVEL_TRACE), exits);
        EXPECT_EQ(Ostrel_GetLastError(), !c.log.empty() && c.log[0].rfind("Error in Ostrel_", 0) == 0 ? kUntouched : c.rc);
        for (const std::string &l : logged(cap, LOG_LEVEL_INFO)) info.push_back(l);
    }
    return info;
}

// --- writing ----------------------------------------------------------------

TEST(SerializerWrite, HandComputedPackets) {
    const uint16_t hs[] = {1, 2, 3}, none[1] = {0};
    void *ptr = reinterpret_cast<void *>(uintptr_t{0x1122334455667788}), *ptrs[] = {ptr, reinterpret_cast<void *>(uintptr_t{0xA0B0C0D0})};
    Writer in(BE, 1, ORD), e1(LE, 4, ORD), e2(LE, 4, UN);
    const std::vector<std::tuple<Ostrel_SerializerConfig, std::function<uint32_t(Ostrel_Serializer *)>, const char *>> cases = {
#define PACKET(c, call, packet) {c, [&](Ostrel_Serializer *h) { return (void)h, static_cast<uint32_t>(call); }, packet}
        PACKET(cfg(BE, 4, UN), 0, "E2000104 0000000C 000C000C"),
        PACKET(cfg(BE, 8, ORD), 0, "E2000308 00000010 00100010 00000000"),
        PACKET(cfg(LE, 4, ORD), put(h, "%d", 7), kOrderedInt),
        PACKET(cfg(LE, 8, ORD), put(h, "%c", 0x5A), "E2000208 20000000 01101000 00000000 01000001 00000000 5A000000 00000000"),
        // Values are cut to the item's size; spaces and tabs separate descriptors.
        PACKET(cfg(LE, 1, ORD), put(h, "%c %h\t%s", 0x111, 0x12233, "ab"), "E2000201 1E000000 030C0C00 01000001 11 02000002 3322 03000020 616200"),
        PACKET(cfg(BE, 2, ORD), put(h, "%c%l", 0xAB, 0x0102030405060708), "E2000302 0000001E 020C000C 01000001 AB00 08000008 01020304 05060708"),
        // Index entries are written backwards: the second item's (index 2, offset 8) first.
        PACKET(cfg(LE, 4, UN), put(h, "%5.d %2.s", 0x01020304, nullptr), kUnorderedPair),
        PACKET(cfg(BE, 8, UN), put(h, "%1.ah #2.ad", hs, 3, nullptr, 3),
               "E2000108 00000040 02100020 00000000 02000010 00000000 01000000 00000000 "
               "82000006 00000000 00010002 00030000 C4000004 00000000 00000003 00000000"),
        PACKET(cfg(LE, 4, ORD), put(h, "%s%s%ad%p", "ab", "", none, 0, ptr),
               "E2000204 2C000000 040C0C00 03000020 61620000 01000020 00000000 00000084 08000018 88776655 44332211"),
        // 32-bit pointer items need the extended flag as well.
        PACKET(cfg(LE, 4, ORD, 1, 1), put(h, "%p%ap", ptr, ptrs, 2), "E2000204 20000000 020C0C00 04000014 88776655 08000094 88776655 D0C0B0A0"),
        PACKET(cfg(LE, 4, ORD, 0, 1), put(h, "%p", ptr), "E2000204 18000000 010C0C00 08000018 88776655 44332211"),
        PACKET(cfg(LE, 4, ORD), put(h, "%d #ad %ac #ac", 5, nullptr, 3, nullptr, 0, nullptr, 0),
               "E2000204 24000000 040C0C00 04000004 05000000 040000C4 03000000 00000081 00000081"),
        PACKET(cfg(LE, 4, ORD), (put(in.h, "%c", 0x7F), put(h, "%b", in.h)),
               "E2000204 24000000 010C0C00 11000030 E2000301 00000011 010C000C 01000001 7F000000"),
        PACKET(cfg(LE, 4, ORD), put(h, "%ab", std::vector<Ostrel_Serializer *>{e1.h, e2.h}.data(), 2),
               "E2000204 30000000 010C0C00 020000B0 0C000030 E2000204 0C000000 000C0C00 0C000030 E2000004 0C000000 000C0C00"),
        // A handle nests its own packet as it stands; in unordered mode finishing
        // it writes its header where the outer item's index entry goes.
        PACKET(cfg(LE, 4, ORD), (put(h, "%d", 1), put(h, "%b", h)),
               "E2000204 2C000000 020C0C00 04000004 01000000 14000030 E2000204 14000000 010C0C00 04000004 01000000"),
        PACKET(cfg(LE, 4, UN), put(h, "%1.d %2.b", 5, h),
               "E2000004 38000000 020C1400 08000002 00000001 04000004 05000000 18000030 E2000004 18000000 010C1000 00000001 04000004 05000000"),
        // A reset empties the packet, frees the indexes and keeps the buffer with its old bytes, among them the
        // header GetBuffer wrote in front of the entries: GetBuffer again rewrites it, and every slot is cleared.
        PACKET(cfg(LE, 4, UN), (put(h, "%1.c", 1), Ostrel_Serializer_Serialize(h, 2, "")), "E2000004 0C000000 000C0C00"),
        PACKET(cfg(LE, 4, UN), (put(h, "%1.c %2.d", 1, 2), bytes_of(h), Ostrel_Serializer_Serialize(h, 2, "%1.d", 9)),
               "E2000004 18000000 010C1000 00000001 04000004 09000000"),
        PACKET(cfg(LE, 8, UN), (put(h, "%1.s", "xxxxxxxxxxxxxxx"), bytes_of(h), Ostrel_Serializer_Serialize(h, 2, "%1.c %2.c %3.c", 1, 2, 3)),
               "E2000008 58000000 03102800 00000000 20000003 00000000 10000002 00000000 00000001 00000000 "
               "01000001 00000000 01000000 00000000 01000001 00000000 02000000 00000000 01000001 00000000 03000000 00000000"),
    };
    for (const auto &[c, write, packet] : cases) {
        SCOPED_TRACE(packet);
        Writer w(c);
        ASSERT_EQ(write(w.h), 0u);
        EXPECT_EQ(hex(bytes_of(w.h)), hex(unhex(packet)));
    }
}

TEST(SerializerWrite, FailuresWithTheirCodesAndMessages) {
    Writer w(LE, 4, UN), o(LE, 4, ORD), w8(LE, 4, UN), full(LE, 1, UN), wide(LE, 1, UN);
    Reader r(kEmptyOrdered);
    alignas(16) uint32_t fields[3][32] = {{0xA2F4C101, 2, 4, 0}, {0xA2F4C101, 0, 4, 2}, {0xA2F4C101, 0, 3, 0}}; // magic, byte order, alignment, order
    auto fake = [&fields](int i) { return reinterpret_cast<Ostrel_Serializer *>(fields[i]); };
    Ostrel_Serializer *h = nullptr, *members[] = {o.h, r.h}, *bad = reinterpret_cast<Ostrel_Serializer *>(junk);
    unsigned char *p = nullptr;
    int n = 0, one = 1;
    const std::string huge(0xFFFFFE, 'x');
    const Bytes block(0xFFFFFB, 0x42);
    const Ostrel_SerializerConfig endian2 = cfg(2, 4, ORD), order2 = cfg(LE, 4, 2), align3 = cfg(LE, 3, ORD);
    const char *const writing = "Handle didn't be initialized by Ostrel_Serializer_SerializeInit()";
    for (int i = 0; i < 255; ++i) ASSERT_EQ(put(full.h, "%8.c", i), 0u);
    check({
        {E_DATA, {}, [&] { return Ostrel_Serializer_SerializeInit(&endian2, &h); }},
        {E_DATA, {}, [&] { return Ostrel_Serializer_SerializeInit(&order2, &h); }},
        CALL_ROW(E_DATA, Ostrel_Serializer_SerializeInit(&align3, &h), "Invalid align length: 3."),
        CALL_ROW(E_PARAM, Ostrel_Serializer_SerializeInit(nullptr, &h), "Error in Ostrel_Serializer_SerializeInit, assert(NULL != pConfig) failed."),
        CALL_ROW(E_PARAM, Ostrel_Serializer_SerializeInit(&endian2, nullptr), "Error in Ostrel_Serializer_SerializeInit, assert(NULL != phSer) failed."),
        CALL_ROW(E_HANDLE, put(bad, "%d", 1), "Invalid handle."),
        CALL_ROW(E_PARAM, put(nullptr, "%d", 1), "Error in Ostrel_Serializer_Serialize, assert(NULL != pSer) failed."),
        CALL_ROW(E_PARAM, put(o.h, nullptr), "Error in Ostrel_Serializer_Serialize, assert(NULL != szFormat) failed."),
        CALL_ROW(E_PARAM, Ostrel_Serializer_Serialize(o.h, 3, "%d", 1), "Invalid serialize mode: 3."),
        CALL_ROW(E_HANDLE, put(fake(0), "%d", 1), "Invalid endian."), // writing handles whose fields went wrong
        CALL_ROW(E_HANDLE, put(fake(1), "%d", 1), "Invalid order setting."),
        CALL_ROW(E_DATA, put(fake(2), "%d", 1), "Invalid align length in handle: 3."),
        CALL_ROW(E_STATUS, put(r.h, "%d", 1), writing),
        CALL_ROW(E_PARAM, Ostrel_Serializer_Destroy(nullptr), "Error in Ostrel_Serializer_Destroy, assert(NULL != pSer) failed."),
        CALL_ROW(E_HANDLE, Ostrel_Serializer_Destroy(bad), "Invalid handle."),
        CALL_ROW(E_PARAM, Ostrel_Serializer_GetBuffer(nullptr, &p, &n), "Error in Ostrel_Serializer_GetBuffer, assert(NULL != pSer) failed."),
        CALL_ROW(E_PARAM, Ostrel_Serializer_GetBuffer(o.h, nullptr, &n), "Error in Ostrel_Serializer_GetBuffer, assert(NULL != ppucBuf) failed."),
        CALL_ROW(E_PARAM, Ostrel_Serializer_GetBuffer(o.h, &p, nullptr), "Error in Ostrel_Serializer_GetBuffer, assert(NULL != piLength) failed."),
        CALL_ROW(E_HANDLE, Ostrel_Serializer_GetBuffer(bad, &p, &n), "Invalid handle."),
        CALL_ROW(E_STATUS, Ostrel_Serializer_GetBuffer(r.h, &p, &n), writing),
        CALL_ROW(E_FORMAT, put(w.h, "%d", 1), "Format descriptor %d had invalid index."),
        CALL_ROW(E_FORMAT, put(w.h, " %12d", 1), "Format descriptor %12d expect '.'."),
        CALL_ROW(E_FORMAT, put(w.h, "%0.d", 1), "Index 0 is invalid."),
        CALL_ROW(E_FORMAT, put(w.h, "%256.d", 1), "Index(256) is larger than 255."),
        CALL_ROW(E_FORMAT, put(w.h, "%99999999999999999999.d", 1), "Index(999999999) is larger than 255."),
        CALL_ROW(E_FORMAT, put(w.h, "x1.d", 1), "Format descriptor x1.d doesn't start with % or @."),
        CALL_ROW(E_FORMAT, put(w.h, "%1.q tail", 1), "Unknown parameter type: q tail."),
        CALL_ROW(E_FORMAT, put(w.h, "%3.as", 1), "Not support string array: %as"),
        CALL_ROW(E_FORMAT, put(o.h, "%1.d", 1), "Unknown parameter type: 1.d."), // no index in ordered mode
        // Multiples of 8 are never recorded as used.
        CALL_ROW(E_FORMAT, (put(w8.h, "%8.d %8.d %16.c %16.c %7.d", 1, 2, 3, 4, 5), put(w8.h, "%9.d %7.d", 1, 2)),
            "Parameter 2 used duplicated index: 7."),
        // The items before the failing descriptor stay; a half-written packet array is dropped.
        CALL_ROW(E_PARAM, put(o.h, "%d %ad", 5, nullptr, 3), "The array pointer is NULL while its length is not 0.", "Serialize parameter 2 failed."),
        CALL_ROW(E_PARAM, put(o.h, "%d%b", 1, nullptr), "The packet pointer is NULL parameter 2.", "Serialize parameter 2 failed."),
        CALL_ROW(E_PARAM, put(o.h, "%ab", nullptr, 2), "The array pointer is NULL while its length is 2 of parameter 1.", SP1),
        CALL_ROW(E_STATUS, put(o.h, "%ab", members, 2), writing, "Get packet buffer failed.", "Insert packet[1] to another packet failed.", SP1),
        CALL_ROW(E_STATUS, put(o.h, "%b", r.h), writing, "Get packet buffer failed.", "Insert packet to another packet failed.", SP1),
        CALL_ROW(E_PARAM, put(o.h, "%ad", &one, 0x400000), "The length (in bytes) of the array exceeds limitation.", SP1),
        CALL_ROW(E_PARAM, put(o.h, "%ac", &one, -1), "The length (in bytes) of the array exceeds limitation.", SP1),
        CALL_ROW(E_PARAM, put(o.h, "%ab", &one, 0x1000000), "The packet counts of the packet array exceeds limitation.", SP1),
        CALL_ROW(E_PARAM, put(o.h, "%s", huge.c_str()), "The length of string exceeds limitation.", SP1),
        // 255 items at most; indexed items start below 16 MiB.
        CALL_ROW(E_FORMAT, put(full.h, "%1.c", 0), "The items count in the packet had exceeded 255."),
        CALL_ROW(E_SMALL, (put(wide.h, "%1.ac %2.c", block.data(), 0xFFFFFB, 7), put(wide.h, "%3.c", 1)),
            "The packet length exceeds item index offset limitation."),
    });
    EXPECT_TRUE(h == nullptr && bytes_of(w8.h)[8] == 6);
    EXPECT_EQ(hex(bytes_of(w.h)) + " / " + hex(bytes_of(o.h)),
              "E2000004 0C000000 000C0C00 / E2000204 1C000000 020C0C00 04000004 05000000 04000004 01000000");
    Reader r255(bytes_of(full.h)), rwide(bytes_of(wide.h));
    char c = 0;
    ASSERT_EQ(r255.rc | rwide.rc | get(rwide.h, "%2.c", &c), 0u);
    // 255 entries of 4 bytes: items offset 1032.
    EXPECT_EQ(hex(Bytes(r255.buf.begin() + 8, r255.buf.begin() + 12)) + " " + std::to_string(r255.buf.size() * 10 + c), "FF0C0804 23077");

    LogCapture cap; // one character less fits, with 16 MiB of payload
    ASSERT_EQ(put(o.h, "%s", huge.c_str() + 1), 0u);
    const Bytes b = bytes_of(o.h);
    EXPECT_EQ(logged(cap, LOG_LEVEL_WARN).at(0) + " " + hex(Bytes(b.begin() + 28, b.begin() + 34)) + hex(Bytes(b.end() - 4, b.end())) + " " +
                  std::to_string(b.size()),
              "Large realloc in __OSL_Slz_PrepareBuffer, size=16777728. FEFFFF20 787878000000 16777248");
}


// --- reading ----------------------------------------------------------------

TEST(SerializerRead, EveryKindOfDestinationAndEachFailure) {
    Writer w(LE, 4, UN), inner(LE, 4, ORD), ws(BE, 2, ORD), wa(BE, 8, UN), m1(LE, 1, ORD), m2(BE, 2, ORD), wp(LE, 4, ORD), w32(cfg(BE, 4, ORD, 1, 1));
    const int32_t arr[] = {-1, 2, 0x7FFFFFFF};
    Ostrel_Serializer *members[] = {m1.h, m2.h}, *got[3] = {}, *first = nullptr, *h = nullptr, *bad = reinterpret_cast<Ostrel_Serializer *>(junk),
                      *writing = w.h;
    for (uint32_t rc : {put(w.h, "%1.d %2.ad %3.s %4.b", 5, arr, 1, "x", inner.h), put(ws.h, "%s %d %d", "abcd", 5, 6), put(wa.h, "%1.ad", arr, 3),
                        put(m1.h, "%d", 11), put(m2.h, "%d", 22), put(wp.h, "%ab", members, 2),
                        put(w32.h, "%p", reinterpret_cast<void *>(0xCAFEF00Du))})
        ASSERT_EQ(rc, 0u);
    Reader r(bytes_of(w.h)), rs(bytes_of(ws.h)), ra(bytes_of(wa.h)), rp(bytes_of(wp.h)), ro(kOrderedInt), r32(bytes_of(w32.h)),
        // Unordered, A = 4: "%1.d" 0x01020304 in the byte order opposite to this host's.
        rf(big_endian ? "E2000004 18000000 010C1000 00000001 04000004 04030201" : "E2000104 00000018 010C0010 01000000 04000004 01020304");
    const Bytes foreign = rf.buf;
    const void *ref = nullptr;
    const Bytes good = unhex(kOrderedInt), broken = unhex("00000204 14000000 010C0C00 04000004 07000000");
    uint64_t sink[4] = {}, pv = 0;
    int32_t got3[4] = {9, 9, 9, 9}, d[7] = {}, size = 4;
    unsigned n = 4, count = 0;
    char buf[8] = "-------";
    const Ostrel_SerializerConfig c32 = cfg(LE, 1, UN, 1, 1), notExtended = cfg(LE, 1, UN, 0, 1);
    auto open = [](const Bytes &b, Ostrel_Serializer **ph, int len = 20) { return Ostrel_Serializer_DeserializeInit(b.data(), len, ph); };
    auto type = [](int t, const char *as) { return fmt("The item's type in the packet is %d, but is deserialized as %s", t, as); };
    const std::vector<std::string> info = check({
        CALL_ROW(E_PARAM, Ostrel_Serializer_DeserializeInit(nullptr, 20, &h),
            "Error in Ostrel_Serializer_DeserializeInit, assert(NULL != pucBuf) failed."),
        CALL_ROW(E_PARAM, open(good, nullptr), "Error in Ostrel_Serializer_DeserializeInit, assert(NULL != phSer) failed."),
        CALL_ROW(E_PARAM, Ostrel_Serializer_DeserializeInit_Ex(nullptr, good.data(), 20, &h),
            "Error in Ostrel_Serializer_DeserializeInit_Ex, assert(NULL != pConfig) failed."),
        CALL_ROW(E_DATA, open(good, &h, 11), "Serialized packet length error: 11."),
        CALL_ROW(E_DATA, open(good, &h, -5), "Serialized packet length error: -5."),
        CALL_ROW(E_STATUS, open(good, &writing), "This handle can only be used to serialize."),
        CALL_ROW(E_HANDLE, open(good, &bad), "Invalid handle."),
        CALL_ROW(E_PARAM, get(nullptr, "%d", sink), "Error in Ostrel_Serializer_Deserialize, assert(NULL != pSer) failed."),
        CALL_ROW(E_PARAM, get(r.h, nullptr), "Error in Ostrel_Serializer_Deserialize, assert(NULL != szFormat) failed."),
        CALL_ROW(E_STATUS, get(w.h, "%d", sink), "Handle didn't be initialized by Ostrel_Serializer_DeserializeInit()"),
        CALL_ROW(E_HANDLE, get(bad, "%d", sink), "Invalid handle."),
        // Descriptors and items of an unordered packet; earlier descriptors of a failing call keep what they wrote.
        CALL_ROW(E_NOTFOUND, get(r.h, "%1.d %7.d", &d[0], sink), "Can't find serialized data with index: 7."),
        CALL_ROW(E_NOTFOUND, get(r.h, "%0.d", sink), "Can't find serialized data with index: 0."),
        CALL_ROW(E_FORMAT, get(r.h, "%1.h", sink), type(4, "2."), DP1),
        CALL_ROW(E_FORMAT, get(r.h, "%1.p", sink), type(4, "24."), DP1),
        CALL_ROW(E_FORMAT, get(r.h, "%1.s", sink), type(4, "string."), DP1),
        CALL_ROW(E_FORMAT, get(r.h, "@3.b", sink), type(32, "packet."), DP1),
        CALL_ROW(E_FORMAT, get(r.h, "%1.ad", sink, &n), "Item in the packet is NOT an array, but is deserialized as an array."),
        CALL_ROW(E_FORMAT, get(r.h, "%2.d", sink), "Item in the packet is an array, but is NOT deserialized as an array."),
        CALL_ROW(E_FORMAT, get(r.h, "%2.as", sink, &n), "Not support string array: %as", DP1),
        CALL_ROW(E_FORMAT, get(r.h, "%4.b", sink), "Not support copy packet: %b or %ab", DP1),
        CALL_ROW(E_FORMAT, get(r.h, "#1.d", sink), "Format descriptor #1.d doesn't start with % or @."),
        CALL_ROW(E_FORMAT, get(r.h, "%1d", sink), "Format descriptor %1d expect '.'."),
        CALL_ROW(E_FORMAT, get(r.h, "@N.d", sink), "Format descriptor @N.d had invalid index."),
        CALL_ROW(E_FORMAT, get(r.h, "%256.d", sink), "Index(256) is larger than 255."),
        CALL_ROW(E_FORMAT, get(r.h, "%1.x", sink), "Unknown parameter type: x."),
        CALL_ROW(E_FORMAT, get(r.h, "%1.", sink), "Unknown parameter type: ."),
        // The size of a copied string, the capacity of a copied array, the count of a packet array. A failed call
        // moves nothing; a NULL string buffer skips the string and takes no size pointer; reads continue across calls.
        CALL_ROW(E_SMALL, get(rs.h, "%s", buf, &size), "The output buffer length of parameter 1 is 4 while the array length is 5.", DP1),
        CALL_ROW(E_PARAM, get(rs.h, "%s", buf, nullptr), "The string length pointer of parameter 1 is NULL.", DP1),
        CALL_ROW(E_FORMAT, get(rs.h, "%s %s", nullptr, sink), type(4, "string."), "Deserialize parameter 2 failed."),
        CALL_ROW(0, get(rs.h, "%s %d", nullptr, &d[1])),
        CALL_ROW(0, get(rs.h, "%d", &d[2])),
        CALL_ROW(E_SMALL, get(ra.h, "%1.ad", got3, &(n = 2)), "Given memory is not enough, expect 3, was 2 bytes.", DP1),
        CALL_ROW(E_PARAM, get(ra.h, "%1.ad", got3, nullptr), "Deserialize to an array of which the length pointer is NULL.", DP1),
        CALL_ROW(0, get(ra.h, "%1.ad", nullptr, &count)), // a NULL destination: the count only
        CALL_ROW(E_SMALL, get(rp.h, "@ab", got, &(n = 1)), "The output buffer length of parameter 1 is 1 while the array length is 2.", DP1),
        CALL_ROW(E_PARAM, get(rp.h, "@ab", got, nullptr), "The string length pointer of parameter 1 is NULL.", DP1),
        // Packet array members are opened into the handles already in the array.
        CALL_ROW(0, (get(rp.h, "@ab", got, &(n = 3)), first = got[0], open(rp.buf, &rp.h, int(rp.buf.size())), get(rp.h, "@ab", got, &n))),
        CALL_ROW(0, get(got[1], "%d", &d[3])),
        // A reused handle that fails validation stays on its packet; reopening rewinds.
        CALL_ROW(E_DATA, open(broken, &ro.h), "Invalid magic number: 0.", "Invalid encoded packet data."),
        CALL_ROW(E_NOTFOUND, (get(ro.h, "%d", &d[4]), get(ro.h, "%d", sink)), "No more items in the packet."),
        CALL_ROW(0, (open(ro.buf, &ro.h), get(ro.h, "%d", &d[5]))),
        // Pointer items of the other width: only an extended reader asks for them.
        CALL_ROW(E_FORMAT, get(r32.h, "%p", sink), type(20, "24."), DP1),
        CALL_ROW(E_FORMAT, (Ostrel_Serializer_DeserializeInit_Ex(&notExtended, r32.buf.data(), 20, &r32.h), get(r32.h, "%p", sink)), type(20, "24."), DP1),
        CALL_ROW(0, (Ostrel_Serializer_DeserializeInit_Ex(&c32, r32.buf.data(), 20, &r32.h), get(r32.h, "%p", &pv))),
        // A reference into a foreign-order packet converts the value in place; a second one converts it back.
        CALL_ROW(0, (get(rf.h, "@1.d", &ref), memcpy(&d[6], ref, 4), get(rf.h, "@1.d", &ref))),
    });
    EXPECT_EQ(pv, big_endian ? uint64_t{0xCAFEF00D} << 32 : 0xCAFEF00Du); // 4 bytes at the start of the destination
    EXPECT_EQ(std::vector<int32_t>(d, d + 7), (std::vector<int32_t>{5, 5, 6, 22, 7, 7, 0x01020304}));
    EXPECT_EQ(std::string(buf) + " " + std::to_string(size) + " " + std::to_string(count), "------- 5 3");
    EXPECT_EQ(std::vector<int32_t>(got3, got3 + 4), std::vector<int32_t>(4, 9));
    EXPECT_TRUE(h == nullptr && got[0] == first && got[2] == nullptr && ref == rf.buf.data() + 20 && rf.buf == foreign);
    for (const void *p : std::vector<const void *>{writing, bad, first, got[1]})
        EXPECT_NE(std::find(info.begin(), info.end(), fmt("Reuse old serializer: %p to deserialize.", p)), info.end()) << p;
    for (auto *m : {got[0], got[1]}) EXPECT_EQ(Ostrel_Serializer_Destroy(m), 0u);
}

// --- validation ---------------------------------------------------------------

TEST(SerializerValidate, EachRejectionWithItsMessageAndTheAcceptedVariants) {
    const char *const item0 = "Invalid item 0 in packet.", *const exceeds = "Invalid packet data: context exceeds packet length.";
    std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"E3000204 14000000 010C0C00 04000004 07000000", {"Invalid magic number: 227."}},
        {"E2000203 14000000 010C0C00 04000004 07000000", {"Invalid align length: 3."}},
        {"E2000210 14000000 010C0C00 04000004 07000000", {"Invalid align length: 16."}},
        {"E2000204 15000000 010C0C00 04000004 07000000", {"The length stored in the packet is 21 while the given is 20."}},
        {"E2000204 00000014 010C0C00 04000004 07000000", {"The length stored in the packet is 335544320 while the given is 20."}},
        {"E2000204 14000000 010B0C00 04000004 07000000", {"Invalid header length: 11."}},
        {"E2000204 14000000 01180C00 04000004 07000000", {"Invalid header length: 24."}},
        {"E2000204 14000000 01400C00 04000004 07000000", {"Invalid header length: 64."}},
        {"E2000208 10000000 000C0C00 00000000", {"Invalid header length: 12."}},
        {"E2000204 14000000 010C1000 04000004 07000000", {"Invalid items offset in ordered mode: 16"}},
        {"E2000004 20000000 020C1000 08000002 00000005 04000004 04030201 00000020", {"Invalid items offset in unordered mode: 16."}},
        {"E2000004 20000000 020C1400 0C000002 00000005 04000004 04030201 00000020", {"Invalid index table."}},
        {"E2000004 20000000 020C1400 04000002 00000005 04000004 04030201 00000020", {"Invalid index table."}}, // mid-item
        {"E2000204 14000000 020C0C00 04000004 07000000", {"Invalid item 1 in packet."}},
        {"E2000204 14000000 010C0C00 04000094 07000000", {"Pointer that has different length with current arch is forbidden, item: 0.", item0}},
        // Trailing bytes, and payloads that end past the packet.
        {"E2000204 18000000 010C0C00 04000004 07000000 00000000", {exceeds}},
        {"E2000204 12000000 010C0C00 04000004 0700", {exceeds}},
        {"E2000204 14000000 010C0C00 08000084 07000000", {exceeds}},
        // Packet arrays: a member that is no packet, a flagged member, a member without magic, more members than
        // there are, a null packet array, a member that would start at the packet end.
        {"E2000204 20000000 010C0C00 010000B0 0C000031 E2000204 0C000000 000C0C00", {item0}},
        {"E2000204 20000000 010C0C00 010000B0 0C0000B0 E2000204 0C000000 000C0C00", {item0}},
        {"E2000204 20000000 010C0C00 010000B0 0C000030 E3000204 0C000000 000C0C00", {item0}},
        {"E2000204 20000000 010C0C00 020000B0 0C000030 E2000204 0C000000 000C0C00", {item0}},
        {"E2000204 20000000 010C0C00 FFFFFFB0 0C000030 E2000204 0C000000 000C0C00", {item0}},
        {"E2000204 20000000 010C0C00 040000F0 0C000030 E2000204 0C000000 000C0C00", {item0}},
        {"E2000204 14000000 010C0C00 010000B0 0C000030", {item0}},
    };
    // Items invalid in themselves: null arrays of another length, arrays of strings and of no type, a flagged
    // scalar, integers and pointers of the wrong length, an unterminated or overlong string, empty or magic-less
    // nested packets.
    for (const char *item : {"080000C4", "04000083", "040000A0", "04000044", "02000004", "04000018", "04000005", "01000020", "08000020",
                             "00000030", "04000030"})
        cases.push_back({std::string("E2000204 14000000 010C0C00 ") + item + " 07000000", {item0}});
    std::vector<Call> calls;
    for (auto &c : cases)
        calls.push_back({E_DATA, (c.second.push_back("Invalid encoded packet data."), c.second), [&c] { return Reader(c.first).rc; }});
    // A header longer than H is skipped; other flag bits, a 32-bit pointer, an empty string and a null array are
    // accepted; an index may name an item twice; an empty unordered packet holds nothing.
    Reader longer("E2770204 28000000 01202000 00000000 00000000 00000000 00000000 00000000 04000004 07000000"),
        flags("E200FE04 20000000 030C0C00 04000014 07000000 00000020 040000C1 09000000"),
        twice("E2000004 24000000 020C1400 00000001 00000002 01000001 55000000 01000001 66000000"), empty("E2000004 0C000000 000C0C00");
    int32_t d = 0;
    uint8_t a = 0, b = 0;
    calls.push_back(CALL_ROW(0, longer.rc | flags.rc | twice.rc | empty.rc | get(longer.h, "%d", &d) | get(twice.h, "%1.c %2.c", &a, &b)));
    calls.push_back(CALL_ROW(E_NOTFOUND, get(empty.h, "%1.d", &d), "Can't find serialized data with index: 1."));
    check(calls);
    EXPECT_EQ(d + a + b, 7 + 0x55 + 0x55);
}

// --- round trip -----------------------------------------------------------------

struct Packet;
struct Item {
    char letter, prefix;   // prefix '#': a null array
    bool array;
    uint32_t index, count; // of the elements, of a null array or of the packets
    Bytes raw;             // the elements in host order, or a string with its zero (none: NULL)
    std::vector<Packet> packets;
};
struct Packet {
    uint32_t order;
    std::vector<Item> items;
};
uint32_t elem_size(char letter) { return letter == 'h' ? 2 : letter == 'd' ? 4 : letter == 'l' || letter == 'p' ? 8 : 1; }
std::string descriptor(const std::string &prefix, const Item &it, uint32_t order) {
    return prefix + (order ? "" : std::to_string(it.index) + ".") + (it.array ? "a" : "") + it.letter;
}

// Writes random items of every kind into h, nested packets of random layouts down to depth 3, and returns them.
Packet fill(Ostrel_Serializer *h, uint32_t order, std::mt19937 &g, int depth) {
    auto pick = [&g](int lo, int hi) { return static_cast<uint32_t>(std::uniform_int_distribution<int>(lo, hi)(g)); };
    Packet p{order, {}};
    const uint32_t base = pick(0, 254); // indexes (i * 97 + base) % 255 + 1 are distinct for i < 255
    for (uint32_t i = pick(0, depth ? 6 : 24); i > 0; --i) {
        Item it{"chdlpsb"[pick(0, depth < 3 ? 6 : 5)], "%@"[pick(0, 1)], false, (i * 97 + base) % 255 + 1, 1, {}, {}};
        it.array = it.letter != 's' && pick(0, 2) == 0;
        std::deque<Writer> nested;
        std::vector<Ostrel_Serializer *> in;
        if (it.letter == 'b') {
            for (it.count = it.array ? pick(0, 3) : 1; in.size() < it.count;) {
                const uint32_t o = pick(0, 1), a = 1u << pick(0, 3);
                in.push_back(nested.emplace_back(pick(0, 1), a, o).h);
                it.packets.push_back(fill(in.back(), o, g, depth + 1));
            }
        } else if (it.array && pick(0, 5) == 0) {
            it.prefix = '#';
            it.count = pick(1, 100000);
        } else if (it.letter != 's' || pick(0, 5) > 0) {
            it.count = it.letter == 's' ? pick(1, 41) : !it.array ? 1 : pick(0, 9) ? pick(0, 12) : pick(100, 400);
            it.raw.resize(it.count * elem_size(it.letter));
            for (auto &c : it.raw) c = static_cast<unsigned char>(pick(it.letter == 's', 255));
            if (it.letter == 's') it.raw.back() = 0;
        }
        const std::string f = descriptor(std::string(1, it.prefix), it, order);
        uint64_t v = 0; // a scalar's value from its host-order bytes
        for (size_t k = 0, size = std::min<size_t>(it.raw.size(), 8); k < size; ++k) v |= uint64_t{it.raw[big_endian ? size - 1 - k : k]} << 8 * k;
        const char *raw = it.raw.empty() ? nullptr : reinterpret_cast<const char *>(it.raw.data());
        const int n = static_cast<int>(it.count);
        EXPECT_EQ(it.letter == 'b' ? (it.array ? put(h, f.c_str(), in.data(), n) : put(h, f.c_str(), in[0])) : it.letter == 's' ? put(h, f.c_str(), raw)
                  : it.array ? put(h, f.c_str(), raw, n) : it.letter == 'l' ? put(h, f.c_str(), v)
                  : it.letter == 'p' ? put(h, f.c_str(), reinterpret_cast<void *>(v)) : put(h, f.c_str(), static_cast<int>(v)), 0u);
        p.items.push_back(std::move(it));
    }
    return p;
}

// Reads every item back, unordered ones in a random order: copies ('%') into a buffer with a guard after the room
// needed, allocations ('@N') away from the packet, references ('@') inside it.
void verify(Ostrel_Serializer *h, const Packet &p, slz_reader::Flavour fl, const Bytes &pkt, std::mt19937 &g) {
    std::vector<size_t> order(p.items.size());
    std::iota(order.begin(), order.end(), size_t{0});
    if (!p.order) std::shuffle(order.begin(), order.end(), g);
    for (size_t i : order) {
        const Item &it = p.items[i];
        const std::string f = descriptor(it.letter == 'b' || fl == kReference ? "@" : fl == kCopy ? "%" : "@N", it, p.order);
        SCOPED_TRACE(f);
        Bytes buf(std::max<size_t>(it.raw.size(), 8) + elem_size(it.letter), 0xA5);
        std::vector<Ostrel_Serializer *> in(it.count + 1, nullptr);
        void *q = buf.data(), *dst = it.letter == 'b' ? static_cast<void *>(in.data()) : fl == kCopy ? q : &q;
        unsigned n = static_cast<unsigned>(it.letter == 'b' ? in.size() : fl == kCopy ? buf.size() / elem_size(it.letter) : 12345);
        int room = static_cast<int>(it.raw.size());
        ASSERT_EQ(it.letter == 's' && fl == kCopy ? get(h, f.c_str(), dst, &room) : get(h, f.c_str(), dst, &n), 0u);
        EXPECT_EQ(it.array ? n : it.count, it.count);
        EXPECT_EQ(room, static_cast<int>(it.raw.size()));
        EXPECT_EQ(in.back(), nullptr);
        for (uint32_t k = 0; k < it.packets.size(); ++k) {
            verify(in[k], it.packets[k], fl, pkt, g);
            EXPECT_EQ(Ostrel_Serializer_Destroy(in[k]), 0u);
        }
        // '@' and '@N' give NULL for a NULL string, a null or empty array; a null array copied is a NULL pointer.
        const Bytes want = it.letter == 'b' ? Bytes() : fl == kCopy && it.prefix == '#' ? Bytes(8, 0) : it.raw;
        const auto *c = static_cast<const unsigned char *>(q);
        EXPECT_EQ(c ? Bytes(c, c + want.size()) : Bytes(), want);
        const bool copy = fl == kCopy || it.letter == 'b', inside = c && c >= pkt.data() && c + want.size() <= pkt.data() + pkt.size();
        EXPECT_EQ(copy ? buf[want.size()] == 0xA5 : inside, copy || (fl == kReference && c));
        if (!copy && fl == kAllocate) Ostrel_Free(q);
    }
    EXPECT_EQ(p.order ? get(h, "%c", nullptr) : E_NOTFOUND, E_NOTFOUND); // nothing is left
}

// Then a sample of them is cut at every length, and each of its bytes changed, and read with each kind of descriptor
// in turn: nothing is read outside the packet.
class SerializerRoundTrip : public testing::TestWithParam<std::tuple<uint32_t, uint32_t, uint32_t>> {};
TEST_P(SerializerRoundTrip, RandomItemsReadBackWithEveryDescriptorKindThenCutAndMutated) {
    ZurnGeneral_SetLogLevel(16);
    const auto [endian, align, order] = GetParam();
    std::mt19937 g(1000003u * endian + 1009u * align + order);
    Bytes sample;
    for (int round = 0; round < 40; ++round) {
        Writer w(endian, align, order);
        const Packet model = fill(w.h, order, g, 0);
        Bytes bytes = bytes_of(w.h);
        for (auto fl : {kCopy, kAllocate, kReference}) { // references last: they convert foreign-order values in place
            Ostrel_Serializer *h = nullptr;
            ASSERT_EQ(Ostrel_Serializer_DeserializeInit(bytes.data(), static_cast<int>(bytes.size()), &h), 0u);
            verify(h, model, fl, bytes, g);
            EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
            EXPECT_TRUE(fl == kReference || bytes == bytes_of(w.h));
        }
        if (sample.size() < 200 && bytes.size() <= 600) sample = bytes_of(w.h);
    }
    ASSERT_GE(sample.size(), 200u);
    for (size_t len = 12; len < sample.size(); ++len) { // the length field telling the truth
        Bytes cut(sample.begin(), sample.begin() + static_cast<long>(len));
        for (int i = 0; i < 4; ++i) cut[4 + i] = static_cast<unsigned char>(len >> (endian ? 24 - 8 * i : 8 * i));
        EXPECT_EQ(Reader(cut).rc, E_DATA) << "length " << len;
    }
    unsigned accepted = 0, items = 0;
    for (size_t at = 0; at < sample.size(); ++at)
        for (unsigned mask : {0x01u, 0x80u, 0xFFu}) { // low bit, high bit, whole byte
            Bytes m = sample;
            m[at] ^= static_cast<unsigned char>(mask);
            Reader r(m);
            if (r.rc == 0) slz_reader::read_all(r.h, static_cast<slz_reader::Flavour>((at + mask) % 3), 0, items);
            accepted += r.rc == 0;
        }
    EXPECT_GT(accepted, 100u); // payload bits are free to change
    EXPECT_GT(items, accepted);
}
INSTANTIATE_TEST_SUITE_P(AllLayouts, SerializerRoundTrip,
                         testing::Combine(testing::Values(LE, BE), testing::Values(1u, 2u, 4u, 8u), testing::Values(UN, ORD)));

// --- allocation failures ----------------------------------------------------------

TEST(SerializerAllocFailure, EachAllocationWithItsMessage) {
    if (!OSTREL_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    const Ostrel_SerializerConfig c8 = cfg(LE, 8, UN);
    const std::vector<int32_t> big(200, 3);
    const std::string text(600, 's');
    const char *const prepare = "Prepare serialized output buffer failed.";
    Writer w(BE, 4, ORD), src(LE, 4, UN);
    ASSERT_EQ(put(src.h, "%1.ad %2.s %3.l", big.data(), 3, "hello", int64_t{9}), 0u);
    Reader r(bytes_of(src.h));
    Ostrel_Serializer *h = nullptr;
    void *p = nullptr;
    unsigned n = 0;
    // Makes the k-th allocation (from 0) of the call fail, and none after it.
#define FAILING(k, call) (alloc_failure::fail_allocation_number(k), [](uint32_t rc) { return alloc_failure::fail_allocation_number(-1), rc; }(call))
    check({
        CALL_ROW(E_MEM, FAILING(0, Ostrel_Serializer_SerializeInit(&c8, &h)), "Error in Ostrel_Serializer_SerializeInit, alloc(104) failed."),
        // 16 + 255 * 8 bytes in front of the items, in 512-byte blocks.
        CALL_ROW(E_MEM, FAILING(1, Ostrel_Serializer_SerializeInit(&c8, &h)), "Error in __OSL_Slz_PrepareBuffer, alloc(2560) failed.", prepare),
        CALL_ROW(E_MEM, FAILING(0, Ostrel_Serializer_DeserializeInit(r.buf.data(), 12, &h)), "Error in Ostrel_Serializer_DeserializeInit, alloc(104) failed."),
        CALL_ROW(E_MEM, FAILING(0, put(w.h, "%d %d %ad", 1, 2, big.data(), 200)), "Error in __OSL_Slz_PrepareBuffer, realloc(1024) failed.", prepare,
            "Serialize parameter 3 failed."),
        CALL_ROW(E_MEM, FAILING(0, put(w.h, "%s", text.c_str())), "Error in __OSL_Slz_PrepareBuffer, realloc(1024) failed.", prepare, SP1),
        CALL_ROW(E_MEM, FAILING(0, get(r.h, "@N1.ad", &p, &n)), "Alloc memory (size=3*4) failed.", DP1),
        CALL_ROW(E_MEM, FAILING(0, get(r.h, "@N2.s", &p)), "Alloc memory (size=6) failed.", DP1),
        CALL_ROW(E_MEM, FAILING(0, get(r.h, "@N3.l", &p)), "Alloc memory (size=8) failed.", DP1),
    });
    EXPECT_TRUE(h == nullptr && p == nullptr);
    // The items before the failing one stay; the array left nothing behind.
    EXPECT_EQ(hex(bytes_of(w.h)), hex(unhex("E2000304 0000001C 020C000C 04000004 00000001 04000004 00000002")));
    ASSERT_EQ(put(w.h, "%ad", big.data(), 200), 0u);
    EXPECT_EQ(Reader(bytes_of(w.h)).rc, 0u);
}

} // namespace
