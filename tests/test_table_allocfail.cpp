// Allocation in the table: one heap block per node, and failed allocations
// reported with their own lines while the table stays as it was. The
// allocator is interposed here, so this suite runs only in builds without a
// sanitizer runtime.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_table.h"

const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);


namespace {

using alloc_failure::allocation_count;
using alloc_failure::fail_allocation_number;

// The error lines of a call, with the sizes in "alloc(N)" and "size=N" blanked.
std::vector<std::string> errors(LogCapture &cap) {
    std::vector<std::string> out;
    for (std::string l : cap.texts(LOG_LEVEL_ERROR)) {
        for (const char *tag : {"alloc(", "size="}) {
            size_t at = l.find(tag);
            if (at != std::string::npos) l.erase(at + strlen(tag), l.find_first_not_of("0123456789", at + strlen(tag)) - at - strlen(tag));
        }
        out.push_back(l);
    }
    cap.clear();
    return out;
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
        ASSERT_EQ(Ostrel_Table_Create(&h, TABLE_RANGE_MAX, mode), 0u); // no growth below
        char key[32];
        long before = allocation_count();
        for (int i = 0; i < 1000; ++i) {
            snprintf(key, sizeof key, "key-%d", i);
            ASSERT_EQ(Ostrel_Table_String_AddNode(h, key, "value bytes", 11), 0u);
        }
        EXPECT_EQ(allocation_count() - before, 1000);
        before = allocation_count();
        ASSERT_EQ(Ostrel_Table_String_UpdateNode(h, "key-1", "short", 5), 0u);
        EXPECT_EQ(allocation_count() - before, 0);
        ASSERT_EQ(Ostrel_Table_String_UpdateNode(h, "key-1", "a much longer value", 19), 0u);
        EXPECT_EQ(allocation_count() - before, mode == NODE_STORAGE_COPY ? 1 : 0);
        ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
    }
}

TEST_F(TableAlloc, FailuresAreReportedAndChangeNothing) {
    LogCapture cap;
    OstrelTableHandle h = nullptr;
    g_OSL_errno = 77;
    fail_allocation_number(0); // the table record: reported, not stored
    EXPECT_EQ(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, 77u);
    EXPECT_EQ(errors(cap), std::vector<std::string>{"src/table|Error in Ostrel_Table_Create, alloc() failed."});
    fail_allocation_number(1); // the bucket array: no line
    EXPECT_EQ(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(errors(cap).empty());

    ASSERT_EQ(Ostrel_Table_Create(&h, 4, NODE_STORAGE_COPY), 0u);
    fail_allocation_number(0); // the first node: the key type stays open
    EXPECT_EQ(Ostrel_Table_String_AddNode(h, "a", "old", 3), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(errors(cap), (std::vector<std::string>{"src/table|Alloc memory (size=) failed.",
                                                     "src/table|Create table node failed."}));
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(h, "a", 1, "old", 3), 0u);
    for (const char *k : {"b", "c"}) ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(h, k, 1, "old", 3), 0u);
    fail_allocation_number(1); // the fourth node's refresh: the add ignores it
    EXPECT_EQ(Ostrel_Table_ByteArray_AddNode(h, "d", 1, "old", 3), 0u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, "src/table", "<===Exit __OSL_Table_RefreshTable with 0x90006"));
    EXPECT_EQ(errors(cap), std::vector<std::string>{"src/table|Error in __OSL_Table_RefreshTable, alloc() failed."});
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_SetProperty(h, TABLE_PROP_RANGE, 64), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(errors(cap), (std::vector<std::string>{"src/table|Error in __OSL_Table_RefreshTable, alloc() failed.",
                                                     "src/table|Refresh table failed."}));
    EXPECT_EQ(range_of(h), 4u);
    fail_allocation_number(0); // a replacement block
    EXPECT_EQ(Ostrel_Table_ByteArray_UpdateNode(h, "a", 1, "much longer", 11), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(errors(cap), (std::vector<std::string>{"src/table|Alloc memory (size=) failed.",
                                                     "src/table|Create new table node failed.",
                                                     "src/table|Update table node value failed."}));

    OstrelTableIterHandle it = nullptr;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_Table_BeginIterate(h, &it, TABLE_ITERATE_BACKWARD), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(errors(cap), std::vector<std::string>{"src/table|Error in Ostrel_Table_BeginIterate, alloc() failed."});
    ASSERT_EQ(Ostrel_Table_BeginIterate(h, &it, TABLE_ITERATE_BACKWARD), 0u); // a b c d
    const void *k = nullptr;
    ASSERT_EQ(Ostrel_Table_ByteArray_Iterate(it, &k, nullptr, nullptr, nullptr), 0u);
    ASSERT_EQ(Ostrel_Table_IterateDel(it), 0u);
    fail_allocation_number(0); // the update's buffer: the earlier mark stays
    EXPECT_EQ(Ostrel_Table_IterateUpdate(it, "abcde", 5), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(errors(cap), std::vector<std::string>{"src/table|Error in Ostrel_Table_IterateUpdate, alloc() failed."});
    ASSERT_EQ(Ostrel_Table_ByteArray_Iterate(it, &k, nullptr, nullptr, nullptr), 0u); // deletes a
    for (int at_end = 0; at_end < 2; ++at_end) { // b at the next step, c at the end
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it, "longer value", 12), 0u);
        fail_allocation_number(0);
        EXPECT_EQ(at_end ? Ostrel_Table_EndIterate(it) : Ostrel_Table_ByteArray_Iterate(it, &k, nullptr, nullptr, nullptr), 0u);
        EXPECT_EQ(errors(cap), (std::vector<std::string>{"src/table|Alloc memory (size=) failed.",
                                                         "src/table|Create new table node failed.",
                                                         "src/table|Update table node value failed.",
                                                         "src/table|Process iterate action failed."}));
    }
    uint32_t n = 0, len = 0;
    ASSERT_EQ(Ostrel_Table_GetCount(h, &n), 0u);
    EXPECT_EQ(n, 3u);
    for (const char *key : {"b", "c", "d"}) {
        ASSERT_EQ(Ostrel_Table_ByteArray_GetNode(h, key, 1, nullptr, &len), 0u);
        EXPECT_EQ(len, 3u) << key; // old values kept
    }
    ASSERT_EQ(Ostrel_Table_ByteArray_AddNode(h, "e", 1, nullptr, 0), 0u); // the iterator is closed
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}

} // namespace
