// Table iteration: the three visiting orders, deferred deletes and updates,
// the busy table while iterators are open, several iterators at once, and
// the ownership of update buffers on reference-mode tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "log_capture.h"
#include "ostrel_error.h"
#include "ostrel_table.h"

uintptr_t __OSL_Table_GetStringIndex(const void *pKey, uint32_t uiKeyLength);
const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);

namespace {

constexpr const char *kPath = "src/table";
using Strings = std::vector<std::string>;

struct Table {
    OstrelTableHandle h = nullptr;
    Table(uint32_t range, int mode) { EXPECT_EQ(Ostrel_Table_Create(&h, range, mode), 0u); }
    ~Table() {
        if (h != nullptr) {
            EXPECT_EQ(Ostrel_Table_Destroy(h), 0u);
        }
    }
    uint32_t count() const {
        uint32_t n = 0;
        EXPECT_EQ(Ostrel_Table_GetCount(h, &n), 0u);
        return n;
    }
    void verify() const { EXPECT_STREQ(__OSL_Table_Verify(h, nullptr, nullptr), nullptr); }
    void add(const char *k, const char *v) {
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
        if (h != nullptr) {
            EXPECT_EQ(Ostrel_Table_EndIterate(h), 0u);
        }
    }
    void end() {
        EXPECT_EQ(Ostrel_Table_EndIterate(h), 0u);
        h = nullptr;
    }
    // Next key, or "" at the end.
    std::string step() {
        const char *k = nullptr;
        EXPECT_EQ(Ostrel_Table_String_Iterate(h, &k, nullptr, nullptr), 0u);
        return k != nullptr ? k : "";
    }
};

Strings walk(OstrelTableHandle t, uint32_t mode) {
    Strings out;
    Itr it(t, mode);
    for (std::string k = it.step(); !k.empty(); k = it.step()) out.push_back(k);
    return out;
}

void fill(Table &t, int n) {
    for (int i = 0; i < n; ++i) t.add(("k" + std::to_string(i)).c_str(), ("v" + std::to_string(i)).c_str());
}

TEST(TableIterate, EmptyTableEndsAtOnceAndAcceptsAddsAfterwards) {
    Table t(4, NODE_STORAGE_COPY);
    for (uint32_t mode : {TABLE_ITERATE_BUCKET, TABLE_ITERATE_FORWARD, TABLE_ITERATE_BACKWARD}) {
        Itr it(t.h, mode);
        // On a table without a key type every form may step.
        const void *key = &t;
        uint32_t klen = 9;
        EXPECT_EQ(Ostrel_Table_ByteArray_Iterate(it.h, &key, &klen, nullptr, nullptr), 0u);
        EXPECT_EQ(key, nullptr);
        EXPECT_EQ(klen, 9u); // nothing else is written at the end
        EXPECT_EQ(it.step(), "");
        EXPECT_EQ(Ostrel_Table_IterateDel(it.h), OSL_ERR_NOT_FOUND);
    }
    t.add("a", "1");
    EXPECT_EQ(t.count(), 1u);
}

TEST(TableIterate, ThreeOrdersOnInsertionAndKeyOrderTables) {
    Table ins(8, NODE_STORAGE_COPY);
    for (const char *k : {"b", "a", "c"}) ins.add(k, k);
    EXPECT_EQ(walk(ins.h, TABLE_ITERATE_FORWARD), (Strings{"c", "a", "b"}));
    EXPECT_EQ(walk(ins.h, TABLE_ITERATE_BACKWARD), (Strings{"b", "a", "c"}));

    Table key(8, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(key.h, TABLE_PROP_SORT_FUNCTION, 0), 0u);
    for (const char *k : {"b", "a", "c"}) key.add(k, k);
    EXPECT_EQ(walk(key.h, TABLE_ITERATE_FORWARD), (Strings{"a", "b", "c"}));
    EXPECT_EQ(walk(key.h, TABLE_ITERATE_BACKWARD), (Strings{"c", "b", "a"}));

    // Bucket order: every node once, buckets ascending by the key's index.
    Table big(16, NODE_STORAGE_COPY);
    fill(big, 200);
    uint32_t range = 0;
    ASSERT_STREQ(__OSL_Table_Verify(big.h, &range, nullptr), nullptr);
    Strings seen = walk(big.h, TABLE_ITERATE_BUCKET);
    ASSERT_EQ(seen.size(), 200u);
    EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), 200u);
    uint32_t last = 0;
    for (const auto &k : seen) {
        uint32_t b = static_cast<uint32_t>(__OSL_Table_GetStringIndex(k.c_str(), 0)) % range;
        EXPECT_GE(b, last) << k;
        last = b;
    }
}

