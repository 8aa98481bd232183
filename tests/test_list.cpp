// Linked list: random adds and deletes in both storage modes against a model,
// and every refusal, success line and failed allocation with its code, last
// error and log lines.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_list.h"

namespace {

// Adds and deletes anywhere, checked after every step against a vector: the
// count and node array, and each node with its data by index, by node and by
// an iteration, whose end keeps the other outputs untouched.
TEST(ListModel, AgreesWithAVectorUnderRandomAddsAndDeletes) {
    static const char pool[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (int mode : {NODE_STORAGE_REFERENCE, NODE_STORAGE_COPY}) {
        OstrelListHandle l = nullptr;
        ASSERT_EQ(Ostrel_List_Create(&l, mode), 0u);
        std::vector<std::pair<OstrelNodeHandle, int>> model; // node, offset of its value in the pool
        auto length = [mode](int at) { return mode == NODE_STORAGE_COPY ? 1 + at % 9 : at % 12 - 2; }; // references: any
        std::mt19937 rng(static_cast<unsigned>(mode));
        for (int op = 0; op < 1500; ++op) {
            const int at = static_cast<int>(rng() % 50);
            OstrelNodeHandle n = nullptr, by_index = nullptr, nodes[41] = {};
            if (model.empty() || (model.size() < 40 && rng() % 5 < 3)) {
                ASSERT_EQ(Ostrel_List_AddNode(l, pool + at, length(at), &n), 0u);
                model.emplace_back(n, at);
            } else {
                ASSERT_EQ(Ostrel_List_DelNode(model[static_cast<size_t>(at) % model.size()].first), 0u);
                model.erase(model.begin() + at % static_cast<int>(model.size()));
            }
            uint32_t count = 0, end = 0;
            ASSERT_TRUE(Ostrel_List_GetCount(l, nodes, &count) == 0 && count == model.size());
            OstrelIterHandle it = nullptr;
            ASSERT_EQ(Ostrel_List_BeginIterate(l, &it), 0u);
            for (size_t i = 0; i <= model.size() + 1; ++i) { // past the end twice
                const bool in = i < model.size();
                const char *value = pool + (in ? model[i].second : 0);
                void *data = nullptr, *by_index_data = nullptr, *by_node_data = nullptr;
                int32_t len = -99, by_index_len = -99, by_node_len = -99;
                ASSERT_EQ(Ostrel_List_IterateEx(it, &(n = nullptr), &data, &len, &end), 0u);
                ASSERT_EQ(Ostrel_List_GetNodeEx(l, static_cast<int32_t>(i), &by_index, &by_index_data, &by_index_len), in ? 0u : OSL_ERR_NOT_FOUND);
                ASSERT_TRUE(in ? !end && n == model[i].first && nodes[i] == n && by_index == n && by_index_data == data && by_index_len == len
                               : end && n == nullptr && data == nullptr && len == -99);
                ASSERT_TRUE(!in || (len == length(model[i].second) && (data == value) == (mode == NODE_STORAGE_REFERENCE) && // copy: own bytes
                                    memcmp(data, value, static_cast<size_t>(std::max(len, 0))) == 0));
                ASSERT_TRUE(!in || (Ostrel_List_GetNodeData(n, &by_node_data, &by_node_len) == 0 && by_node_data == data && by_node_len == len));
            }
            ASSERT_EQ(Ostrel_List_EndIterate(it), 0u);
        }
        ASSERT_EQ(Ostrel_List_Destroy(l), 0u); // the sanitizer build checks nothing leaks
    }
}

// The lines of a failed argument check or record allocation.
std::string E(const std::string &fn, const std::string &what, const char *code) {
    return "Error in Ostrel_List_" + fn + ", " + what + " failed.\n<===Exit Ostrel_List_" + fn + " with " + code + "\n";
}
std::string A(const std::string &fn, const std::string &cond) { return E(fn, "assert(" + cond + ")", "0x9000f"); }

// The rows run in order: they make the lists they use, and end them.
TEST(ListRefusals, CodesLastErrorsAndLogLines) {
    OstrelListHandle l = nullptr, r = nullptr, out = nullptr;
    OstrelNodeHandle node = nullptr;
    OstrelIterHandle it = nullptr, it2 = nullptr;
    void *data = nullptr;
    uint32_t n = 0;
    const uint32_t F = OSL_ERR_INVALID_PARAMETER, H = OSL_ERR_INVALID_HANDLE, NF = OSL_ERR_NOT_FOUND, NM = OSL_ERR_NO_MEMORY;
    const std::string list_h = "Invalid list_handle\n", data_h = "Invalid data_handle\n", itr_h = "Invalid itr_handle\n",
                      add_l = "Add list node in copy mode, handle:L\n", destroy = "Destroy list, handle: (nil)\n";
    const std::vector<Row> rows = {
        ROW(Ostrel_List_Create(&l, NODE_STORAGE_COPY), 0, 0, "Create list in copy mode, handle:L\n"),
        ROW(Ostrel_List_Create(&r, NODE_STORAGE_REFERENCE), 0, 0, "Create list in reference mode, handle:R\n"),
        // An add names the list, not the node; references take any length.
        ROW(std::max({Ostrel_List_AddNode(l, "A", 1, nullptr), Ostrel_List_AddNode(l, "B", 1, &node)}), 0, 0, add_l + add_l),
        ROW(Ostrel_List_AddNode(r, "x", 0, nullptr), 0, 0, "Add list node in reference mode, handle:R\n"),
        ROW(Ostrel_List_BeginIterate(l, &it), 0, 0, ""),
        ROW(Ostrel_List_Create(&out, 2), F, 77, A("Create", "((NODE_STORAGE_REFERENCE == iStoreFlag) || (NODE_STORAGE_COPY == iStoreFlag))")),
        ROW(Ostrel_List_Create(nullptr, 0), F, 77, A("Create", "NULL != phList")),
        ROW(Ostrel_List_AddNode(l, nullptr, 1, nullptr), F, 0, A("AddNode", "NULL != pValue")),
        ROW(Ostrel_List_AddNode(l, "x", 0, nullptr), F, 0, A("AddNode", "((NODE_STORAGE_COPY != pList->iStoreMode) || (iLength > 0))")),
        ROW(Ostrel_List_AddNode(node, "y", 1, nullptr), H, H, "Invalid list handle\n"), // a blank, no underscore
        ROW(Ostrel_List_GetCount(l, nullptr, nullptr), F, 0, A("GetCount", "NULL != piCount")),
        ROW(Ostrel_List_GetNodeData(l, nullptr, nullptr), H, H, data_h),
        ROW(Ostrel_List_DelNode(l), H, H, data_h),
        ROW(Ostrel_List_GetNode(l, -1, nullptr, nullptr), F, 0, A("GetNode", "iIndex >= 0")),
        ROW(Ostrel_List_GetNodeEx(l, -1, nullptr, nullptr, nullptr), F, 0, A("GetNodeEx", "iIndex >= 0")),
        ROW(Ostrel_List_GetNode(l, 2, nullptr, nullptr), NF, NF, "Parameter num(2) > list node count(2)\n"),
        ROW(Ostrel_List_GetNodeEx(r, 1, nullptr, nullptr, nullptr), NF, NF, "Parameter num(1) > list node count(1)\n"),
        ROW(Ostrel_List_Destroy(nullptr), H, H, list_h),
        ROW(Ostrel_List_BeginIterate(l, nullptr), F, 0, A("BeginIterate", "NULL != phItr")),
        // The flag is checked before the value; the last error is not touched.
        ROW(Ostrel_List_Iterate(it, nullptr, nullptr, nullptr), F, 77, A("Iterate", "NULL != piFlag")),
        ROW(Ostrel_List_Iterate(it, nullptr, nullptr, &n), F, 77, A("Iterate", "NULL != ppValue")),
        ROW(Ostrel_List_Iterate(l, &data, nullptr, &n), H, H, itr_h),
        ROW(Ostrel_List_EndIterate(l), H, H, itr_h),
        // Record allocations are not stored as the last error; a failed copy is.
        FAIL_ROW(0, Ostrel_List_Create(&out, NODE_STORAGE_COPY), NM, 77, E("Create", "alloc(32)", "0x90006")),
        FAIL_ROW(0, Ostrel_List_AddNode(l, "abc", 3, nullptr), NM, 0, E("AddNode", "alloc(40)", "0x90006")),
        FAIL_ROW(1, Ostrel_List_AddNode(l, "12345", 5, nullptr), NM, NM, "Alloc memory (size=5) failed.\n"),
        FAIL_ROW(0, Ostrel_List_BeginIterate(l, &it2), NM, 0, E("BeginIterate", "alloc(24)", "0x90006")),
        ROW(Ostrel_List_GetCount(l, nullptr, &n), 0, 0, "Get list count: 2, handle:L\n"), // nothing half-added
        ROW(Ostrel_List_EndIterate(it), 0, 0, ""),
        ROW(Ostrel_List_Destroy(l), 0, 0, destroy), // names no handle
        ROW(Ostrel_List_Destroy(r), 0, 0, destroy),
    };
    run_rows(rows, "src/list", [&](std::string &lines) { // the list pointers named
        for (auto name : {std::make_pair(l, "L"), std::make_pair(r, "R")}) {
            char p[32];
            snprintf(p, sizeof p, "%p", name.first);
            for (size_t at = lines.find(p); name.first && at != std::string::npos; at = lines.find(p, at))
                lines.replace(at, strlen(p), name.second);
        }
    });
}

} // namespace
