// Keyed table: the CRC-32 index against zlib, refusals with their codes and
// log lines, growth, sort orders, and updates and deletes that keep every
// link in place. Contents under random operations: test_table_model.
#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_table.h"

// Internals of src/table, reachable from the object library the tests link.
extern const uint32_t g_Table_Crc32Table[256];
uintptr_t __OSL_Table_GetStringIndex(const void *pKey, uint32_t uiKeyLength);
uintptr_t __OSL_Table_GetByteArrayIndex(const void *pKey, uint32_t uiKeyLength);
uint32_t __OSL_Table_Crc32(uint32_t uiCrc, const void *pData, size_t n);
uint32_t __OSL_Table_Crc32Bytewise(uint32_t uiCrc, const void *pData, size_t n);
const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);

namespace {

using Strings = std::vector<std::string>;

struct Table {
    OstrelTableHandle h = nullptr;
    Table(uint32_t range, int mode) { EXPECT_EQ(Ostrel_Table_Create(&h, range, mode), 0u); }
    ~Table() {
        if (h != nullptr) {
            EXPECT_EQ(Ostrel_Table_Destroy(h), 0u);
        }
    }
    uint32_t range() const { // after checking every link
        uint32_t r = 0;
        EXPECT_STREQ(__OSL_Table_Verify(h, &r, nullptr), nullptr);
        return r;
    }
    void add(std::initializer_list<const char *> keys) const {
        for (const char *k : keys) ASSERT_EQ(Ostrel_Table_String_AddNode(h, k, k, 1), 0u) << k;
    }
};

// Keys in one visiting order; byte-array keys as their bytes.
Strings walk(OstrelTableHandle h, uint32_t mode, bool bytes = false) {
    Strings out;
    OstrelTableIterHandle it = nullptr;
    EXPECT_EQ(Ostrel_Table_BeginIterate(h, &it, mode), 0u);
    const void *key = nullptr;
    const char *text = nullptr;
    uint32_t len = 0;
    while ((bytes ? Ostrel_Table_ByteArray_Iterate(it, &key, &len, nullptr, nullptr)
                  : Ostrel_Table_String_Iterate(it, &text, nullptr, nullptr)) == 0 &&
           (bytes ? key : text) != nullptr)
        out.push_back(bytes ? std::string(static_cast<const char *>(key), len) : text);
    EXPECT_EQ(Ostrel_Table_EndIterate(it), 0u);
    return out;
}

std::string table_line(const std::string &text) { return "src/table|" + text; }

TEST(TableHash, IndexIsTheComplementOfZlibCrc32) {
    const z_crc_t *z = get_crc_table();
    for (int i = 0; i < 256; ++i) ASSERT_EQ(g_Table_Crc32Table[i], static_cast<uint32_t>(z[i])) << i;
    // Every length up to 70 (every tail after the 8-byte steps), then random
    // lengths, each at a random start alignment.
    std::mt19937 rng(12345);
    std::vector<unsigned char> buf(600);
    for (int round = 0; round < 20000; ++round) {
        size_t len = round < 2000 ? static_cast<size_t>(round % 70) : rng() % 512, off = rng() % 8;
        for (size_t i = 0; i < len; ++i) buf[off + i] = static_cast<unsigned char>(1 + rng() % 255);
        buf[off + len] = 0;
        uint32_t expect = ~static_cast<uint32_t>(crc32(0, buf.data() + off, static_cast<uInt>(len)));
        ASSERT_EQ(__OSL_Table_GetByteArrayIndex(buf.data() + off, static_cast<uint32_t>(len)), expect) << len;
        ASSERT_EQ(__OSL_Table_GetStringIndex(buf.data() + off, 7), expect) << len; // length argument ignored
    }
    EXPECT_EQ(__OSL_Table_GetByteArrayIndex("", 0), 0xFFFFFFFFu);
}

TEST(TableHash, FormInUseMatchesTheByteAtATimeForm) {
    // On AArch64 with CRC32 instructions this compares the instructions with
    // the table form; elsewhere the eight-byte slicing. Random start values
    // cover chained updates, random offsets every alignment.
    std::mt19937 rng(777);
    std::vector<unsigned char> buf(4200);
    for (auto &b : buf) b = static_cast<unsigned char>(rng());
    for (int round = 0; round < 5000; ++round) {
        size_t len = round < 300 ? static_cast<size_t>(round % 100) : rng() % 4096, off = rng() % 16;
        uint32_t start = round % 3 == 0 ? 0xFFFFFFFFu : static_cast<uint32_t>(rng());
        ASSERT_EQ(__OSL_Table_Crc32(start, buf.data() + off, len), __OSL_Table_Crc32Bytewise(start, buf.data() + off, len))
            << "length " << len << ", offset " << off;
    }
}

// Each refused call: its code, its last error (argument checks leave the
// cleared or earlier value) and exactly its error lines.
TEST(TableRefusals, CodesLastErrorsAndLogLines) {
    Table s(4, NODE_STORAGE_COPY), fresh(4, NODE_STORAGE_REFERENCE);
    s.add({"a"});
    OstrelTableHandle out = nullptr;
    uint32_t n = 0;
    uint32_t fake[32] = {0x12345678u};
    char fake_line[64];
    snprintf(fake_line, sizeof fake_line, "Invalid table handle: %p.", static_cast<void *>(fake));
    const std::string assert_create = "Error in Ostrel_Table_Create, assert(";
    struct Row {
        std::function<uint32_t()> call;
        uint32_t code, last_error;
        Strings lines;
    };
    const Row rows[] = {
        {[&] { return Ostrel_Table_Create(nullptr, 1, 0); }, 0x9000F, 77, {assert_create + "NULL != phTable) failed."}},
        {[&] { return Ostrel_Table_Create(&out, 0, 0); }, 0x9000F, 77, {assert_create + "0 != uiRange) failed."}},
        {[&] { return Ostrel_Table_Create(&out, 8193, 0); }, 0x9000F, 77,
         {assert_create + "uiRange <= TABLE_RANGE_MAX) failed."}},
        {[&] { return Ostrel_Table_Create(&out, 8192, 2); }, 0x9000F, 77,
         {assert_create + "(NODE_STORAGE_REFERENCE == iStoreFlag) || (NODE_STORAGE_COPY == iStoreFlag)) failed."}},
        {[&] { return Ostrel_Table_GetCount(nullptr, nullptr); }, 0x9000F, 77,
         {"Error in Ostrel_Table_GetCount, assert(NULL != puiCount) failed."}},
        {[&] { return Ostrel_Table_GetCount(nullptr, &n); }, 0x90010, 0x90010, {"Invalid table handle: (nil)."}},
        {[&] { return Ostrel_Table_Destroy(fake); }, 0x90010, 0x90010, {fake_line}},
        {[&] { return Ostrel_Table_SetProperty(s.h, TABLE_PROP_RANGE, 8193); }, 0x9000F, 0x9000F,
         {"Table range must be 1 ~ 8192."}},
        {[&] { return Ostrel_Table_SetProperty(s.h, TABLE_PROP_RANGE, (uintptr_t(1) << 31) * 2 + 8); }, 0x9000F,
         0x9000F, {"Table range must be 1 ~ 8192."}}, // full width: not truncated to 8
        {[&] { return Ostrel_Table_SetProperty(s.h, TABLE_PROP_REFRESH_THRESHOLD, 0); }, 0x9000F, 0x9000F,
         {"Table refresh threshold must be 1 ~ 1000."}},
        {[&] { return Ostrel_Table_SetProperty(s.h, TABLE_PROP_REFRESH_THRESHOLD, 1001); }, 0x9000F, 0x9000F,
         {"Table refresh threshold must be 1 ~ 1000."}},
        {[&] { return Ostrel_Table_SetProperty(s.h, TABLE_PROP_REFRESH_STEP, 8193); }, 0x9000F, 0x9000F,
         {"Table refresh step must be 0 ~ 8192."}},
        {[&] { return Ostrel_Table_SetProperty(s.h, 5, 1); }, 0x9000F, 0x9000F, {"Unknown parameter type: 5."}},
        {[&] { return Ostrel_Table_SetProperty(s.h, TABLE_PROP_SORT_FUNCTION, 0); }, 0x90008, 0x90008,
         {"Can't change the sort function of a non-empty table."}},
        {[&] { return Ostrel_Table_String_AddNode(s.h, "a", nullptr, 0); }, 0x9002A, 0x9002A,
         {"Node with the same key existed."}},
        {[&] { return Ostrel_Table_Pointer_AddNode(s.h, &n, nullptr, 0); }, 0x9000F, 0x9000F,
         {"Operation target expect key type 2, actually 1", "Set key type failed."}},
        {[&] { return Ostrel_Table_Pointer_GetNode(s.h, &n, nullptr, nullptr); }, 0x9000F, 0x9000F,
         {"Operation target expect key type 2, actually 1"}},
        {[&] { return Ostrel_Table_ByteArray_DelNode(s.h, "a", 1); }, 0x9000F, 0x9000F,
         {"Operation target expect key type 3, actually 1"}},
        // The null-key check looks at the table's key type, before the form's.
        {[&] { return Ostrel_Table_Pointer_AddNode(s.h, nullptr, nullptr, 0); }, 0x9000F, 0,
         {"Error in __OSL_Table_AddNode, assert(NULL != pKey) failed."}},
        {[&] { return Ostrel_Table_String_UpdateNode(s.h, nullptr, nullptr, 0); }, 0x9000F, 0,
         {"Error in __OSL_Table_UpdateNode, assert(NULL != pKey) failed."}},
        {[&] { return Ostrel_Table_String_GetNode(s.h, "b", nullptr, nullptr); }, 0x90018, 0x90018,
         {"Node don't exist."}},
        {[&] { return Ostrel_Table_String_UpdateNode(s.h, "b", "x", 1); }, 0x90018, 0x90018, {"Node don't exist."}},
        {[&] { return Ostrel_Table_String_DelNode(s.h, "b"); }, 0x90018, 0x90018, {}},
        // A new table answers every form with "not found", and refuses a null
        // string key before fixing its key type.
        {[&] { return Ostrel_Table_Pointer_GetNode(fresh.h, nullptr, nullptr, nullptr); }, 0x90018, 0x90018,
         {"Node don't exist."}},
        {[&] { return Ostrel_Table_ByteArray_DelNode(fresh.h, "a", 1); }, 0x90018, 0x90018, {}},
        {[&] { return Ostrel_Table_String_AddNode(fresh.h, nullptr, nullptr, 0); }, 0x9000F, 0,
         {"Error in __OSL_Table_AddNode, assert(NULL != pKey) failed."}},
        {[&] { return Ostrel_Table_ByteArray_AddNode(fresh.h, nullptr, 3, nullptr, 0); }, 0x9000F, 0,
         {"Error in __OSL_Table_AddNode, assert((NULL != pKey) || (0 == uiKeyLength)) failed."}},
    };
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
        LogCapture cap;
        g_OSL_errno = 77; // an earlier value
        EXPECT_EQ(rows[i].call(), rows[i].code) << "row " << i;
        EXPECT_EQ(Ostrel_GetLastError(), rows[i].last_error) << "row " << i;
        Strings expect;
        for (const auto &l : rows[i].lines) expect.push_back(table_line(l));
        EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), expect) << "row " << i;
    }
    // The refusals changed nothing.
    EXPECT_EQ(s.range(), 4u);
    ASSERT_EQ(Ostrel_Table_GetCount(s.h, &n), 0u);
    EXPECT_EQ(n, 1u);
    ASSERT_EQ(Ostrel_Table_Pointer_AddNode(fresh.h, nullptr, nullptr, 0), 0u); // still without a key type
}