TEST(TableIterate, OutputsAndFormChecks) {
    Table t(8, NODE_STORAGE_COPY);
    t.add("key", "value");
    Itr it(t.h, TABLE_ITERATE_FORWARD);
    LogCapture cap;
    // A wrong form fails and leaves the iterator where it was.
    const void *pk = nullptr;
    EXPECT_EQ(Ostrel_Table_Pointer_Iterate(it.h, &pk, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_String_Iterate(it.h, nullptr, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (Strings{std::string(kPath) + "|Operation target expect key type 2, actually 1",
                       std::string(kPath) + "|Error in __OSL_Table_Iterate, assert(NULL != ppKey) failed."}));
    const char *k = nullptr;
    void *v = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(Ostrel_Table_String_Iterate(it.h, &k, &v, &len), 0u);
    EXPECT_STREQ(k, "key");
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "value");
    EXPECT_EQ(it.step(), "");
    EXPECT_EQ(it.step(), ""); // stays at the end

    // Begin: output pointer first, then the handle, then the mode (no log).
    cap.clear();
    OstrelTableIterHandle h2 = nullptr;
    EXPECT_EQ(Ostrel_Table_BeginIterate(nullptr, nullptr, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_Table_BeginIterate(nullptr, &h2, 0), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_Table_BeginIterate(t.h, &h2, 3), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (Strings{std::string(kPath) + "|Error in Ostrel_Table_BeginIterate, assert(NULL != phItr) failed.",
                       std::string(kPath) + "|Invalid table handle: (nil)."}));
    // Bad iterator handles, with the mode line when only the mode is wrong.
    cap.clear();
    EXPECT_EQ(Ostrel_Table_IterateDel(nullptr), OSL_ERR_INVALID_HANDLE);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_HANDLE);
    uint32_t fake[16] = {0xC47F8609u}; // a table's magic is no iterator's
    EXPECT_EQ(Ostrel_Table_EndIterate(fake), OSL_ERR_INVALID_HANDLE);
    char line[64];
    snprintf(line, sizeof line, "|Invalid table iterater handle: %p.", static_cast<void *>(fake));
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), (Strings{std::string(kPath) + "|Invalid table iterater handle: (nil).",
                                                   std::string(kPath) + line}));
}

TEST(TableIterate, OpenIteratorsMakeTheTableBusyButReadable) {
    Table t(8, NODE_STORAGE_COPY);
    t.add("a", "1");
    {
        Itr one(t.h, TABLE_ITERATE_FORWARD);
        Itr two(t.h, TABLE_ITERATE_BUCKET);
        LogCapture cap;
        EXPECT_EQ(Ostrel_Table_String_AddNode(t.h, "b", "2", 1), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_Table_String_UpdateNode(t.h, "a", "2", 1), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_Table_String_DelNode(t.h, "a"), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_Table_Destroy(t.h), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_SYSTEM_BUSY);
        EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), Strings(4, std::string(kPath) + "|The target table is being iterated."));
        EXPECT_EQ(t.get("a"), "1");
        EXPECT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 3), 0u);
        one.end();
        EXPECT_EQ(Ostrel_Table_String_AddNode(t.h, "b", "2", 1), OSL_ERR_SYSTEM_BUSY); // one still open
    }
    // A refused begin does not count as open.
    OstrelTableIterHandle h = nullptr;
    EXPECT_EQ(Ostrel_Table_BeginIterate(t.h, &h, 3), OSL_ERR_INVALID_PARAMETER);
    t.add("b", "2");
    EXPECT_EQ(t.count(), 2u);
}

