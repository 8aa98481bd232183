// Keyed table: the CRC-32 index against zlib; refusals, property changes and
// failed allocations with their codes, last errors and log lines; and the
// model of fuzz/fuzz_table.cpp (contents, orders, growth, updates in place,
// walks with deferred changes followed by a second iterator) over seeded
// inputs for every key type, storage mode and sort order, and past the bucket
// cap.
#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>
#include <random>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "../fuzz/fuzz_table.cpp"

extern const uint32_t g_Table_Crc32Table[256];
uintptr_t __OSL_Table_GetStringIndex(const void *pKey, uint32_t uiKeyLength);
uint32_t __OSL_Table_Crc32(uint32_t uiCrc, const void *pData, size_t n);
uint32_t __OSL_Table_Crc32Bytewise(uint32_t uiCrc, const void *pData, size_t n);

namespace {

struct Table {
    OstrelTableHandle h = nullptr;
    Table(uint32_t range, int mode, std::initializer_list<const char *> keys = {}) {
        EXPECT_EQ(Ostrel_Table_Create(&h, range, mode), 0u);
        for (const char *k : keys) EXPECT_EQ(Ostrel_Table_String_AddNode(h, k, "v", 1), 0u) << k;
    }
    ~Table() { EXPECT_EQ(Ostrel_Table_Destroy(h), 0u); }
};

// Sizes in "alloc(N)" and "size=N" are blanked.
void run_rows(const std::vector<Row> &rows) {
    run_rows(rows, "src/table", [](std::string &lines) {
        for (std::string tag : {"alloc(", "size="})
            for (size_t at = lines.find(tag); at != std::string::npos; at = lines.find(tag, at + 1))
                lines.erase(at + tag.size(), lines.find_first_not_of("0123456789", at + tag.size()) - at - tag.size());
    });
}

std::string P(const void *p) { // as the log prints a pointer
    char text[32];
    return snprintf(text, sizeof text, "%p", p), text;
}

// The lines of a failed argument check, and of a failed record allocation.
std::string A(const std::string &fn, const std::string &cond) {
    return "Error in " + fn + ", assert(" + cond + ") failed.\n<===Exit " + fn + " with 0x9000f\n";
}
std::string M(const std::string &fn) { return "Error in " + fn + ", alloc() failed.\n<===Exit " + fn + " with 0x90006\n"; }

TEST(TableHash, IndexIsTheComplementOfZlibCrc32AndEveryFormAgrees) {
    for (int i = 0; i < 256; ++i) ASSERT_EQ(g_Table_Crc32Table[i], static_cast<uint32_t>(get_crc_table()[i])) << i;
    // Every length up to 100 (the empty key hashes to 0xFFFFFFFF; every tail
    // after the 8-byte steps), then random lengths, each at a random start
    // alignment and, for the bare update against the byte-at-a-time form, a
    // random start value.
    std::mt19937 rng(12345);
    std::vector<unsigned char> buf(4200);
    for (auto &b : buf) b = static_cast<unsigned char>(1 + rng() % 255); // no NUL but the one each round puts
    for (int round = 0; round < 5000; ++round) {
        const size_t len = round < 1000 ? static_cast<size_t>(round % 100) : rng() % 4096, off = rng() % 16;
        const unsigned char kept = buf[off + len];
        buf[off + len] = 0;
        const uint32_t expect = ~static_cast<uint32_t>(crc32(0, buf.data() + off, static_cast<uInt>(len))), start = rng();
        ASSERT_EQ(__OSL_Table_GetByteArrayIndex(buf.data() + off, static_cast<uint32_t>(len)), expect) << len;
        ASSERT_EQ(__OSL_Table_GetStringIndex(buf.data() + off, 7), expect) << len; // length argument ignored
        ASSERT_EQ(__OSL_Table_Crc32(start, buf.data() + off, len), __OSL_Table_Crc32Bytewise(start, buf.data() + off, len));
        buf[off + len] = kept;
    }
}

TEST(TableRefusals, CodesLastErrorsAndLogLines) {
    Table s(4, NODE_STORAGE_COPY, {"a"}), fresh(4, NODE_STORAGE_REFERENCE), busy(8, NODE_STORAGE_COPY, {"k0"});
    OstrelTableHandle out = nullptr;
    OstrelTableIterHandle it = nullptr, it2 = nullptr, on_fresh = nullptr;
    ASSERT_EQ(Ostrel_Table_BeginIterate(busy.h, &it, TABLE_ITERATE_FORWARD), 0u);
    uint32_t n = 0, fake[32] = {0x12345678u}, table_magic[32] = {0xC47F8609u}; // a table's magic is no iterator's
    const void *pk = &n;
    const char *k = nullptr;
    const std::string big(0x800000, 'x'); // one byte past the warning limit
    auto set = [](Table &t, int prop, uintptr_t v) { return Ostrel_Table_SetProperty(t.h, prop, v); };
    const uint32_t F = OSL_ERR_INVALID_PARAMETER, H = OSL_ERR_INVALID_HANDLE, N = OSL_ERR_NOT_FOUND, B = OSL_ERR_SYSTEM_BUSY;
    const int RANGE = TABLE_PROP_RANGE, THRESHOLD = TABLE_PROP_REFRESH_THRESHOLD, STEP = TABLE_PROP_REFRESH_STEP;
    const std::string create = "Ostrel_Table_Create", add = "__OSL_Table_AddNode", mismatch = "Operation target expect key type ",
                      busy_line = "The target table is being iterated.\n", range = "Table range must be 1 ~ 8192.\n",
                      threshold = "Table refresh threshold must be 1 ~ 1000.\n", gone = "Node don't exist.\n";
    run_rows({
        ROW(Ostrel_Table_Create(nullptr, 1, 0), F, 77, A(create, "NULL != phTable")),
        ROW(Ostrel_Table_Create(&out, 0, 0), F, 77, A(create, "0 != uiRange")),
        ROW(Ostrel_Table_Create(&out, 8193, 0), F, 77, A(create, "uiRange <= TABLE_RANGE_MAX")),
        ROW(Ostrel_Table_Create(&out, 8192, 2), F, 77, A(create, "(NODE_STORAGE_REFERENCE == iStoreFlag) || (NODE_STORAGE_COPY == iStoreFlag)")),
        ROW(Ostrel_Table_GetCount(nullptr, nullptr), F, 77, A("Ostrel_Table_GetCount", "NULL != puiCount")),
        ROW(Ostrel_Table_GetCount(nullptr, &n), H, H, "Invalid table handle: (nil).\n"),
        ROW(Ostrel_Table_Destroy(fake), H, H, "Invalid table handle: " + P(fake) + ".\n"),
        ROW(set(s, RANGE, 8193), F, F, range),
        ROW(set(s, RANGE, (uintptr_t(1) << 31) * 2 + 8), F, F, range), // the full width counts: not taken as 8
        ROW(set(s, RANGE, 5), 0, 0, "Set table(" + P(s.h) + ") range to 5\n"),
        ROW(set(s, THRESHOLD, 1001), F, F, threshold),
        ROW(set(s, THRESHOLD, 1000), 0, 0, "Set table(" + P(s.h) + ") refresh threshold to 1000\n"),
        ROW(set(s, STEP, 8193), F, F, "Table refresh step must be 0 ~ 8192.\n"),
        ROW(set(s, STEP, 8192), 0, 0, "Set table(" + P(s.h) + ") refresh step to 8192\n"),
        ROW(set(s, THRESHOLD, 1), 0, 0, "Set table(" + P(s.h) + ") refresh threshold to 1\n"), // grows to the cap: 8192
        ROW(set(s, RANGE, 8192), 0, 0, ""), // not above the range: nothing
        ROW(set(s, 5, 1), F, F, "Unknown parameter type: 5.\n"),
        ROW(set(s, TABLE_PROP_SORT_FUNCTION, 0), OSL_ERR_NOT_EMPTY, OSL_ERR_NOT_EMPTY, "Can't change the sort function of a non-empty table.\n"),
        ROW(set(fresh, TABLE_PROP_SORT_FUNCTION, 0), 0, 0, "Set table(" + P(fresh.h) + ") compare function to default\n"),
        ROW(set(fresh, TABLE_PROP_SORT_FUNCTION, reinterpret_cast<uintptr_t>(&table_model::append_order)), 0, 0,
            "Set table(" + P(fresh.h) + ") compare function to " + P(reinterpret_cast<void *>(&table_model::append_order)) + "\n"),
        ROW(Ostrel_Table_String_AddNode(s.h, "a", nullptr, 0), OSL_ERR_DUPLICATE_KEY, OSL_ERR_DUPLICATE_KEY, "Node with the same key existed.\n"),
        ROW(Ostrel_Table_Pointer_AddNode(s.h, &n, nullptr, 0), F, F, mismatch + "2, actually 1\nSet key type failed.\n"),
        ROW(Ostrel_Table_ByteArray_GetNode(s.h, &n, 1, nullptr, nullptr), F, F, mismatch + "3, actually 1\n"),
        ROW(Ostrel_Table_Pointer_UpdateNode(s.h, &n, nullptr, 0), F, F, mismatch + "2, actually 1\n"),
        ROW(Ostrel_Table_ByteArray_DelNode(s.h, "a", 1), F, F, mismatch + "3, actually 1\n"),
        // The null-key check looks at the table's key type, before the form's.
        ROW(Ostrel_Table_Pointer_AddNode(s.h, nullptr, nullptr, 0), F, 0, A(add, "NULL != pKey")),
        ROW(Ostrel_Table_String_GetNode(s.h, nullptr, nullptr, nullptr), F, 0, A("__OSL_Table_GetNode", "NULL != pKey")),
        ROW(Ostrel_Table_String_UpdateNode(s.h, nullptr, nullptr, 0), F, 0, A("__OSL_Table_UpdateNode", "NULL != pKey")),
        ROW(Ostrel_Table_String_DelNode(s.h, nullptr), F, 0, A("__OSL_Table_DelNode", "NULL != pKey")),
        ROW(Ostrel_Table_String_GetNode(s.h, "b", nullptr, nullptr), N, N, gone),
        // A new table answers any form with "not found", and refuses a null
        // string key before fixing its key type.
        ROW(Ostrel_Table_Pointer_GetNode(fresh.h, nullptr, nullptr, nullptr), N, N, gone),
        ROW(Ostrel_Table_String_AddNode(fresh.h, nullptr, nullptr, 0), F, 0, A(add, "NULL != pKey")),
        ROW(Ostrel_Table_ByteArray_AddNode(fresh.h, nullptr, 3, nullptr, 0), F, 0, A(add, "(NULL != pKey) || (0 == uiKeyLength)")),
        // An open iterator: the table refuses changes, not lookups or properties.
        ROW(Ostrel_Table_String_AddNode(busy.h, "b", "2", 1), B, B, busy_line),
        ROW(Ostrel_Table_String_UpdateNode(busy.h, "k0", "2", 1), B, B, busy_line),
        ROW(Ostrel_Table_String_DelNode(busy.h, "k0"), B, B, busy_line),
        ROW(Ostrel_Table_Destroy(busy.h), B, B, busy_line),
        ROW(Ostrel_Table_String_GetNode(busy.h, "k0", nullptr, nullptr), 0, 0, ""),
        ROW(set(busy, STEP, 0), 0, 0, "Set table(" + P(busy.h) + ") refresh step to 0\n"),
        ROW(Ostrel_Table_Pointer_Iterate(it, &pk, nullptr, nullptr), F, F, mismatch + "2, actually 1\n"),
        ROW(Ostrel_Table_String_Iterate(it, nullptr, nullptr, nullptr), F, 0, A("__OSL_Table_Iterate", "NULL != ppKey")),
        ROW(Ostrel_Table_BeginIterate(nullptr, nullptr, 0), F, 77, A("Ostrel_Table_BeginIterate", "NULL != phItr")),
        ROW(Ostrel_Table_BeginIterate(nullptr, &it2, 0), H, H, "Invalid table handle: (nil).\n"),
        ROW(Ostrel_Table_BeginIterate(busy.h, &it2, 3), F, F, ""),
        ROW(Ostrel_Table_IterateDel(nullptr), H, H, "Invalid table iterater handle: (nil).\n"),
        ROW(Ostrel_Table_EndIterate(table_magic), H, H, "Invalid table iterater handle: " + P(table_magic) + ".\n"),
        ROW(Ostrel_Table_IterateDel(it), N, N, ""), // no step yet
        ROW(Ostrel_Table_IterateUpdate(it, "x", 1), N, N, ""),
        ROW(Ostrel_Table_BeginIterate(fresh.h, &on_fresh, TABLE_ITERATE_BUCKET), 0, 0, ""),
        ROW(Ostrel_Table_ByteArray_Iterate(on_fresh, &pk, nullptr, nullptr, nullptr), 0, 0, ""), // no key type: any form
        ROW(Ostrel_Table_String_Iterate(it, &k, nullptr, nullptr), 0, 0, ""), // k0: the refused steps did not move
        ROW(Ostrel_Table_IterateUpdate(it, big.data(), 0x7FFFFF), 0, 0, ""),
        ROW(Ostrel_Table_IterateUpdate(it, big.data(), 0x800000), 0, 0, "Large malloc in Ostrel_Table_IterateUpdate, size=.\n"),
        ROW(Ostrel_Table_EndIterate(on_fresh), 0, 0, ""),
    });
    // The range stopped at the cap, mode 3 opened no iterator, the new table
    // has no key type yet, and the last mark is carried out at the end.
    EXPECT_STREQ(__OSL_Table_Verify(s.h, &n, nullptr), nullptr);
    EXPECT_EQ(n, 8192u);
    EXPECT_STREQ(k, "k0");
    EXPECT_EQ(pk, nullptr);
    ASSERT_EQ(Ostrel_Table_EndIterate(it), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(busy.h, "k0", nullptr, &n), 0u);
    EXPECT_EQ(n, big.size());
    EXPECT_EQ(Ostrel_Table_String_AddNode(busy.h, "b", "2", 1), 0u);
    EXPECT_EQ(Ostrel_Table_Pointer_AddNode(fresh.h, nullptr, nullptr, 0), 0u);
}

// Each failed allocation is reported and leaves the table as it was (the rows
// run in order).
TEST(TableAlloc, FailuresAreReportedAndChangeNothing) {
    if (!OSTREL_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    OstrelTableHandle h = nullptr;
    OstrelTableIterHandle it = nullptr;
    const void *k = nullptr;
    auto add = [&h](const char *key) { return Ostrel_Table_ByteArray_AddNode(h, key, 1, "old", 3); };
    auto next = [&] { return Ostrel_Table_ByteArray_Iterate(it, &k, nullptr, nullptr, nullptr); };
    const uint32_t NM = OSL_ERR_NO_MEMORY;
    const std::string node = "Alloc memory (size=) failed.\n", update = node + "Create new table node failed.\nUpdate table node value failed.\n",
                      failed_action = update + "Process iterate action failed.\n", refresh = M("__OSL_Table_RefreshTable");
    run_rows({
        FAIL_ROW(0, Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), NM, 77, M("Ostrel_Table_Create")),
        FAIL_ROW(1, Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), NM, NM, ""), // the bucket array
        ROW(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), 0, 0, ""),
        FAIL_ROW(0, Ostrel_Table_String_AddNode(h, "a", "old", 3), NM, NM, node + "Create table node failed.\n"),
        ROW(std::max({add("a"), add("b"), add("c")}), 0, 0, ""), // in order; the key type stayed open
        FAIL_ROW(1, add("d"), 0, 0, refresh), // the add ignores its refresh
        FAIL_ROW(0, Ostrel_Table_SetProperty(h, TABLE_PROP_RANGE, 64), NM, NM, refresh + "Refresh table failed.\n"),
        FAIL_ROW(0, Ostrel_Table_ByteArray_UpdateNode(h, "a", 1, "much longer", 11), NM, NM, update),
        FAIL_ROW(0, Ostrel_Table_BeginIterate(h, &it, TABLE_ITERATE_BACKWARD), NM, 0, M("Ostrel_Table_BeginIterate")),
        ROW(std::max({Ostrel_Table_BeginIterate(h, &it, TABLE_ITERATE_BACKWARD), next(), Ostrel_Table_IterateDel(it)}), 0, 0, ""),
        FAIL_ROW(0, Ostrel_Table_IterateUpdate(it, "abcde", 5), NM, 0, M("Ostrel_Table_IterateUpdate")),
        ROW(std::max({next(), Ostrel_Table_IterateUpdate(it, "longer value", 12)}), 0, 0, ""), // a deleted; at b
        FAIL_ROW(0, next(), 0, 0, failed_action),
        ROW(Ostrel_Table_IterateUpdate(it, "longer value", 12), 0, 0, ""), // at c
        FAIL_ROW(0, Ostrel_Table_EndIterate(it), 0, 0, failed_action),
        ROW(Ostrel_Table_ByteArray_GetNode(h, "a", 1, nullptr, nullptr), OSL_ERR_NOT_FOUND, OSL_ERR_NOT_FOUND, "Node don't exist.\n"),
        ROW(add("e"), 0, 0, ""), // the iterator is closed
    });
    uint32_t range = 0; // 4 kept through the failed refresh, one step up with e
    EXPECT_STREQ(__OSL_Table_Verify(h, &range, nullptr), nullptr);
    EXPECT_EQ(range, 8u);
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}

