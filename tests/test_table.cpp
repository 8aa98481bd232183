// Keyed table: the CRC-32 index against zlib, creation and handle checks,
// properties and growth, key types, sort orders, add/get/update/delete in the
// three key forms, with their log lines and last-error rules.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "log_capture.h"
#include "ostrel_error.h"
#include "ostrel_table.h"

// Internals of src/table, reachable from the object library the tests link.
extern const uint32_t g_Table_Crc32Table[256];
uintptr_t __OSL_Table_GetStringIndex(const void *pKey, uint32_t uiKeyLength);
uintptr_t __OSL_Table_GetByteArrayIndex(const void *pKey, uint32_t uiKeyLength);
const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);

namespace {

constexpr const char *kPath = "src/table";

struct Table {
    OstrelTableHandle h = nullptr;
    Table(uint32_t range, int mode) { EXPECT_EQ(Ostrel_Table_Create(&h, range, mode), 0u); }
    ~Table() {
        if (h != nullptr) {
            EXPECT_EQ(Ostrel_Table_Destroy(h), 0u);
        }
    }
    // Range after checking every link of the table.
    uint32_t range() const {
        uint32_t r = 0;
        EXPECT_STREQ(__OSL_Table_Verify(h, &r, nullptr), nullptr);
        return r;
    }
    uint32_t count() const {
        uint32_t n = 0;
        EXPECT_EQ(Ostrel_Table_GetCount(h, &n), 0u);
        return n;
    }
};

std::string errline(const std::string &text) { return std::string(kPath) + "|" + text; }

std::vector<std::string> string_walk(OstrelTableHandle h, uint32_t mode) {
    std::vector<std::string> out;
    OstrelTableIterHandle it = nullptr;
    EXPECT_EQ(Ostrel_Table_BeginIterate(h, &it, mode), 0u);
    const char *key = nullptr;
    while (Ostrel_Table_String_Iterate(it, &key, nullptr, nullptr) == 0 && key != nullptr) out.emplace_back(key);
    EXPECT_EQ(Ostrel_Table_EndIterate(it), 0u);
    return out;
}

std::vector<std::string> bytes_walk(OstrelTableHandle h, uint32_t mode) {
    std::vector<std::string> out;
    OstrelTableIterHandle it = nullptr;
    EXPECT_EQ(Ostrel_Table_BeginIterate(h, &it, mode), 0u);
    const void *key = nullptr;
    uint32_t len = 0;
    while (Ostrel_Table_ByteArray_Iterate(it, &key, &len, nullptr, nullptr) == 0 && key != nullptr)
        out.emplace_back(static_cast<const char *>(key), len);
    EXPECT_EQ(Ostrel_Table_EndIterate(it), 0u);
    return out;
}

void add_strings(OstrelTableHandle h, std::initializer_list<const char *> keys) {
    for (const char *k : keys) ASSERT_EQ(Ostrel_Table_String_AddNode(h, k, k, 1), 0u) << k;
}

using Strings = std::vector<std::string>;

TEST(TableHash, TableIsTheStandardCrc32Table) {
    const z_crc_t *z = get_crc_table();
    for (int i = 0; i < 256; ++i) ASSERT_EQ(g_Table_Crc32Table[i], static_cast<uint32_t>(z[i])) << i;
}

// The index of a key is the bitwise complement of the usual CRC-32: every
// length (so every tail after the 8-byte steps) and every start alignment.
TEST(TableHash, IndexIsTheComplementOfZlibCrc32) {
    std::mt19937 rng(12345);
    std::vector<unsigned char> buf(600);
    for (int round = 0; round < 20000; ++round) {
        size_t len = round < 2000 ? static_cast<size_t>(round % 70) : rng() % 512;
        size_t off = rng() % 8;
        for (size_t i = 0; i < len; ++i) buf[off + i] = static_cast<unsigned char>(rng());
        uint32_t expect = ~static_cast<uint32_t>(crc32(0, buf.data() + off, static_cast<uInt>(len)));
        ASSERT_EQ(static_cast<uint32_t>(__OSL_Table_GetByteArrayIndex(buf.data() + off, static_cast<uint32_t>(len))),
                  expect)
            << "len " << len;
        // The same bytes as a string: strlen bytes hashed, the length argument ignored.
        for (size_t i = 0; i < len; ++i)
            if (buf[off + i] == 0) buf[off + i] = 1;
        buf[off + len] = 0;
        expect = ~static_cast<uint32_t>(crc32(0, buf.data() + off, static_cast<uInt>(len)));
        ASSERT_EQ(static_cast<uint32_t>(__OSL_Table_GetStringIndex(buf.data() + off, 7)), expect) << "len " << len;
    }
    EXPECT_EQ(__OSL_Table_GetByteArrayIndex("", 0), 0xFFFFFFFFu);
    EXPECT_EQ(__OSL_Table_GetStringIndex("", 1), 0xFFFFFFFFu);
}

TEST(TableCreate, ChecksArgumentsInOrderWithoutStoringTheFailure) {
    LogCapture cap;
    OstrelTableHandle h = nullptr;
    EXPECT_EQ(Ostrel_Table_Create(nullptr, 0, 5), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_Create(&h, 0, 5), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_Create(&h, 8193, 5), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_Create(&h, 8192, 2), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (Strings{errline("Error in Ostrel_Table_Create, assert(NULL != phTable) failed."),
                       errline("Error in Ostrel_Table_Create, assert(0 != uiRange) failed."),
                       errline("Error in Ostrel_Table_Create, assert(uiRange <= TABLE_RANGE_MAX) failed."),
                       errline("Error in Ostrel_Table_Create, assert((NODE_STORAGE_REFERENCE == iStoreFlag) || "
                               "(NODE_STORAGE_COPY == iStoreFlag)) failed.")}));
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE),
              Strings(4, errline("<===Exit Ostrel_Table_Create with 0x9000f")));

    // A failed argument check does not touch the last error.
    Table t(1, NODE_STORAGE_COPY);
    EXPECT_EQ(Ostrel_Table_String_GetNode(t.h, "x", nullptr, nullptr), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_Table_Create(&h, 0, NODE_STORAGE_COPY), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NOT_FOUND);

    ASSERT_EQ(Ostrel_Table_Create(&h, TABLE_RANGE_MAX, NODE_STORAGE_REFERENCE), 0u);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    uint32_t range = 0;
    EXPECT_STREQ(__OSL_Table_Verify(h, &range, nullptr), nullptr);
    EXPECT_EQ(range, 8192u);
    EXPECT_EQ(Ostrel_Table_Destroy(h), 0u);
}

