// Allocation failures in the list: a failed record allocation is logged,
// traced and returned without touching the last error; a failed copy of the
// caller's bytes is logged and stored. The allocator is interposed here, so
// this suite runs only in builds without a sanitizer runtime.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_list.h"


namespace {

using alloc_failure::fail_allocation_number;

class ListAllocFailure : public ::testing::Test {
protected:
    void SetUp() override {
        if (!OSTREL_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    }
};

TEST_F(ListAllocFailure, RecordAllocationIsReportedButNotStored) {
    LogCapture cap;
    OstrelListHandle list = nullptr;
    g_OSL_errno = 0x12345;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_List_Create(&list, NODE_STORAGE_COPY), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, 0x12345u);
    EXPECT_EQ(list, nullptr);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, "src/list", "Error in Ostrel_List_Create, alloc(32) failed."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, "src/list", "<===Exit Ostrel_List_Create with 0x90006"));

    ASSERT_EQ(Ostrel_List_Create(&list, NODE_STORAGE_COPY), 0u);
    cap.clear();
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_List_AddNode(list, "abc", 3, nullptr), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(g_OSL_errno, 0u); // cleared by the handle check, failure not stored
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, "src/list", "Error in Ostrel_List_AddNode, alloc(40) failed."));

    OstrelIterHandle it = nullptr;
    fail_allocation_number(0);
    EXPECT_EQ(Ostrel_List_BeginIterate(list, &it), OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, "src/list", "Error in Ostrel_List_BeginIterate, alloc(24) failed."));

    uint32_t count = 99;
    ASSERT_EQ(Ostrel_List_GetCount(list, nullptr, &count), 0u);
    EXPECT_EQ(count, 0u); // nothing half-added
    ASSERT_EQ(Ostrel_List_Destroy(list), 0u);
}

TEST_F(ListAllocFailure, CopyOfTheCallersBytesIsReportedAndStored) {
    OstrelListHandle list = nullptr;
    ASSERT_EQ(Ostrel_List_Create(&list, NODE_STORAGE_COPY), 0u);
    ASSERT_EQ(Ostrel_List_AddNode(list, "keep", 4, nullptr), 0u);
    LogCapture cap;
    fail_allocation_number(1); // the node record succeeds, the copy fails
    EXPECT_EQ(Ostrel_List_AddNode(list, "12345", 5, nullptr), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, "src/list", "Alloc memory (size=5) failed."));
    EXPECT_TRUE(cap.texts(LOG_LEVEL_TRACE).empty()); // no exit trace on this path
    uint32_t count = 0;
    ASSERT_EQ(Ostrel_List_GetCount(list, nullptr, &count), 0u);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(Ostrel_List_Destroy(list), 0u);
}

} // namespace
