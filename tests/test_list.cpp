// Linked list: modes, indexing, iteration, deletion, handle and argument
// checks with their log lines and last-error rules.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_util.h"
#include "ostrel_error.h"
#include "ostrel_list.h"

namespace {

constexpr const char *kPath = "src/list";

struct List {
    OstrelListHandle h = nullptr;
    explicit List(int mode) { EXPECT_EQ(Ostrel_List_Create(&h, mode), 0u); }
    ~List() {
        if (h) {
            EXPECT_EQ(Ostrel_List_Destroy(h), 0u);
        }
    }
};

std::vector<std::string> walk(OstrelListHandle h) {
    std::vector<std::string> out;
    OstrelIterHandle it = nullptr;
    EXPECT_EQ(Ostrel_List_BeginIterate(h, &it), 0u);
    uint32_t end = 0;
    void *data = nullptr;
    int32_t len = 0;
    while (Ostrel_List_Iterate(it, &data, &len, &end) == 0 && !end)
        out.emplace_back(static_cast<const char *>(data), static_cast<size_t>(len));
    EXPECT_EQ(Ostrel_List_EndIterate(it), 0u);
    return out;
}

void add(OstrelListHandle h, const char *s, OstrelNodeHandle *node = nullptr) {
    ASSERT_EQ(Ostrel_List_AddNode(h, s, static_cast<int32_t>(strlen(s)), node), 0u);
}

TEST(ListCreate, LogsModeAndRejectsBadArguments) {
    LogCapture cap;
    OstrelListHandle h = nullptr;
    ASSERT_EQ(Ostrel_List_Create(&h, NODE_STORAGE_COPY), 0u);
    char expect[64];
    snprintf(expect, sizeof expect, "Create list in copy mode, handle:%p", h);
    EXPECT_TRUE(cap.has(LOG_LEVEL_INFO, kPath, expect));
    ASSERT_EQ(Ostrel_List_Destroy(h), 0u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_INFO, kPath, "Destroy list, handle: (nil)"));

    cap.clear();
    EXPECT_EQ(Ostrel_List_Create(&h, 2), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_List_Create(&h, -1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_List_Create(nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{
                  "src/list|Error in Ostrel_List_Create, assert(((NODE_STORAGE_REFERENCE == iStoreFlag) || "
                  "(NODE_STORAGE_COPY == iStoreFlag))) failed.",
                  "src/list|Error in Ostrel_List_Create, assert(((NODE_STORAGE_REFERENCE == iStoreFlag) || "
                  "(NODE_STORAGE_COPY == iStoreFlag))) failed.",
                  "src/list|Error in Ostrel_List_Create, assert(NULL != phList) failed."}));
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE).size(), 3u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<===Exit Ostrel_List_Create with 0x9000f"));
}