TEST(TableHandle, BadHandlesAreRefusedAndStored) {
    LogCapture cap;
    EXPECT_EQ(Ostrel_Table_String_AddNode(nullptr, "a", nullptr, 0), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Invalid table handle: (nil)."));

    uint32_t fake[32] = {0x12345678u};
    char expect[64];
    snprintf(expect, sizeof expect, "Invalid table handle: %p.", static_cast<void *>(fake));
    cap.clear();
    EXPECT_EQ(Ostrel_Table_Destroy(fake), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_Table_SetProperty(fake, TABLE_PROP_RANGE, 5), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_Table_Pointer_DelNode(fake, nullptr), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings(3, errline(expect)));

    // GetCount checks its output pointer before the handle.
    cap.clear();
    EXPECT_EQ(Ostrel_Table_GetCount(nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              Strings{errline("Error in Ostrel_Table_GetCount, assert(NULL != puiCount) failed.")});
}

TEST(TableGrowth, GrowsByTheStepWhenTheLoadPassesTheThreshold) {
    Table t(4, NODE_STORAGE_COPY);
    const uint32_t expect_range[] = {4, 4, 4, 8, 8, 8, 12};
    for (int i = 0; i < 7; ++i) {
        std::string k = "key" + std::to_string(i);
        ASSERT_EQ(Ostrel_Table_String_AddNode(t.h, k.c_str(), nullptr, 0), 0u);
        EXPECT_EQ(t.range(), expect_range[i]) << "after node " << i + 1;
    }
    // Step 0 stops automatic growth; deletes never shrink the array.
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u);
    for (int i = 7; i < 40; ++i)
        ASSERT_EQ(Ostrel_Table_String_AddNode(t.h, ("key" + std::to_string(i)).c_str(), nullptr, 0), 0u);
    EXPECT_EQ(t.range(), 12u);
    for (int i = 0; i < 40; ++i) ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, ("key" + std::to_string(i)).c_str()), 0u);
    EXPECT_EQ(t.range(), 12u);
}

