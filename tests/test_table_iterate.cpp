// Table iteration: bucket order, step and begin checks, the busy table,
// deferred deletes and updates, several iterators at once, and update buffers
// owned by reference-mode nodes (run under the address sanitizer).
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "test_util.h"
#include "ostrel_error.h"
#include "ostrel_table.h"

uintptr_t __OSL_Table_GetStringIndex(const void *pKey, uint32_t uiKeyLength);
const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);

namespace {

using Strings = std::vector<std::string>;
const std::string kPath = "src/table|";

struct Table {
    OstrelTableHandle h = nullptr;
    Table(uint32_t range, int mode, int nodes = 0) {
        EXPECT_EQ(Ostrel_Table_Create(&h, range, mode), 0u);
        for (int i = 0; i < nodes; ++i) add(("k" + std::to_string(i)).c_str(), "v");
    }
    ~Table() {
        if (h != nullptr) {
            EXPECT_EQ(Ostrel_Table_Destroy(h), 0u);
        }
    }
    uint32_t count() const {
        uint32_t n = 0;
        EXPECT_EQ(Ostrel_Table_GetCount(h, &n), 0u);
        EXPECT_STREQ(__OSL_Table_Verify(h, nullptr, nullptr), nullptr);
        return n;
    }
    void add(const char *k, const char *v) const {
        ASSERT_EQ(Ostrel_Table_String_AddNode(h, k, v, static_cast<uint32_t>(strlen(v))), 0u) << k;
    }
    std::string get(const char *k) const {
        void *v = nullptr;
        uint32_t len = 0;
        if (Ostrel_Table_String_GetNode(h, k, &v, &len) != 0) return "<missing>";
        return std::string(static_cast<const char *>(v), len);
    }
};

struct Itr {
    OstrelTableIterHandle h = nullptr;
    Itr(OstrelTableHandle t, uint32_t mode) { EXPECT_EQ(Ostrel_Table_BeginIterate(t, &h, mode), 0u); }
    ~Itr() {
        if (h != nullptr) end();
    }
    void end() {
        EXPECT_EQ(Ostrel_Table_EndIterate(h), 0u);
        h = nullptr;
    }
    std::string step() { // "" at the end
        const char *k = nullptr;
        EXPECT_EQ(Ostrel_Table_String_Iterate(h, &k, nullptr, nullptr), 0u);
        return k != nullptr ? k : "";
    }
};

TEST(TableIterate, BucketOrderVisitsEachNodeOnceByAscendingBucket) {
    Table empty(4, NODE_STORAGE_COPY), t(16, NODE_STORAGE_COPY, 200);
    for (uint32_t mode : {TABLE_ITERATE_BUCKET, TABLE_ITERATE_FORWARD, TABLE_ITERATE_BACKWARD}) {
        Itr it(empty.h, mode);
        const void *key = &t;
        uint32_t klen = 9; // any form steps on a table without a key type; the end writes only the key
        EXPECT_EQ(Ostrel_Table_ByteArray_Iterate(it.h, &key, &klen, nullptr, nullptr), 0u);
        EXPECT_EQ(key, nullptr);
        EXPECT_EQ(klen, 9u);
    }
    uint32_t range = 0, last = 0;
    ASSERT_STREQ(__OSL_Table_Verify(t.h, &range, nullptr), nullptr);
    std::set<std::string> seen;
    Itr it(t.h, TABLE_ITERATE_BUCKET);
    for (std::string k = it.step(); !k.empty(); k = it.step()) {
        EXPECT_TRUE(seen.insert(k).second) << k;
        uint32_t b = static_cast<uint32_t>(__OSL_Table_GetStringIndex(k.c_str(), 0)) % range;
        EXPECT_GE(b, last) << k;
        last = b;
    }
    EXPECT_EQ(seen.size(), 200u);
    EXPECT_EQ(it.step(), ""); // stays at the end
}

TEST(TableIterate, StepAndBeginChecks) {
    Table t(8, NODE_STORAGE_COPY, 1);
    Itr it(t.h, TABLE_ITERATE_FORWARD);
    LogCapture cap;
    const void *pk = nullptr;
    EXPECT_EQ(Ostrel_Table_Pointer_Iterate(it.h, &pk, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_String_Iterate(it.h, nullptr, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    OstrelTableIterHandle h2 = nullptr;
    EXPECT_EQ(Ostrel_Table_BeginIterate(nullptr, nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_BeginIterate(nullptr, &h2, 0), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_Table_BeginIterate(t.h, &h2, 3), OSL_ERR_INVALID_PARAMETER); // no line, not opened
    uint32_t fake[16] = {0xC47F8609u}; // a table's magic is no iterator's
    EXPECT_EQ(Ostrel_Table_IterateDel(nullptr), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_Table_EndIterate(fake), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    char fake_line[64];
    snprintf(fake_line, sizeof fake_line, "Invalid table iterater handle: %p.", static_cast<void *>(fake));
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (Strings{kPath + "Operation target expect key type 2, actually 1",
                       kPath + "Error in __OSL_Table_Iterate, assert(NULL != ppKey) failed.",
                       kPath + "Error in Ostrel_Table_BeginIterate, assert(NULL != phItr) failed.",
                       kPath + "Invalid table handle: (nil).", kPath + "Invalid table iterater handle: (nil).",
                       kPath + fake_line}));
    // The refused step left the iterator where it was.
    const char *k = nullptr;
    void *v = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(Ostrel_Table_String_Iterate(it.h, &k, &v, &len), 0u);
    EXPECT_STREQ(k, "k0");
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "v");
}

TEST(TableIterate, OpenIteratorsMakeTheTableBusyButReadable) {
    Table t(8, NODE_STORAGE_COPY, 1);
    {
        Itr one(t.h, TABLE_ITERATE_FORWARD), two(t.h, TABLE_ITERATE_BUCKET);
        LogCapture cap;
        EXPECT_EQ(Ostrel_Table_String_AddNode(t.h, "b", "2", 1), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_Table_String_UpdateNode(t.h, "k0", "2", 1), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_Table_String_DelNode(t.h, "k0"), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_Table_Destroy(t.h), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings(4, kPath + "The target table is being iterated."));
        EXPECT_EQ(t.get("k0"), "v");
        EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 3), 0u);
        one.end();
        EXPECT_EQ(Ostrel_Table_String_AddNode(t.h, "b", "2", 1), OSL_ERR_SYSTEM_BUSY); // two still open
    }
    t.add("b", "2");
    EXPECT_EQ(t.count(), 2u);
}

TEST(TableIterate, MarkingEveryNodeForDeletionEmptiesTheTable) {
    for (uint32_t mode : {TABLE_ITERATE_BUCKET, TABLE_ITERATE_FORWARD, TABLE_ITERATE_BACKWARD}) {
        for (bool close_right_after_last_mark : {false, true}) {
            Table t(4, NODE_STORAGE_COPY, 50);
            Itr it(t.h, mode);
            std::set<std::string> seen;
            for (int i = 0; i < 50; ++i) {
                seen.insert(it.step());
                ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u);
            }
            EXPECT_EQ(seen.size(), 50u);
            if (!close_right_after_last_mark) {
                EXPECT_EQ(it.step(), ""); // carries out the last mark
                EXPECT_EQ(t.count(), 0u);
                EXPECT_EQ(Ostrel_Table_IterateDel(it.h), OSL_ERR_NOT_FOUND);
            }
            it.end();
            EXPECT_EQ(t.count(), 0u);
        }
    }
}

TEST(TableIterate, MarksAreCarriedOutAtTheNextStepAndTheLaterOneWins) {
    Table t(4, NODE_STORAGE_COPY);
    for (const char *k : {"a", "b", "c", "d"}) t.add(k, "0123456789");
    {
        Itr it(t.h, TABLE_ITERATE_BACKWARD); // oldest first
        LogCapture cap;
        EXPECT_EQ(Ostrel_Table_IterateDel(it.h), OSL_ERR_NOT_FOUND); // no step yet
        EXPECT_EQ(Ostrel_Table_IterateUpdate(it.h, "x", 1), OSL_ERR_NOT_FOUND);
        EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NOT_FOUND);
        EXPECT_TRUE(cap.lines().empty());
        EXPECT_EQ(it.step(), "a");
        ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u);
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "upd-a", 5), 0u); // replaces the delete
        EXPECT_EQ(t.get("a"), "0123456789");
        EXPECT_EQ(it.step(), "b");
        EXPECT_EQ(t.get("a"), "upd-a");
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "upd-b", 5), 0u);
        ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u); // replaces the update
        EXPECT_EQ(it.step(), "c");
        EXPECT_EQ(t.get("b"), "<missing>");
        std::string longer(64, 'L'); // moves c to a new block; the walk goes on
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, longer.data(), 64), 0u);
        longer.assign(64, '?'); // the mark holds its own copy
        EXPECT_EQ(it.step(), "d");
        EXPECT_EQ(t.get("c"), std::string(64, 'L'));
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, nullptr, 0), 0u); // carried out at the end
        const std::string big(0x800000, 'x'); // one byte past the warning limit
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, big.data(), 0x7FFFFF), 0u);
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, big.data(), 0x800000), 0u);
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, nullptr, 0), 0u);
        EXPECT_EQ(cap.texts(LOG_LEVEL_WARN), Strings{kPath + "Large malloc in Ostrel_Table_IterateUpdate, size=8388608."});
    }
    void *v = &t;
    uint32_t len = 7;
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "d", &v, &len), 0u);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(t.count(), 3u);
}