// The fuzz target's model over seeded inputs, per key type, storage mode and
// sort order (bucket ranges, thresholds and steps vary, defaults included).
constexpr int kModelOps = 6000;
constexpr uint32_t kModelKeys = 121; // every key of up to four characters

class TableModel : public ::testing::TestWithParam<int> {};

TEST_P(TableModel, AgreesWithStdMapAfterEveryStep) {
    const int i = GetParam();
    std::mt19937 rng(20261121 + i);
    std::vector<uint8_t> input(kModelOps * 16);
    for (auto &b : input) b = static_cast<uint8_t>(rng());
    input[0] = static_cast<uint8_t>(i % 3 | i / 3 % 2 << 2 | i % 5 << 4 | i / 6 << 7);
    input[1] = i % 4 == 1 ? 0 : input[1];                  // the default threshold
    input[2] = i % 4 == 2 ? 9 : i % 4 == 0 ? 0 : input[2]; // the default step, or no growth
    LogCapture quiet(16); // misses are logged as errors: keep the run out of the log
    EXPECT_GT(table_model::run(input.data(), input.size(), {kModelOps, kModelKeys}), 40u); // filled up
}

INSTANTIATE_TEST_SUITE_P(Table, TableModel, ::testing::Range(0, 12)); // key type 1 + i % 3, copy i / 3 % 2, key order i / 6