TEST(TableGrowth, KeepsChainsWithinThresholdUntilTheCapAndEveryNodeReachable) {
    Table t(16, NODE_STORAGE_REFERENCE);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, 150), 0u);
    const uint32_t total = 20000;
    for (uint32_t i = 0; i < total; ++i) {
        ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, &i, sizeof i, nullptr, i), 0u);
        if (i % 97 != 0 && i + 1 != total) continue;
        uint32_t range = 0, longest = 0;
        ASSERT_STREQ(__OSL_Table_Verify(t.h, &range, &longest), nullptr);
        if (range < TABLE_RANGE_MAX) {
            EXPECT_LE((i + 1) * 100 / range, 150u) << i;
        }
    }
    EXPECT_EQ(t.range(), 8192u);
    EXPECT_EQ(t.count(), total);
    for (uint32_t i = 0; i < total; ++i) {
        uint32_t len = 0;
        ASSERT_EQ(Ostrel_Table_ByteArray_GetNode(t.h, &i, sizeof i, nullptr, &len), 0u);
        ASSERT_EQ(len, i);
    }
}

TEST(TableProperties, RangeThresholdAndStepRules) {
    Table t(4, NODE_STORAGE_COPY);
    LogCapture cap;
    // Not above the current range: accepted, nothing changes, nothing logged.
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 3), 0u);
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 4), 0u);
    EXPECT_TRUE(cap.lines().empty());
    EXPECT_EQ(t.range(), 4u);
    // Full-width values: above 2^32 is refused, not truncated.
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 8193), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 0), OSL_ERR_INVALID_PARAMETER);
    if (sizeof(uintptr_t) > 4) {
        EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, (uintptr_t(1) << 32) + 6), OSL_ERR_INVALID_PARAMETER);
        EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, (uintptr_t(1) << 32) + 6),
                  OSL_ERR_INVALID_PARAMETER);
        EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, (uintptr_t(1) << 32) + 6),
                  OSL_ERR_INVALID_PARAMETER);
    }
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, 1001), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 8193), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, 5, 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_SetProperty(t.h, 0, 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(t.range(), 4u);
    Strings refusals{errline("Table range must be 1 ~ 8192."), errline("Table range must be 1 ~ 8192.")};
    if (sizeof(uintptr_t) > 4) {
        refusals.push_back(errline("Table range must be 1 ~ 8192."));
        refusals.push_back(errline("Table refresh threshold must be 1 ~ 1000."));
        refusals.push_back(errline("Table refresh step must be 0 ~ 8192."));
    }
    refusals.push_back(errline("Table refresh threshold must be 1 ~ 1000."));
    refusals.push_back(errline("Table refresh threshold must be 1 ~ 1000."));
    refusals.push_back(errline("Table refresh step must be 0 ~ 8192."));
    refusals.push_back(errline("Unknown parameter type: 5."));
    refusals.push_back(errline("Unknown parameter type: 0."));
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), refusals);

    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, 1000), 0u);
    for (int i = 0; i < 20; ++i) ASSERT_EQ(Ostrel_Table_String_AddNode(t.h, std::to_string(i).c_str(), "v", 1), 0u);
    EXPECT_EQ(t.range(), 4u); // load 500 is under 1000
    // A threshold change runs an ordinary refresh at once.
    cap.clear();
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_THRESHOLD, 100), 0u);
    EXPECT_EQ(t.range(), 8u); // one step: 4 + 4
    // Forced refresh at a new range: load 20 * 100 / 9 = 222 > 100 adds a step.
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 9), 0u);
    EXPECT_EQ(t.range(), 13u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 8192), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 14), 0u);
    EXPECT_EQ(t.range(), 8192u); // capped
    char p[32];
    snprintf(p, sizeof p, "%p", t.h);
    EXPECT_EQ(cap.texts(LOG_LEVEL_INFO),
              (Strings{errline("Set table(" + std::string(p) + ") refresh threshold to 100"),
                       errline("Set table(" + std::string(p) + ") range to 9"),
                       errline("Set table(" + std::string(p) + ") refresh step to 8192"),
                       errline("Set table(" + std::string(p) + ") range to 14")}));
    // Forced refresh under the threshold rebuilds at exactly the stored range.
    Table u(4, NODE_STORAGE_COPY);
    add_strings(u.h, {"a", "b"});
    ASSERT_EQ(Ostrel_Table_SetProperty(u.h, TABLE_PROP_RANGE, 5), 0u);
    EXPECT_EQ(u.range(), 5u);
}