TEST(TableGrowth, StepsThresholdsForcedRefreshAndTheCap) {
    Table t(4, NODE_STORAGE_COPY);
    const uint32_t expect_range[] = {4, 4, 4, 8, 8, 8, 12}; // 4 * 100 / 4 > 75, 7 * 100 / 8 > 75
    for (int i = 0; i < 7; ++i) {
        t.add({std::to_string(i).c_str()});
        EXPECT_EQ(t.range(), expect_range[i]) << i;
    }
    LogCapture cap;
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 12), 0u); // not above: nothing, no line
    EXPECT_TRUE(cap.lines().empty());
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u); // no more growth
    for (int i = 7; i < 40; ++i) t.add({std::to_string(i).c_str()});
    EXPECT_EQ(t.range(), 12u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 4), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, 200), 0u); // refresh at once: 333 > 200
    EXPECT_EQ(t.range(), 16u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 17), 0u); // forced: 235 > 200 adds a step
    EXPECT_EQ(t.range(), 21u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, 1000), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 30), 0u); // forced, under: exactly 30
    EXPECT_EQ(t.range(), 30u);
    char p[32];
    snprintf(p, sizeof p, "%p", t.h);
    const std::string tp = std::string("Set table(") + p + ") ";
    EXPECT_EQ(cap.texts(LOG_LEVEL_INFO),
              (Strings{table_line(tp + "refresh step to 0"), table_line(tp + "refresh step to 4"),
                       table_line(tp + "refresh threshold to 200"), table_line(tp + "range to 17"),
                       table_line(tp + "refresh threshold to 1000"), table_line(tp + "range to 30")}));

    // Until the cap the average chain stays within threshold / 100; past it
    // every node stays reachable.
    Table big(16, NODE_STORAGE_REFERENCE);
    ASSERT_EQ(Ostrel_Table_SetProperty(big.h, TABLE_PROP_REFRESH_THRESHOLD, 150), 0u);
    for (uint32_t i = 0; i < 20000; ++i) {
        ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(big.h, &i, sizeof i, nullptr, i), 0u);
        uint32_t range = i % 97 == 0 ? big.range() : TABLE_RANGE_MAX;
        ASSERT_TRUE(range == TABLE_RANGE_MAX || (i + 1) * 100 / range <= 150) << i;
    }
    EXPECT_EQ(big.range(), 8192u);
    for (uint32_t i = 0, len = 0; i < 20000; ++i) {
        ASSERT_EQ(Ostrel_Table_ByteArray_GetNode(big.h, &i, sizeof i, nullptr, &len), 0u);
        ASSERT_EQ(len, i);
    }
}