TEST(TableIterate, MarkingEveryNodeForDeletionEmptiesTheTable) {
    for (uint32_t mode : {TABLE_ITERATE_BUCKET, TABLE_ITERATE_FORWARD, TABLE_ITERATE_BACKWARD}) {
        for (bool close_after_last_mark : {false, true}) {
            Table t(4, NODE_STORAGE_COPY);
            fill(t, 50);
            Itr it(t.h, mode);
            std::set<std::string> seen;
            for (int i = 0; i < 50; ++i) {
                std::string k = it.step();
                ASSERT_FALSE(k.empty());
                seen.insert(k);
                ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u);
            }
            EXPECT_EQ(seen.size(), 50u);
            if (close_after_last_mark) {
                it.end(); // carries out the last mark
            } else {
                EXPECT_EQ(it.step(), "");
                EXPECT_EQ(t.count(), 0u); // the last step carried out the last mark
                EXPECT_EQ(Ostrel_Table_IterateDel(it.h), OSL_ERR_NOT_FOUND);
                it.end();
            }
            EXPECT_EQ(t.count(), 0u);
            t.verify();
        }
    }
}

TEST(TableIterate, DeferredActionsAndTheLaterMarkWins) {
    Table t(4, NODE_STORAGE_COPY);
    for (const char *k : {"a", "b", "c", "d"}) t.add(k, "0123456789");
    {
        Itr it(t.h, TABLE_ITERATE_BACKWARD); // oldest first: a b c d
        LogCapture cap;
        EXPECT_EQ(Ostrel_Table_IterateDel(it.h), OSL_ERR_NOT_FOUND);
        EXPECT_EQ(Ostrel_Table_IterateUpdate(it.h, "x", 1), OSL_ERR_NOT_FOUND);
        EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NOT_FOUND);
        EXPECT_TRUE(cap.lines().empty());

        EXPECT_EQ(it.step(), "a");
        ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u);
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "upd-a", 5), 0u); // replaces the delete
        EXPECT_EQ(t.get("a"), "0123456789");                         // nothing done yet
        EXPECT_EQ(it.step(), "b");
        EXPECT_EQ(t.get("a"), "upd-a");
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "upd-b", 5), 0u);
        ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u); // replaces the update
        EXPECT_EQ(it.step(), "c");
        EXPECT_EQ(t.get("b"), "<missing>");
        // A longer value moves the node to a new block; the walk goes on.
        char longer[64];
        memset(longer, 'L', sizeof longer);
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, longer, sizeof longer), 0u);
        memset(longer, '?', sizeof longer); // the mark holds its own copy
        EXPECT_EQ(it.step(), "d");
        EXPECT_EQ(t.get("c"), std::string(64, 'L'));
        ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, nullptr, 0), 0u);
        EXPECT_EQ(it.step(), "");
        void *v = &t;
        uint32_t len = 7;
        ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "d", &v, &len), 0u);
        EXPECT_EQ(v, nullptr);
        EXPECT_EQ(len, 0u);
    }
    t.verify();
    EXPECT_EQ(walk(t.h, TABLE_ITERATE_BACKWARD), (Strings{"a", "c", "d"}));
}

TEST(TableIterate, AChangeThroughOneIteratorIsFollowedByTheOthers) {
    Table t(1, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u); // one chain
    for (const char *k : {"a", "b", "c", "d"}) t.add(k, "v");
    Itr fwd(t.h, TABLE_ITERATE_FORWARD);  // d c b a
    Itr bkt(t.h, TABLE_ITERATE_BUCKET);   // a b c d
    Itr back(t.h, TABLE_ITERATE_BACKWARD); // a b c d
    EXPECT_EQ(fwd.step(), "d");
    EXPECT_EQ(bkt.step(), "a");
    EXPECT_EQ(back.step(), "a");
    // fwd deletes d; nobody else stands on it. bkt marks a for an update
    // while back deletes a first: bkt's mark goes with the node.
    ASSERT_EQ(Ostrel_Table_IterateDel(fwd.h), 0u);
    ASSERT_EQ(Ostrel_Table_IterateUpdate(bkt.h, "new a", 5), 0u);
    ASSERT_EQ(Ostrel_Table_IterateDel(back.h), 0u);
    EXPECT_EQ(back.step(), "b"); // a deleted here
    EXPECT_EQ(bkt.step(), "b");  // its mark on a is gone with the node
    EXPECT_EQ(t.get("a"), "<missing>");
    // bkt moves b to a new block; back, which stands on b, acts on the moved node.
    ASSERT_EQ(Ostrel_Table_IterateUpdate(bkt.h, "a much longer value for b", 25), 0u);
    ASSERT_EQ(Ostrel_Table_IterateUpdate(back.h, "B", 1), 0u);
    EXPECT_EQ(bkt.step(), "c");
    EXPECT_EQ(t.get("b"), "a much longer value for b");
    EXPECT_EQ(back.step(), "c");
    EXPECT_EQ(t.get("b"), "B");
    // fwd's next node is c; bkt deletes c, so fwd steps past it.
    EXPECT_EQ(fwd.step(), "c");
    ASSERT_EQ(Ostrel_Table_IterateDel(bkt.h), 0u);
    EXPECT_EQ(bkt.step(), "");
    EXPECT_EQ(back.step(), "");
    // fwd's pending delete of d ran at its step; its current node c went
    // through bkt, so it goes on from c's successor.
    EXPECT_EQ(fwd.step(), "b");
    EXPECT_EQ(fwd.step(), "");
    fwd.end();
    bkt.end();
    back.end();
    t.verify();
    EXPECT_EQ(walk(t.h, TABLE_ITERATE_FORWARD), (Strings{"b"}));
}