int32_t descending(const void *a, uint32_t, const void *b, uint32_t) {
    return -strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

TEST(TableSort, InsertionOrderKeyOrderAndTheSettlingRule) {
    Table ins(8, NODE_STORAGE_COPY);
    add_strings(ins.h, {"b", "a", "c"});
    EXPECT_EQ(string_walk(ins.h, TABLE_ITERATE_FORWARD), (Strings{"c", "a", "b"}));
    EXPECT_EQ(string_walk(ins.h, TABLE_ITERATE_BACKWARD), (Strings{"b", "a", "c"}));

    Table key(8, NODE_STORAGE_COPY);
    LogCapture cap;
    ASSERT_EQ(Ostrel_Table_SetProperty(key.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    char p[32];
    snprintf(p, sizeof p, "%p", key.h);
    EXPECT_TRUE(cap.has(LOG_LEVEL_INFO, kPath, "Set table(" + std::string(p) + ") compare function to default"));
    add_strings(key.h, {"b", "a", "c", "ab"});
    EXPECT_EQ(string_walk(key.h, TABLE_ITERATE_FORWARD), (Strings{"a", "ab", "b", "c"}));
    EXPECT_EQ(string_walk(key.h, TABLE_ITERATE_BACKWARD), (Strings{"c", "b", "ab", "a"}));
    cap.clear();
    EXPECT_EQ(Ostrel_Table_SetProperty(key.h, TABLE_PROP_SORT_FUNCTION, 0), OSL_ERR_NOT_EMPTY);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings{errline("Can't change the sort function of a non-empty table.")});

    // A caller's sort function on a new table is replaced by the key type's
    // compare at the first add; on an emptied table it takes effect.
    Table own(8, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(own.h, TABLE_PROP_SORT_FUNCTION, reinterpret_cast<uintptr_t>(&descending)), 0u);
    add_strings(own.h, {"b", "a", "c"});
    EXPECT_EQ(string_walk(own.h, TABLE_ITERATE_FORWARD), (Strings{"a", "b", "c"}));
    for (const char *k : {"a", "b", "c"}) ASSERT_EQ(Ostrel_Table_String_DelNode(own.h, k), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(own.h, TABLE_PROP_SORT_FUNCTION, reinterpret_cast<uintptr_t>(&descending)), 0u);
    add_strings(own.h, {"b", "a", "c"});
    EXPECT_EQ(string_walk(own.h, TABLE_ITERATE_FORWARD), (Strings{"c", "b", "a"}));
    EXPECT_EQ(own.range(), 8u);
}

TEST(TableSort, ByteArrayPrefixesSortEqualAndEmptiedTablesKeepTheStringDefault) {
    Table t(8, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, "ab", 2, nullptr, 0), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, "abc", 3, nullptr, 0), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, "a", 1, nullptr, 0), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, "b", 1, nullptr, 0), 0u);
    // Equal under the prefix rule: the newer key goes first.
    EXPECT_EQ(bytes_walk(t.h, TABLE_ITERATE_FORWARD), (Strings{"a", "abc", "ab", "b"}));
    // As lookup keys they stay distinct.
    uint32_t len = 9;
    EXPECT_EQ(Ostrel_Table_ByteArray_GetNode(t.h, "abc", 2, nullptr, &len), 0u);
    EXPECT_EQ(Ostrel_Table_ByteArray_DelNode(t.h, "abc", 3), 0u);
    EXPECT_EQ(Ostrel_Table_ByteArray_GetNode(t.h, "abc", 3, nullptr, nullptr), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_Table_ByteArray_GetNode(t.h, "ab", 2, nullptr, nullptr), 0u);

    // Emptied and set back to the default: the string order stays installed,
    // so "ab" sorts before "abc" whatever the order of adding.
    for (const char *k : {"ab", "a", "b"}) ASSERT_EQ(Ostrel_Table_ByteArray_DelNode(t.h, k, 1 + (k[1] != 0)), 0u);
    ASSERT_EQ(t.count(), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, "ab", 2, nullptr, 0), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, "abc", 3, nullptr, 0), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, "a\0z", 3, nullptr, 0), 0u);
    EXPECT_EQ(bytes_walk(t.h, TABLE_ITERATE_FORWARD), (Strings{std::string("a\0z", 3), "ab", "abc"}));

    // The same on a pointer table: pointer keys are never read, so they all
    // compare equal and each new key goes first.
    Table p(8, NODE_STORAGE_REFERENCE);
    ASSERT_EQ(Ostrel_Table_Pointer_AddNode(p.h, nullptr, nullptr, 0), 0u);
    ASSERT_EQ(Ostrel_Table_Pointer_DelNode(p.h, nullptr), 0u);
    ASSERT_EQ(Ostrel_Table_SetProperty(p.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    for (uintptr_t k : {uintptr_t(0), uintptr_t(8), uintptr_t(3)})
        ASSERT_EQ(Ostrel_Table_Pointer_AddNode(p.h, reinterpret_cast<void *>(k), nullptr, 0), 0u);
    // The null key is a key here, so the walk is stepped by the count.
    std::vector<uintptr_t> seen;
    OstrelTableIterHandle it = nullptr;
    ASSERT_EQ(Ostrel_Table_BeginIterate(p.h, &it, TABLE_ITERATE_FORWARD), 0u);
    for (uint32_t i = 0; i < p.count(); ++i) {
        const void *key = &seen;
        ASSERT_EQ(Ostrel_Table_Pointer_Iterate(it, &key, nullptr, nullptr), 0u);
        seen.push_back(reinterpret_cast<uintptr_t>(key));
    }
    ASSERT_EQ(Ostrel_Table_EndIterate(it), 0u);
    EXPECT_EQ(seen, (std::vector<uintptr_t>{3, 8, 0}));
}

TEST(TableKeyType, FirstAddFixesTheTypeForLife) {
    Table t(8, NODE_STORAGE_COPY);
    LogCapture cap;
    // A new table answers every form with "not found".
    EXPECT_EQ(Ostrel_Table_String_GetNode(t.h, "a", nullptr, nullptr), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_Table_Pointer_GetNode(t.h, nullptr, nullptr, nullptr), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_Table_ByteArray_GetNode(t.h, "a", 1, nullptr, nullptr), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_Table_ByteArray_DelNode(t.h, "a", 1), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings(3, errline("Node don't exist.")));

    // A null string key on a new table is refused before the type is fixed.
    cap.clear();
    EXPECT_EQ(Ostrel_Table_String_AddNode(t.h, nullptr, nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings{errline("Error in __OSL_Table_AddNode, assert(NULL != pKey) failed.")});
    EXPECT_EQ(Ostrel_Table_ByteArray_AddNode(t.h, nullptr, 3, nullptr, 0), OSL_ERR_INVALID_PARAMETER);

    ASSERT_EQ(Ostrel_Table_String_AddNode(t.h, "a", "1", 1), 0u);
    cap.clear();
    EXPECT_EQ(Ostrel_Table_Pointer_AddNode(t.h, &cap, nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (Strings{errline("Operation target expect key type 2, actually 1"), errline("Set key type failed.")}));
    cap.clear();
    EXPECT_EQ(Ostrel_Table_Pointer_GetNode(t.h, &cap, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_ByteArray_UpdateNode(t.h, "a", 1, nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_ByteArray_DelNode(t.h, "a", 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), (Strings{errline("Operation target expect key type 2, actually 1"),
                                                   errline("Operation target expect key type 3, actually 1"),
                                                   errline("Operation target expect key type 3, actually 1")}));
    // The null-key check looks at the table's type, whatever the form, and
    // comes before the type check.
    cap.clear();
    EXPECT_EQ(Ostrel_Table_String_GetNode(t.h, nullptr, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_String_DelNode(t.h, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_Pointer_AddNode(t.h, nullptr, nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), (Strings{errline("Error in __OSL_Table_GetNode, assert(NULL != pKey) failed."),
                                                   errline("Error in __OSL_Table_DelNode, assert(NULL != pKey) failed."),
                                                   errline("Error in __OSL_Table_AddNode, assert(NULL != pKey) failed.")}));

    // Emptying the table keeps the type.
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "a"), 0u);
    EXPECT_EQ(Ostrel_Table_Pointer_AddNode(t.h, &cap, nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(t.count(), 0u);
}

TEST(TableNodes, DuplicatesAndDistinctKeysOfEachForm) {
    Table s(8, NODE_STORAGE_COPY);
    LogCapture cap;
    ASSERT_EQ(Ostrel_Table_String_AddNode(s.h, "key", "v1", 2), 0u);
    EXPECT_EQ(Ostrel_Table_String_AddNode(s.h, "key", "v2", 2), OSL_ERR_DUPLICATE_KEY);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_DUPLICATE_KEY);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings{errline("Node with the same key existed.")});
    EXPECT_EQ(s.count(), 1u);
    ASSERT_EQ(Ostrel_Table_String_AddNode(s.h, "", "e", 1), 0u); // the empty string is a key
    EXPECT_EQ(Ostrel_Table_String_AddNode(s.h, "", "e", 1), OSL_ERR_DUPLICATE_KEY);

    Table b(1, NODE_STORAGE_COPY); // one bucket until it grows: keys share a chain
    const unsigned char k2[] = {0x61, 0x62}, k3[] = {0x61, 0x62, 0x63};
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(b.h, k2, 2, "two", 3), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(b.h, k3, 3, "three", 5), 0u);
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(b.h, nullptr, 0, "none", 4), 0u); // empty key
    EXPECT_EQ(Ostrel_Table_ByteArray_AddNode(b.h, k3, 0, "x", 1), OSL_ERR_DUPLICATE_KEY);
    void *v = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(Ostrel_Table_ByteArray_GetNode(b.h, k3, 3, &v, &len), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "three");
    ASSERT_EQ(Ostrel_Table_ByteArray_GetNode(b.h, k2, 2, &v, &len), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "two");
    ASSERT_EQ(Ostrel_Table_ByteArray_DelNode(b.h, k2, 2), 0u);
    EXPECT_EQ(Ostrel_Table_ByteArray_GetNode(b.h, k3, 3, nullptr, nullptr), 0u);
    EXPECT_EQ(Ostrel_Table_ByteArray_DelNode(b.h, k2, 2), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(b.count(), 2u);

    // Pointer keys: null is a key; keys equal in their low 32 bits stay
    // distinct for lookup although they sort as equal.
    Table p(2, NODE_STORAGE_REFERENCE);
    ASSERT_EQ(Ostrel_Table_SetProperty(p.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    auto *lo = reinterpret_cast<void *>(uintptr_t(0x10));
    void *hi = reinterpret_cast<void *>(sizeof(uintptr_t) > 4 ? (uintptr_t(1) << 32 | 0x10) : uintptr_t(0x11));
    int a = 1, c = 2, n = 3;
    ASSERT_EQ(Ostrel_Table_Pointer_AddNode(p.h, lo, &a, 4), 0u);
    ASSERT_EQ(Ostrel_Table_Pointer_AddNode(p.h, hi, &c, 4), 0u);
    ASSERT_EQ(Ostrel_Table_Pointer_AddNode(p.h, nullptr, &n, 4), 0u);
    EXPECT_EQ(Ostrel_Table_Pointer_AddNode(p.h, nullptr, &n, 4), OSL_ERR_DUPLICATE_KEY);
    ASSERT_EQ(Ostrel_Table_Pointer_GetNode(p.h, hi, &v, nullptr), 0u);
    EXPECT_EQ(v, &c); // reference mode hands back the caller's pointer
    ASSERT_EQ(Ostrel_Table_Pointer_GetNode(p.h, nullptr, &v, nullptr), 0u);
    EXPECT_EQ(v, &n);
    EXPECT_EQ(p.range(), 4u); // links and key order hold; 3 nodes on 2 buckets grew it
}

TEST(TableNodes, CopyModeOwnsItsBytesAndKeepsEmptyValuesAsGiven) {
    Table t(8, NODE_STORAGE_COPY);
    char buf[] = "value";
    char key[] = "k1";
    ASSERT_EQ(Ostrel_Table_String_AddNode(t.h, key, buf, 6), 0u);
    strcpy(buf, "VALUE");
    key[1] = '2'; // the key was copied as well
    void *v = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "k1", &v, &len), 0u);
    EXPECT_NE(v, static_cast<void *>(buf));
    EXPECT_STREQ(static_cast<char *>(v), "value");
    EXPECT_EQ(reinterpret_cast<uintptr_t>(v) % alignof(max_align_t), 0u);
    // A zero-length value is kept as the caller's pointer, even in copy mode.
    ASSERT_EQ(Ostrel_Table_String_AddNode(t.h, "k2", buf, 0), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "k2", &v, &len), 0u);
    EXPECT_EQ(v, static_cast<void *>(buf));
    EXPECT_EQ(len, 0u);
    ASSERT_EQ(Ostrel_Table_String_AddNode(t.h, "k3", nullptr, 7), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "k3", nullptr, &len), 0u);
    EXPECT_EQ(len, 7u);
    // Updating such a node with bytes gives it storage of its own.
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "k3", "abc", 3), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "k3", &v, &len), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "abc");
}