TEST(TableIterate, AChangeThroughOneIteratorIsFollowedByTheOthers) {
    Table t(1, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u); // one chain: a b c d
    for (const char *k : {"a", "b", "c", "d"}) t.add(k, "v");
    Itr fwd(t.h, TABLE_ITERATE_FORWARD), bkt(t.h, TABLE_ITERATE_BUCKET), back(t.h, TABLE_ITERATE_BACKWARD);
    EXPECT_EQ(fwd.step(), "d");
    EXPECT_EQ(bkt.step(), "a");
    EXPECT_EQ(back.step(), "a");
    ASSERT_EQ(Ostrel_Table_IterateDel(fwd.h), 0u);
    ASSERT_EQ(Ostrel_Table_IterateUpdate(bkt.h, "new a", 5), 0u);
    ASSERT_EQ(Ostrel_Table_IterateDel(back.h), 0u);
    EXPECT_EQ(back.step(), "b"); // deletes a: bkt's pending update goes with it
    EXPECT_EQ(bkt.step(), "b");
    EXPECT_EQ(t.get("a"), "<missing>");
    ASSERT_EQ(Ostrel_Table_IterateUpdate(bkt.h, "a much longer value for b", 25), 0u);
    ASSERT_EQ(Ostrel_Table_IterateUpdate(back.h, "B", 1), 0u);
    EXPECT_EQ(bkt.step(), "c"); // moves b to a new block; back follows it
    EXPECT_EQ(back.step(), "c");
    EXPECT_EQ(t.get("b"), "B");
    EXPECT_EQ(fwd.step(), "c"); // deletes d, which bkt and back would have stepped onto
    ASSERT_EQ(Ostrel_Table_IterateDel(bkt.h), 0u);
    EXPECT_EQ(bkt.step(), ""); // deletes c, fwd's current node
    EXPECT_EQ(back.step(), "");
    EXPECT_EQ(fwd.step(), "b");
    EXPECT_EQ(fwd.step(), "");
    fwd.end();
    bkt.end();
    back.end();
    EXPECT_EQ(t.count(), 1u);

    // A range change under a bucket walk: it stays on live nodes and ends.
    Table r(2, NODE_STORAGE_COPY, 64);
    Itr it(r.h, TABLE_ITERATE_BUCKET);
    for (int i = 0; i < 10; ++i) it.step();
    ASSERT_EQ(Ostrel_Table_SetProperty(r.h, TABLE_PROP_RANGE, 512), 0u);
    int steps = 0;
    for (std::string k = it.step(); !k.empty() && steps < 200; k = it.step(), ++steps) {
        EXPECT_NE(r.get(k.c_str()), "<missing>");
        ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u);
    }
    EXPECT_LT(steps, 200);
}