// The big table, one input per key type (copy mode for pointers, key order for
// byte arrays), filled with 16,380 nodes, 4 under the line past which it
// keeps its lookup index. Eight adds of new keys (odd numbers, with a null
// value of length 1) take it past the line; the random operations after them
// (walks delete most) bring it back under.
TEST(TableModelBig, CrossesTheIndexLineAtTheBucketCap) {
    for (int t = 0; t < 3; ++t) {
        std::mt19937 rng(20261209 + t);
        std::vector<uint8_t> input(2048);
        for (auto &b : input) b = static_cast<uint8_t>(rng());
        input[0] = static_cast<uint8_t>(0x78 | t | t % 2 << 2 | (t == 2) << 7);
        input[1] = 0; // 16,380 nodes
        for (int k = 0; k < 8; ++k) // opcode 0 (add), key bytes 0 and 2k + 1, value byte 10
            input[3 + 4 * k] = input[4 + 4 * k] = 0, input[5 + 4 * k] = static_cast<uint8_t>(2 * k + 1), input[6 + 4 * k] = 10;
        input.back() = static_cast<uint8_t>(input.back() - table_model::checksum(input.data(), input.size()));
        LogCapture quiet(16);
        EXPECT_GT(table_model::run(input.data(), input.size(), {kModelOps, kModelKeys}), 2u * TABLE_RANGE_MAX) << t;
    }
}

} // namespace