// Bucket order and sorted order as one string each, for "nothing moved" checks.
std::string places(OstrelTableHandle h) {
    std::string out;
    for (uint32_t mode : {TABLE_ITERATE_BUCKET, TABLE_ITERATE_FORWARD}) {
        for (const auto &k : string_walk(h, mode)) out += k + ",";
        out += "|";
    }
    return out;
}

TEST(TableUpdate, InPlaceWhenItFitsElseIntoANewBlockKeepingItsPlaces) {
    Table t(1, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u); // one chain for all
    add_strings(t.h, {"a", "b", "c"});
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "b", "0123456789", 10), 0u);
    const std::string before = places(t.h);
    void *first = nullptr, *v = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "b", &first, &len), 0u);

    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "b", "wxyz", 4), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "b", &v, &len), 0u);
    EXPECT_EQ(v, first); // same storage
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "wxyz");
    // Longer than the current length (4), though the storage once held 10.
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "b", "01234567", 8), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "b", &v, &len), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "01234567");
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "b", "abcdefghijklmnopqrst", 20), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "b", &v, &len), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "abcdefghijklmnopqrst");
    EXPECT_EQ(places(t.h), before);
    EXPECT_EQ(t.range(), 1u);
    // The chain's first node and the sorted head and tail move too.
    for (const char *k : {"a", "c"}) ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, k, "a longer value", 14), 0u);
    EXPECT_EQ(places(t.h), before);
    EXPECT_EQ(t.range(), 1u);

    // Bytes of the node's own value may be passed back in.
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "b", &v, &len), 0u);
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "b", static_cast<char *>(v) + 2, 5), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "b", &v, &len), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "cdefg");

    LogCapture cap;
    EXPECT_EQ(Ostrel_Table_String_UpdateNode(t.h, "zz", "x", 1), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings{errline("Node don't exist.")});

    Table r(4, NODE_STORAGE_REFERENCE);
    char v1[] = "one", v2[] = "longer two";
    ASSERT_EQ(Ostrel_Table_String_AddNode(r.h, "k", v1, 3), 0u);
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(r.h, "k", v2, 10), 0u);
    ASSERT_EQ(Ostrel_Table_String_GetNode(r.h, "k", &v, &len), 0u);
    EXPECT_EQ(v, static_cast<void *>(v2));
    EXPECT_EQ(len, 10u);
}