// Reference mode: the node takes the iterator's copy and frees it itself.
// Under the address sanitizer a dangling value or a leak fails here.
TEST(TableIterateOwnership, ReferenceNodesOwnTheirUpdateBuffers) {
    Table t(4, NODE_STORAGE_REFERENCE);
    static char original[] = "original";
    for (const char *k : {"a", "b", "c", "d"}) t.add(k, original);
    {
        Itr it(t.h, TABLE_ITERATE_BACKWARD);
        for (const char *k : {"a", "b", "c", "d"}) {
            EXPECT_EQ(it.step(), k);
            std::string v = std::string("updated ") + k; // gone after this scope
            ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, v.data(), static_cast<uint32_t>(v.size())), 0u);
        }
    }
    void *v = nullptr;
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "a", &v, nullptr), 0u);
    EXPECT_NE(v, static_cast<void *>(original));
    EXPECT_EQ(t.get("a"), "updated a");
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "a", v, 7), 0u); // its own buffer: kept
    EXPECT_EQ(t.get("a"), "updated");
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "a", original, 8), 0u); // another value: freed
    EXPECT_EQ(t.get("a"), "original");
    {
        Itr it(t.h, TABLE_ITERATE_FORWARD); // d c b a
        it.step();
        it.step();
        EXPECT_EQ(it.step(), "b");
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "again", 5), 0u);
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "and again", 9), 0u); // the first mark's buffer goes
    } // carried out at the end; b's earlier buffer goes
    EXPECT_EQ(t.get("b"), "and again");
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "c"), 0u); // frees c's buffer
    EXPECT_EQ(t.get("d"), "updated d");                  // d's goes with the table
}

} // namespace
