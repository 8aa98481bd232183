// Allocation in the table: one heap block per node, and every failed
// allocation reported with its own lines while the table stays as it was.
// The allocator is interposed here, so this suite runs only in builds
// without a sanitizer runtime.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "log_capture.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_table.h"

const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OSTREL_ALLOC_INTERPOSED 0
#else
#define OSTREL_ALLOC_INTERPOSED 1

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);

namespace {
int g_allocs_before_failure = -1; // negative: never fail
long g_alloc_count = 0;

bool fail_now() {
    ++g_alloc_count;
    if (g_allocs_before_failure < 0) return false;
    return g_allocs_before_failure-- == 0;
}
} // namespace

extern "C" void *malloc(size_t n) { return fail_now() ? nullptr : __libc_malloc(n); }
extern "C" void *calloc(size_t a, size_t b) { return fail_now() ? nullptr : __libc_calloc(a, b); }
#endif

namespace {

#if OSTREL_ALLOC_INTERPOSED
// The n-th allocation from now (0: the next one) fails.
void fail_allocation_number(int n) { g_allocs_before_failure = n; }
long allocations() { return g_alloc_count; }
#else
void fail_allocation_number(int) {}
long allocations() { return 0; }
#endif

constexpr const char *kPath = "src/table";

bool has_prefix(LogCapture &cap, int level, const std::string &prefix, const std::string &suffix) {
    for (const auto &l : cap.lines())
        if (l.level == level && l.path == kPath && l.text.rfind(prefix, 0) == 0 && l.text.size() > prefix.size() + suffix.size() &&
            l.text.compare(l.text.size() - suffix.size(), suffix.size(), suffix) == 0)
            return true;
    return false;
}

uint32_t range_of(OstrelTableHandle h) {
    uint32_t r = 0;
    EXPECT_STREQ(__OSL_Table_Verify(h, &r, nullptr), nullptr);
    return r;
}

class TableAlloc : public ::testing::Test {
protected:
    void SetUp() override {
        if (!OSTREL_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    }
    void TearDown() override { fail_allocation_number(-1); }
};

TEST_F(TableAlloc, OneHeapBlockPerNodeWithKeyAndValueInside) {
    for (int mode : {NODE_STORAGE_REFERENCE, NODE_STORAGE_COPY}) {
        OstrelTableHandle h = nullptr;
        ASSERT_EQ(Ostrel_Table_Create(&h, TABLE_RANGE_MAX, mode), 0u);
        char key[32];
        long before = allocations();
        for (int i = 0; i < 1000; ++i) {
            snprintf(key, sizeof key, "key-%d", i);
            ASSERT_EQ(Ostrel_Table_String_AddNode(h, key, "value bytes", 11), 0u);
        }
        EXPECT_EQ(allocations() - before, 1000); // no refresh under the cap here
        // Updates that fit stay in the block; a longer one makes one new block.
        before = allocations();
        ASSERT_EQ(Ostrel_Table_String_UpdateNode(h, "key-1", "short", 5), 0u);
        EXPECT_EQ(allocations() - before, 0);
        ASSERT_EQ(Ostrel_Table_String_UpdateNode(h, "key-1", "a much longer value", 19), 0u);
        EXPECT_EQ(allocations() - before, mode == NODE_STORAGE_COPY ? 1 : 0);
        ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
    }
}

TEST_F(TableAlloc, CreateFailsCleanly) {
    LogCapture cap;
    OstrelTableHandle h = nullptr;
    g_OSL_errno = 0x12345;
    fail_allocation_number(0); // the record
    EXPECT_EQ(Ostrel_Table_Create(&h, 16, NODE_STORAGE_COPY), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, 0x12345u); // a failed record allocation is not stored
    EXPECT_TRUE(has_prefix(cap, LOG_LEVEL_ERROR, "Error in Ostrel_Table_Create, alloc(", ") failed."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<===Exit Ostrel_Table_Create with 0x90006"));
    cap.clear();
    fail_allocation_number(1); // the bucket array
    EXPECT_EQ(Ostrel_Table_Create(&h, 16, NODE_STORAGE_COPY), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(cap.lines().empty());
    EXPECT_EQ(h, nullptr);
}

TEST_F(TableAlloc, FailedAddLeavesTheTableAsItWas) {
    OstrelTableHandle h = nullptr;
    ASSERT_EQ(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), 0u);
    LogCapture cap;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_String_AddNode(h, "abc", "v", 1), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(has_prefix(cap, LOG_LEVEL_ERROR, "Alloc memory (size=", ") failed."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Create table node failed."));
    uint32_t n = 9;
    ASSERT_EQ(Ostrel_Table_GetCount(h, &n), 0u);
    EXPECT_EQ(n, 0u);
    // The failed first add did not fix the key type.
    ASSERT_EQ(Ostrel_Table_Pointer_AddNode(h, &n, nullptr, 0), 0u);
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}

TEST_F(TableAlloc, FailedRefreshKeepsRangeAndNodes) {
    OstrelTableHandle h = nullptr;
    ASSERT_EQ(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), 0u);
    for (const char *k : {"a", "b", "c"}) ASSERT_EQ(Ostrel_Table_String_AddNode(h, k, k, 1), 0u);
    LogCapture cap;
    fail_allocation_number(1); // the node succeeds, the grown bucket array fails
    EXPECT_EQ(Ostrel_Table_String_AddNode(h, "d", "d", 1), 0u); // the add ignores its refresh
    EXPECT_EQ(range_of(h), 4u);
    EXPECT_TRUE(has_prefix(cap, LOG_LEVEL_ERROR, "Error in __OSL_Table_RefreshTable, alloc(", ") failed."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<===Exit __OSL_Table_RefreshTable with 0x90006"));
    cap.clear();
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_SetProperty(h, TABLE_PROP_RANGE, 64), OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Refresh table failed."));
    EXPECT_EQ(range_of(h), 4u);
    // The next add grows it.
    ASSERT_EQ(Ostrel_Table_String_AddNode(h, "e", "e", 1), 0u);
    EXPECT_EQ(range_of(h), 8u);
    for (const char *k : {"a", "b", "c", "d", "e"}) EXPECT_EQ(Ostrel_Table_String_GetNode(h, k, nullptr, nullptr), 0u);
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}

TEST_F(TableAlloc, FailedReplacementKeepsTheOldValue) {
    OstrelTableHandle h = nullptr;
    ASSERT_EQ(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), 0u);
    ASSERT_EQ(Ostrel_Table_String_AddNode(h, "k", "old", 3), 0u);
    LogCapture cap;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_String_UpdateNode(h, "k", "much longer", 11), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Create new table node failed."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Update table node value failed."));
    void *v = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(Ostrel_Table_String_GetNode(h, "k", &v, &len), 0u);
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "old");
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}

TEST_F(TableAlloc, IteratorAllocationsAndFailedPendingUpdates) {
    OstrelTableHandle h = nullptr;
    ASSERT_EQ(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), 0u);
    for (const char *k : {"a", "b", "c"}) ASSERT_EQ(Ostrel_Table_String_AddNode(h, k, "12", 2), 0u);
    LogCapture cap;
    OstrelTableIterHandle it = nullptr;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_BeginIterate(h, &it, TABLE_ITERATE_BACKWARD), OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(has_prefix(cap, LOG_LEVEL_ERROR, "Error in Ostrel_Table_BeginIterate, alloc(", ") failed."));
    ASSERT_EQ(Ostrel_Table_String_AddNode(h, "d", "12", 2), 0u); // not counted as open

    ASSERT_EQ(Ostrel_Table_BeginIterate(h, &it, TABLE_ITERATE_BACKWARD), 0u); // a b c d
    const char *k = nullptr;
    ASSERT_EQ(Ostrel_Table_String_Iterate(it, &k, nullptr, nullptr), 0u);
    ASSERT_STREQ(k, "a");
    // A failed buffer keeps the earlier mark: a is still deleted.
    ASSERT_EQ(Ostrel_Table_IterateDel(it), 0u);
    cap.clear();
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_IterateUpdate(it, "abcde", 5), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              std::vector<std::string>{std::string(kPath) + "|Error in Ostrel_Table_IterateUpdate, alloc(5) failed."});
    ASSERT_EQ(Ostrel_Table_String_Iterate(it, &k, nullptr, nullptr), 0u);
    ASSERT_STREQ(k, "b");
    EXPECT_EQ(Ostrel_Table_String_GetNode(h, "a", nullptr, nullptr), OSL_ERR_NOT_FOUND);
    // A pending update whose new block cannot be made: logged, the walk goes on.
    ASSERT_EQ(Ostrel_Table_IterateUpdate(it, "longer value", 12), 0u);
    cap.clear();
    fail_allocation_number(0);
    ASSERT_EQ(Ostrel_Table_String_Iterate(it, &k, nullptr, nullptr), 0u);
    ASSERT_STREQ(k, "c");
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Update table node value failed."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Process iterate action failed."));
    // The same at the end.
    ASSERT_EQ(Ostrel_Table_IterateUpdate(it, "longer value", 12), 0u);
    cap.clear();
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_EndIterate(it), 0u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Process iterate action failed."));
    void *v = nullptr;
    uint32_t len = 0;
    for (const char *key : {"b", "c"}) {
        ASSERT_EQ(Ostrel_Table_String_GetNode(h, key, &v, &len), 0u);
        EXPECT_EQ(std::string(static_cast<char *>(v), len), "12") << key;
    }
    ASSERT_EQ(Ostrel_Table_String_AddNode(h, "e", "12", 2), 0u); // closed
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}

} // namespace