int32_t descending(const void *a, uint32_t, const void *b, uint32_t) {
    return -strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

TEST(TableSort, OrdersAndTheSettlingRule) {
    Table ins(8, NODE_STORAGE_COPY), key(8, NODE_STORAGE_COPY), own(8, NODE_STORAGE_COPY);
    ins.add({"b", "a", "c"});
    EXPECT_EQ(walk(ins.h, TABLE_ITERATE_FORWARD), (Strings{"c", "a", "b"})); // newest first
    EXPECT_EQ(walk(ins.h, TABLE_ITERATE_BACKWARD), (Strings{"b", "a", "c"}));
    ASSERT_EQ(Ostrel_Table_SetProperty(key.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    key.add({"b", "a", "c", "ab"});
    EXPECT_EQ(walk(key.h, TABLE_ITERATE_FORWARD), (Strings{"a", "ab", "b", "c"}));
    EXPECT_EQ(walk(key.h, TABLE_ITERATE_BACKWARD), (Strings{"c", "b", "ab", "a"}));
    // A caller's sort function on a new table gives way to the key order at
    // the first add; on an emptied table it takes effect.
    ASSERT_EQ(Ostrel_Table_SetProperty(own.h, TABLE_PROP_SORT_FUNCTION, reinterpret_cast<uintptr_t>(&descending)), 0u);
    own.add({"b", "a", "c"});
    EXPECT_EQ(walk(own.h, TABLE_ITERATE_FORWARD), (Strings{"a", "b", "c"}));
    for (const char *k : {"a", "b", "c"}) ASSERT_EQ(Ostrel_Table_String_DelNode(own.h, k), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(own.h, TABLE_PROP_SORT_FUNCTION, reinterpret_cast<uintptr_t>(&descending)), 0u);
    own.add({"b", "a", "c"});
    EXPECT_EQ(walk(own.h, TABLE_ITERATE_FORWARD), (Strings{"c", "b", "a"}));

    // Byte arrays compare over the shorter length: a prefix sorts as equal,
    // so the newer key goes first. Emptied and set back to the default, the
    // table keeps the string order ("ab" before "abc", a NUL ends a key).
    Table b(8, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(b.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    const std::string keys[] = {"ab", "abc", "a", "b", std::string("a\0z", 3)};
    auto bytes = [&](int i, bool add) {
        auto len = static_cast<uint32_t>(keys[i].size());
        return add ? Ostrel_Table_ByteArray_AddNode(b.h, keys[i].data(), len, nullptr, 0)
                   : Ostrel_Table_ByteArray_DelNode(b.h, keys[i].data(), len);
    };
    for (int i = 0; i < 4; ++i) ASSERT_EQ(bytes(i, true), 0u);
    EXPECT_EQ(walk(b.h, TABLE_ITERATE_FORWARD, true), (Strings{"a", "abc", "ab", "b"}));
    for (int i = 0; i < 4; ++i) ASSERT_EQ(bytes(i, false), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(b.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    for (int i : {0, 1, 4}) ASSERT_EQ(bytes(i, true), 0u);
    EXPECT_EQ(walk(b.h, TABLE_ITERATE_FORWARD, true), (Strings{keys[4], "ab", "abc"}));
}

// Bucket order and sorted order in one string, for "nothing moved" checks.
std::string places(const Table &t) {
    std::string out;
    for (uint32_t mode : {TABLE_ITERATE_BUCKET, TABLE_ITERATE_FORWARD}) {
        for (const auto &k : walk(t.h, mode)) out += k + ",";
        out += "|";
    }
    EXPECT_EQ(t.range(), 1u);
    return out;
}

std::string value_of(const Table &t, const char *k, void **where = nullptr) {
    void *v = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(Ostrel_Table_String_GetNode(t.h, k, &v, &len), 0u);
    if (where != nullptr) *where = v;
    return std::string(static_cast<const char *>(v), len);
}

TEST(TableNodes, UpdatesAndDeletesKeepEveryOtherPlace) {
    Table t(1, NODE_STORAGE_COPY); // one bucket, no growth: a single chain
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u);
    t.add({"a", "b", "c", "d", "e"});
    const std::string before = places(t);
    EXPECT_EQ(before, "a,b,c,d,e,|e,d,c,b,a,|");
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "c", "0123456789", 10), 0u); // longer: new block
    void *first = nullptr, *now = nullptr;
    EXPECT_EQ(value_of(t, "c", &first), "0123456789");
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % alignof(max_align_t), 0u);
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "c", "wxyz", 4), 0u); // fits: in place
    EXPECT_EQ(value_of(t, "c", &now), "wxyz");
    EXPECT_EQ(now, first);
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "c", static_cast<char *>(now) + 1, 3), 0u); // its own bytes
    EXPECT_EQ(value_of(t, "c"), "xyz");
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "c", "12345", 5), 0u); // longer than 3: new block again
    EXPECT_EQ(value_of(t, "c"), "12345");
    // The chain head (a, also the sorted tail) and the chain tail (e, the
    // sorted head) move to new blocks too.
    for (const char *k : {"a", "e"}) ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, k, "a longer value", 14), 0u);
    EXPECT_EQ(places(t), before);
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "a"), 0u); // chain head, sorted tail
    EXPECT_EQ(places(t), "b,c,d,e,|e,d,c,b,|");
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "e"), 0u); // chain tail, sorted head
    EXPECT_EQ(places(t), "b,c,d,|d,c,b,|");
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "c"), 0u);
    EXPECT_EQ(places(t), "b,d,|d,b,|");
    for (const char *k : {"b", "d"}) ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, k), 0u);
    EXPECT_EQ(places(t), "||");
    t.add({"x"});
    EXPECT_EQ(places(t), "x,|x,|");

    Table r(4, NODE_STORAGE_REFERENCE);
    char v1[] = "one", v2[] = "longer two";
    ASSERT_EQ(Ostrel_Table_String_AddNode(r.h, "k", v1, 3), 0u);
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(r.h, "k", v2, 10), 0u);
    EXPECT_EQ(value_of(r, "k", &now), "longer two");
    EXPECT_EQ(now, static_cast<void *>(v2)); // reference mode keeps the caller's pointer
}

} // namespace
