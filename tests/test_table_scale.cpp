// Tables whose chains outgrow a few nodes, where lookups go through the
// private index: model runs past the bucket cap and down again through a
// walk that deletes, and index allocations that fail without changing any
// result.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <unordered_map>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "test_util.h"
#include "ostrel_error.h"
#include "ostrel_table.h"

const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);
uint64_t __OSL_Table_IndexHeads(void *hTable);

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
static void check(OstrelTableHandle h, size_t count, uint64_t expect_heads = UINT64_MAX) {
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
            ASSERT_NO_FATAL_FAILURE(check(h, model.size())) << op;
        }
    }
    for (uint32_t id = 0; model.size() > 10000; ++id) ASSERT_EQ(Ostrel_Table_Pointer_DelNode(h, key(id)), model.erase(id) ? 0u : OSL_ERR_NOT_FOUND);
    ASSERT_NO_FATAL_FAILURE(check(h, model.size(), 65536)); // shrunk from 131072 heads
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
    ASSERT_NO_FATAL_FAILURE(check(h, model.size(), 0));
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
        ASSERT_NO_FATAL_FAILURE(check(h, s.nodes, s.heads));
        for (uint32_t id = 0; id < s.nodes; ++id) ASSERT_TRUE(holds(h, id, kValues[id % 6])) << id;
    }
    ASSERT_EQ(Ostrel_Table_Destroy(h), 0u);
}