TEST(TableIterate, LargeUpdateBuffersAreLoggedAsWarnings) {
    Table t(4, NODE_STORAGE_COPY);
    t.add("k", "v");
    Itr it(t.h, TABLE_ITERATE_FORWARD);
    EXPECT_EQ(it.step(), "k");
    const std::string big(0x800000, 'x'); // one byte past the warning limit
    LogCapture cap;
    ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, big.data(), 0x7FFFFF), 0u);
    EXPECT_TRUE(cap.texts(LOG_LEVEL_WARN).empty());
    ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, big.data(), 0x800000), 0u);
    EXPECT_EQ(cap.texts(LOG_LEVEL_WARN),
              Strings{std::string(kPath) + "|Large malloc in Ostrel_Table_IterateUpdate, size=8388608."});
    it.end();
    EXPECT_EQ(t.get("k"), big);
}

TEST(TableIterate, RangeChangeDuringABucketWalkStaysOnLiveNodes) {
    Table t(2, NODE_STORAGE_COPY);
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_REFRESH_STEP, 0), 0u);
    fill(t, 64);
    Itr it(t.h, TABLE_ITERATE_BUCKET);
    std::set<std::string> seen;
    for (int i = 0; i < 10; ++i) seen.insert(it.step());
    ASSERT_EQ(Ostrel_Table_SetProperty(t.h, TABLE_PROP_RANGE, 512), 0u);
    for (int guard = 0; guard < 200; ++guard) {
        std::string k = it.step();
        if (k.empty()) break;
        EXPECT_NE(t.get(k.c_str()), "<missing>");
        ASSERT_EQ(Ostrel_Table_IterateDel(it.h), 0u);
    }
    EXPECT_EQ(it.step(), "");
    it.end();
    t.verify();
}

// Reference mode: the node takes the iterator's copy and frees it itself.
// Run under the address sanitizer, a dangling value or a leak fails here.
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
    uint32_t len = 0;
    ASSERT_EQ(Ostrel_Table_String_GetNode(t.h, "a", &v, &len), 0u);
    EXPECT_NE(v, static_cast<void *>(original));
    EXPECT_EQ(std::string(static_cast<char *>(v), len), "updated a");
    // Passing the node's own buffer back keeps it; any other value frees it.
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "a", v, 7), 0u);
    EXPECT_EQ(t.get("a"), "updated");
    ASSERT_EQ(Ostrel_Table_String_UpdateNode(t.h, "a", original, 8), 0u);
    EXPECT_EQ(t.get("a"), "original");
    // A second iterator update replaces (and frees) the first buffer.
    {
        Itr it(t.h, TABLE_ITERATE_FORWARD);
        while (true) {
            std::string k = it.step();
            if (k.empty()) break;
            if (k == "b") {
                ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "again", 5), 0u);
                ASSERT_EQ(Ostrel_Table_IterateUpdate(it.h, "and again", 9), 0u); // first mark's buffer released
            }
        }
    }
    EXPECT_EQ(t.get("b"), "and again");
    ASSERT_EQ(Ostrel_Table_String_DelNode(t.h, "c"), 0u); // frees c's buffer
    EXPECT_EQ(t.get("d"), "updated d");
    // d keeps its buffer until the table is destroyed.
}

} // namespace