// Tables whose chains outgrow a few nodes, where lookups go through the
// private index: model runs past the bucket cap and down again through a
// walk that deletes, and index allocations that fail without changing any
// result.
#include <gtest/gtest.h>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include "ostrel_error.h"
#include "ostrel_table.h"

uint64_t __OSL_Table_IndexHeads(void *hTable);

namespace table_scale {

// Key ids as pointer keys; ids 2i and 2i+1 share their low 32 bits, so their bucket.
static const void *key(uint32_t id) { return reinterpret_cast<const void *>(uintptr_t{id / 2} * 8 + (uintptr_t{id % 2} << 32)); }
static uint32_t id_of(const void *k) { return static_cast<uint32_t>((reinterpret_cast<uintptr_t>(k) & 0xFFFFFFFFu) / 8 * 2 + (reinterpret_cast<uintptr_t>(k) >> 32)); }

// Growing lengths, so that updates move copy-mode nodes to new blocks.
const std::string kValues[] = {"a", "bb", "cccc", "dddddddd", "eeeeeeeeeeeeeeee", std::string(40, 'f')};

static uint32_t add(OstrelTableHandle h, uint32_t id, const std::string &v) { return Ostrel_Table_Pointer_AddNode(h, key(id), v.data(), static_cast<uint32_t>(v.size())); }

static bool holds(OstrelTableHandle h, uint32_t id, const std::string &v) {
    void *got = nullptr;
    uint32_t len = 0;
    return Ostrel_Table_Pointer_GetNode(h, key(id), &got, &len) == 0 && len == v.size() && memcmp(got, v.data(), len) == 0;
}

// The links, the count, and the index: there past chains of 2 nodes a bucket,
// gone under 1, with 2 to 8 heads a node (or as many heads as expected).
static void check_index(OstrelTableHandle h, size_t count, uint64_t expect_heads = UINT64_MAX) {
    uint32_t range = 0, n = 0;
    ASSERT_STREQ(__OSL_Table_Verify(h, &range, nullptr), nullptr);
    ASSERT_EQ(Ostrel_Table_GetCount(h, &n), 0u);
    ASSERT_EQ(n, count);
    uint64_t heads = __OSL_Table_IndexHeads(h);
    bool rule = heads == 0 ? n <= 2 * range : n >= range && heads >= 2 * n && heads <= 8 * n + 16;
    ASSERT_TRUE(expect_heads == UINT64_MAX ? rule : heads == expect_heads) << n << " nodes in " << range << " buckets, " << heads << " heads";
}

TEST(TableScale, ModelRunPastTheCapAndBackDown) {
    ZurnGeneral_SetLogLevel(16); // misses are logged as errors
    // Chains of 2 to 3 nodes while the range grows by 1024 buckets a refresh
    // (the index follows), then up to 4.5 at the cap.
    OstrelTableHandle h = nullptr;
    ASSERT_EQ(Ostrel_Table_Create(&h, 1, NODE_STORAGE_COPY), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(h, TABLE_PROP_REFRESH_THRESHOLD, 300), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(h, TABLE_PROP_REFRESH_STEP, 1024), 0u);
    std::unordered_map<uint32_t, const std::string *> model;
    std::mt19937 rng(7);
    for (int op = 1; op <= 120000; ++op) { // filling to ~37,000 nodes, then emptying to ~30,000
        uint32_t id = rng() % 100000, pick = rng() % 100, filling = op <= 60000;
        const std::string &v = kValues[rng() % 6];
        bool present = model.count(id) != 0;
        if (pick < (filling ? 80u : 15u)) {
            ASSERT_EQ(add(h, id, v), present ? OSL_ERR_DUPLICATE_KEY : 0u);
            model.emplace(id, &v);
        } else if (pick < (filling ? 90u : 35u)) {
            ASSERT_EQ(Ostrel_Table_Pointer_UpdateNode(h, key(id), v.data(), static_cast<uint32_t>(v.size())), present ? 0u : OSL_ERR_NOT_FOUND);
            if (present) model[id] = &v;
        } else {
            ASSERT_EQ(Ostrel_Table_Pointer_DelNode(h, key(id)), present ? 0u : OSL_ERR_NOT_FOUND);
            model.erase(id);
        }
        if (op % 10000 == 0) {
            ASSERT_NO_FATAL_FAILURE(check_index(h, model.size())) << op;
        }
    }
    for (uint32_t id = 0; model.size() > 10000; ++id) ASSERT_EQ(Ostrel_Table_Pointer_DelNode(h, key(id)), model.erase(id) ? 0u : OSL_ERR_NOT_FOUND);
    ASSERT_NO_FATAL_FAILURE(check_index(h, model.size(), 65536)); // shrunk from 131072 heads
    // A walk in bucket order deletes every other node: the index follows, then goes.
    OstrelTableIterHandle it = nullptr;
    ASSERT_EQ(Ostrel_Table_BeginIterate(h, &it, TABLE_ITERATE_BUCKET), 0u);
    for (size_t i = 0, n = model.size(); i < n; ++i) {
        const void *k = nullptr;
        ASSERT_EQ(Ostrel_Table_Pointer_Iterate(it, &k, nullptr, nullptr), 0u);
        bool del = rng() % 2 != 0; // a node visited twice or unknown fails here
        ASSERT_EQ(del ? model.erase(id_of(k)) : model.count(id_of(k)), 1u) << id_of(k);
        ASSERT_EQ(del ? Ostrel_Table_IterateDel(it) : 0u, 0u);
    }
    ASSERT_EQ(Ostrel_Table_EndIterate(it), 0u);
    ASSERT_NO_FATAL_FAILURE(check_index(h, model.size(), 0));
    for (const auto &m : model) ASSERT_TRUE(holds(h, m.first, *m.second)) << m.first;
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}

// Allocations in an add past 2 nodes a bucket: the node, then the index's
// heads and bucket tails; in a forced refresh: the buckets, then the tails.
// A failed one leaves lookups to the chains (or the index fuller) and is
// tried again once the count has grown by half.
TEST(TableScale, IndexAllocationFailuresChangeNoResult) {
    if (!OSTREL_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    OstrelTableHandle h = nullptr;
    ASSERT_EQ(Ostrel_Table_Create(&h, 1, NODE_STORAGE_COPY), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(h, TABLE_PROP_REFRESH_STEP, 0), 0u);
    struct Step { uint32_t nodes; int fail; uint64_t heads; };
    uint32_t n = 0;
    for (Step s : {Step{3, 2, 0}, Step{4, -1, 0}, Step{5, -1, 16}, Step{9, 1, 16}, Step{13, -1, 16}, Step{14, -1, 32},
                   Step{14, 1, 0}, Step{21, -1, 0}, Step{22, -1, 64}}) {
        for (; n + 1 < s.nodes; ++n) ASSERT_EQ(add(h, n, kValues[n % 6]), 0u);
        alloc_failure::fail_allocation_number(s.fail);
        ASSERT_EQ(n == s.nodes ? Ostrel_Table_SetProperty(h, TABLE_PROP_RANGE, 2) : add(h, n, kValues[n % 6]), 0u);
        alloc_failure::fail_allocation_number(-1);
        n = s.nodes;
        ASSERT_NO_FATAL_FAILURE(check_index(h, s.nodes, s.heads));
        for (uint32_t id = 0; id < s.nodes; ++id) ASSERT_TRUE(holds(h, id, kValues[id % 6])) << id;
    }
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}
} // namespace table_scale