TEST(TableDelete, HeadsTailsAndChainHeadsUnlinkCleanly) {
    Table t(1, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u);
    add_strings(t.h, {"a", "b", "c", "d", "e"});
    // Chain (bucket order): a b c d e; sorted (newest first): e d c b a.
    EXPECT_EQ(places(t.h), "a,b,c,d,e,|e,d,c,b,a,|");
    LogCapture cap;
    EXPECT_EQ(Ostrel_Table_String_DelNode(t.h, "zz"), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NOT_FOUND);
    EXPECT_TRUE(cap.lines().empty());
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "a"), 0u); // chain head, sorted tail
    EXPECT_EQ(places(t.h), "b,c,d,e,|e,d,c,b,|");
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "e"), 0u); // chain tail, sorted head
    EXPECT_EQ(places(t.h), "b,c,d,|d,c,b,|");
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "c"), 0u); // middle of both
    EXPECT_EQ(places(t.h), "b,d,|d,b,|");
    EXPECT_EQ(t.range(), 1u);
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "b"), 0u);
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "d"), 0u);
    EXPECT_EQ(places(t.h), "||");
    EXPECT_EQ(t.count(), 0u);
    add_strings(t.h, {"x"});
    EXPECT_EQ(places(t.h), "x,|x,|");
}

} // namespace