TEST(ListModes, CopyModeKeepsItsOwnBytes) {
    List l(NODE_STORAGE_COPY);
    char buf[] = "hello";
    OstrelNodeHandle node = nullptr;
    ASSERT_EQ(Ostrel_List_AddNode(l.h, buf, 6, &node), 0u);
    strcpy(buf, "HELLO");
    void *data = nullptr;
    int32_t len = 0;
    ASSERT_EQ(Ostrel_List_GetNodeData(node, &data, &len), 0u);
    EXPECT_NE(data, static_cast<void *>(buf));
    EXPECT_STREQ(static_cast<char *>(data), "hello");
    EXPECT_EQ(len, 6);
    // Copy mode needs at least one byte.
    EXPECT_EQ(Ostrel_List_AddNode(l.h, buf, 0, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_List_AddNode(l.h, buf, -3, nullptr), OSL_ERR_INVALID_PARAMETER);
}

TEST(ListModes, ReferenceModeKeepsThePointerAndAnyLength) {
    List l(NODE_STORAGE_REFERENCE);
    LogCapture cap;
    char buf[] = "abc";
    OstrelNodeHandle n0 = nullptr, n1 = nullptr;
    ASSERT_EQ(Ostrel_List_AddNode(l.h, buf, 0, &n0), 0u);
    ASSERT_EQ(Ostrel_List_AddNode(l.h, buf, -7, &n1), 0u);
    char expect[64];
    snprintf(expect, sizeof expect, "Add list node in reference mode, handle:%p", l.h);
    EXPECT_TRUE(cap.has(LOG_LEVEL_INFO, kPath, expect)); // the list handle, not the node
    void *data = nullptr;
    int32_t len = 99;
    ASSERT_EQ(Ostrel_List_GetNodeData(n0, &data, &len), 0u);
    EXPECT_EQ(data, static_cast<void *>(buf));
    EXPECT_EQ(len, 0);
    ASSERT_EQ(Ostrel_List_GetNodeData(n1, nullptr, &len), 0u);
    EXPECT_EQ(len, -7);
    EXPECT_EQ(Ostrel_List_AddNode(l.h, nullptr, 1, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in Ostrel_List_AddNode, assert(NULL != pValue) failed."));
}

TEST(ListIndex, GetNodeAndCountAgreeWithInsertionOrder) {
    List l(NODE_STORAGE_COPY);
    uint32_t count = 99;
    ASSERT_EQ(Ostrel_List_GetCount(l.h, nullptr, &count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(Ostrel_List_GetNode(l.h, 0, nullptr, nullptr), OSL_ERR_NOT_FOUND);

    OstrelNodeHandle nodes[3];
    add(l.h, "A", &nodes[0]);
    add(l.h, "B", &nodes[1]);
    add(l.h, "C", &nodes[2]);
    OstrelNodeHandle all[3] = {};
    ASSERT_EQ(Ostrel_List_GetCount(l.h, all, &count), 0u);
    EXPECT_EQ(count, 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(all[i], nodes[i]);

    void *data = nullptr;
    int32_t len = 0;
    OstrelNodeHandle node = nullptr;
    ASSERT_EQ(Ostrel_List_GetNodeEx(l.h, 1, &node, &data, &len), 0u);
    EXPECT_EQ(node, nodes[1]);
    EXPECT_EQ(std::string(static_cast<char *>(data), static_cast<size_t>(len)), "B");
    ASSERT_EQ(Ostrel_List_GetNode(l.h, 2, &data, nullptr), 0u);
    EXPECT_EQ(*static_cast<char *>(data), 'C');

    LogCapture cap;
    EXPECT_EQ(Ostrel_List_GetNode(l.h, 3, &data, &len), OSL_ERR_NOT_FOUND);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NOT_FOUND);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Parameter num(3) > list node count(3)"));
    EXPECT_EQ(Ostrel_List_GetNodeEx(l.h, -1, &node, &data, &len), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), 0u); // failed argument checks leave the cleared last error
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in Ostrel_List_GetNodeEx, assert(iIndex >= 0) failed."));
}

TEST(ListIterate, WalksInOrderAndStaysAtTheEnd) {
    List l(NODE_STORAGE_COPY);
    add(l.h, "A");
    add(l.h, "B");
    add(l.h, "C");
    EXPECT_EQ(walk(l.h), (std::vector<std::string>{"A", "B", "C"}));

    OstrelIterHandle it = nullptr;
    ASSERT_EQ(Ostrel_List_BeginIterate(l.h, &it), 0u);
    OstrelNodeHandle node = nullptr, second = nullptr;
    void *data = nullptr;
    uint32_t end = 7;
    ASSERT_EQ(Ostrel_List_GetNodeEx(l.h, 1, &second, nullptr, nullptr), 0u);
    ASSERT_EQ(Ostrel_List_IterateEx(it, &node, &data, nullptr, &end), 0u);
    ASSERT_EQ(Ostrel_List_IterateEx(it, &node, &data, nullptr, &end), 0u);
    EXPECT_EQ(end, 0u);
    EXPECT_EQ(node, second);
    ASSERT_EQ(Ostrel_List_Iterate(it, &data, nullptr, &end), 0u);
    for (int i = 0; i < 3; ++i) {
        void *untouched = reinterpret_cast<void *>(0x1234);
        ASSERT_EQ(Ostrel_List_IterateEx(it, &node, &untouched, nullptr, &end), 0u);
        EXPECT_EQ(end, 1u);
        EXPECT_EQ(untouched, reinterpret_cast<void *>(0x1234));
        EXPECT_EQ(node, second);
    }
    ASSERT_EQ(Ostrel_List_EndIterate(it), 0u);

    List empty(NODE_STORAGE_REFERENCE);
    EXPECT_TRUE(walk(empty.h).empty());
}

TEST(ListIterate, ChecksFlagBeforeValueAndLogsBadIterators) {
    List l(NODE_STORAGE_REFERENCE);
    OstrelIterHandle it = nullptr;
    ASSERT_EQ(Ostrel_List_BeginIterate(l.h, &it), 0u);
    LogCapture cap;
    void *data = nullptr;
    uint32_t end = 0;
    EXPECT_EQ(Ostrel_List_Iterate(it, nullptr, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_List_Iterate(it, nullptr, nullptr, &end), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{"src/list|Error in Ostrel_List_Iterate, assert(NULL != piFlag) failed.",
                                        "src/list|Error in Ostrel_List_Iterate, assert(NULL != ppValue) failed."}));
    cap.clear();
    EXPECT_EQ(Ostrel_List_Iterate(l.h, &data, nullptr, &end), OSL_ERR_INVALID_HANDLE); // a list is no iterator
    EXPECT_EQ(Ostrel_List_EndIterate(nullptr), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{"src/list|Invalid itr_handle", "src/list|Invalid itr_handle"}));
    ASSERT_EQ(Ostrel_List_EndIterate(it), 0u);
}

TEST(ListDelete, UnlinksAnyNodeAndKeepsTheRestInOrder) {
    List l(NODE_STORAGE_COPY);
    OstrelNodeHandle a, b, c, d;
    add(l.h, "A", &a);
    add(l.h, "B", &b);
    add(l.h, "C", &c);
    add(l.h, "D", &d);
    ASSERT_EQ(Ostrel_List_DelNode(b), 0u);
    EXPECT_EQ(walk(l.h), (std::vector<std::string>{"A", "C", "D"}));
    ASSERT_EQ(Ostrel_List_DelNode(a), 0u);
    ASSERT_EQ(Ostrel_List_DelNode(d), 0u);
    EXPECT_EQ(walk(l.h), (std::vector<std::string>{"C"}));
    ASSERT_EQ(Ostrel_List_DelNode(c), 0u);
    EXPECT_TRUE(walk(l.h).empty());
    add(l.h, "E"); // an emptied list takes nodes again
    EXPECT_EQ(walk(l.h), (std::vector<std::string>{"E"}));
}

TEST(ListHandles, WrongKindsAreRejectedWithTheirMessages) {
    List l(NODE_STORAGE_REFERENCE);
    OstrelNodeHandle node = nullptr;
    add(l.h, "x", &node);
    LogCapture cap;
    uint32_t count = 0;
    EXPECT_EQ(Ostrel_List_GetNodeData(l.h, nullptr, nullptr), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_List_DelNode(l.h), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_List_AddNode(node, "y", 1, nullptr), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_List_GetCount(node, nullptr, &count), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_List_Destroy(nullptr), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{"src/list|Invalid data_handle", "src/list|Invalid data_handle",
                                        "src/list|Invalid list handle", "src/list|Invalid list_handle",
                                        "src/list|Invalid list_handle"}));
    EXPECT_TRUE(cap.texts(LOG_LEVEL_TRACE).empty()); // handle failures have no exit trace
}

TEST(ListHandles, ArgumentFailureReturnsCodeButLeavesLastErrorCleared) {
    List l(NODE_STORAGE_REFERENCE);
    EXPECT_EQ(Ostrel_List_GetNode(nullptr, 0, nullptr, nullptr), OSL_ERR_INVALID_HANDLE);
    ASSERT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_List_GetCount(l.h, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    EXPECT_EQ(Ostrel_List_BeginIterate(l.h, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
}

TEST(ListDestroy, FreesCopiesAndReportsCount) {
    LogCapture cap;
    OstrelListHandle h = nullptr;
    ASSERT_EQ(Ostrel_List_Create(&h, NODE_STORAGE_COPY), 0u);
    for (int i = 0; i < 100; ++i) {
        std::string s = "value-" + std::to_string(i);
        ASSERT_EQ(Ostrel_List_AddNode(h, s.data(), static_cast<int32_t>(s.size()), nullptr), 0u);
    }
    uint32_t count = 0;
    ASSERT_EQ(Ostrel_List_GetCount(h, nullptr, &count), 0u);
    char expect[64];
    snprintf(expect, sizeof expect, "Get list count: 100, handle:%p", h);
    EXPECT_TRUE(cap.has(LOG_LEVEL_INFO, kPath, expect));
    EXPECT_EQ(Ostrel_List_Destroy(h), 0u); // the sanitizer build checks nothing leaks
    EXPECT_TRUE(cap.texts(LOG_LEVEL_WARN).empty());
}

} // namespace
