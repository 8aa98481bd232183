// Model-based test: thousands of random adds (duplicates included), gets,
// updates, deletes, range changes and walks with marks, run on a table and on
// a std::map model at once, for every key type, storage mode and sort order.
// After every step the count, the contents and the forward order must agree,
// and every link of the table must check out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "ostrel_error.h"
#include "ostrel_table.h"
#include "zurn_general.h"

const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);

namespace {

// A value as the table should hold it: its own bytes, or the caller's
// pointer and length as given.
struct Value {
    bool own = false;
    std::string bytes;
    const void *ptr = nullptr;
    uint32_t len = 0;
};

using Param = std::tuple<uint32_t /*key type*/, int /*storage*/, bool /*key order*/>;

class TableModel : public ::testing::TestWithParam<Param> {
protected:
    uint32_t type_ = 0;
    int storage_ = 0;
    bool key_order_ = false;
    OstrelTableHandle h_ = nullptr;
    std::mt19937 rng_{20261121};
    std::vector<std::string> keys_, pool_; // candidate keys (as bytes); value buffers
    std::map<std::string, Value> model_;
    std::vector<std::string> order_; // the sorted list, head first
    int prev_level_ = 0;

    void SetUp() override {
        std::tie(type_, storage_, key_order_) = GetParam();
        prev_level_ = ZurnGeneral_SetLogLevel(16); // misses are logged as errors; keep the run quiet
        ASSERT_EQ(Ostrel_Table_Create(&h_, 2, storage_), 0u);
        if (key_order_) {
            ASSERT_EQ(Ostrel_Table_SetProperty(h_, TABLE_PROP_SORT_FUNCTION, 0), 0u);
        }
        for (int i = 0; i < 24; ++i) pool_.emplace_back(static_cast<size_t>(i * 3 + 1), static_cast<char>('A' + i));
        // Short keys over a small alphabet: prefixes of one another, NUL bytes
        // inside byte arrays, pairs of pointers with equal low halves.
        std::set<std::string> ks;
        for (uintptr_t i = 0; type_ == TABLE_KEY_POINTER && i < 100; ++i) {
            uintptr_t v = (i % 50) * 8 | (i < 50 ? 0 : sizeof(uintptr_t) > 4 ? uintptr_t(1) << 40 : 4);
            ks.insert(std::string(reinterpret_cast<const char *>(&v), sizeof v));
        }
        const std::string alphabet = type_ == TABLE_KEY_STRING ? "abc" : std::string("\0ab", 3);
        while (type_ != TABLE_KEY_POINTER && ks.size() < 150) {
            std::string k;
            for (size_t i = 0, len = rng_() % 6; i < len; ++i) k += alphabet[rng_() % 3];
            ks.insert(k);
        }
        keys_.assign(ks.begin(), ks.end());
    }
    void TearDown() override {
        if (h_ != nullptr) {
            EXPECT_EQ(Ostrel_Table_Destroy(h_), 0u);
        }
        ZurnGeneral_SetLogLevel(prev_level_);
    }

    static const void *as_pointer(const std::string &k) {
        uintptr_t v = 0;
        memcpy(&v, k.data(), sizeof v);
        return reinterpret_cast<const void *>(v);
    }
    static uint32_t low(const std::string &k) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(as_pointer(k))); }

    // The table's key orders, written out again.
    int compare(const std::string &a, const std::string &b) const {
        if (type_ == TABLE_KEY_STRING) return strcmp(a.c_str(), b.c_str());
        if (type_ == TABLE_KEY_POINTER) return static_cast<int32_t>(low(a) - low(b));
        size_t n = std::min(a.size(), b.size());
        return n == 0 ? 0 : memcmp(a.data(), b.data(), n);
    }
    void model_insert(const std::string &k, const Value &v) {
        model_[k] = v;
        size_t at = 0;
        while (key_order_ && at < order_.size() && compare(order_[at], k) < 0) ++at;
        order_.insert(order_.begin() + static_cast<long>(at), k);
    }
    void model_erase(const std::string &k) {
        model_.erase(k);
        order_.erase(std::find(order_.begin(), order_.end(), k));
    }
    // Copied when the table copies (or always, for a walk's update) and there
    // are bytes; else kept as given.
    Value expect_value(const void *p, uint32_t len, bool through_iterator) const {
        Value v;
        v.own = p != nullptr && len != 0 && (storage_ == NODE_STORAGE_COPY || through_iterator);
        if (v.own) v.bytes.assign(static_cast<const char *>(p), len);
        v.ptr = v.own ? nullptr : p;
        v.len = v.own ? 0 : len;
        return v;
    }
    std::pair<const void *, uint32_t> random_value() {
        if (rng_() % 10 == 0) return {nullptr, rng_() % 3};
        const std::string &s = pool_[rng_() % pool_.size()];
        return {s.data(), static_cast<uint32_t>(rng_() % (s.size() + 1))};
    }
    bool value_matches(const Value &m, const void *v, uint32_t len) const {
        if (len != (m.own ? m.bytes.size() : m.len)) return false;
        return m.own ? v != nullptr && memcmp(v, m.bytes.data(), len) == 0 : v == m.ptr;
    }

    // op: 0 add, 1 get, 2 update, 3 delete; v and len are the value or outputs.
    uint32_t call(int op, const std::string &k, const void *v, uint32_t len, void **pv = nullptr, uint32_t *plen = nullptr) {
        const char *s = k.c_str();
        const void *p = as_pointer(k);
        auto kl = static_cast<uint32_t>(k.size());
        switch (op * 4 + static_cast<int>(type_)) {
        case 1: return Ostrel_Table_String_AddNode(h_, s, v, len);
        case 2: return Ostrel_Table_Pointer_AddNode(h_, p, v, len);
        case 3: return Ostrel_Table_ByteArray_AddNode(h_, k.data(), kl, v, len);
        case 5: return Ostrel_Table_String_GetNode(h_, s, pv, plen);
        case 6: return Ostrel_Table_Pointer_GetNode(h_, p, pv, plen);
        case 7: return Ostrel_Table_ByteArray_GetNode(h_, k.data(), kl, pv, plen);
        case 9: return Ostrel_Table_String_UpdateNode(h_, s, v, len);
        case 10: return Ostrel_Table_Pointer_UpdateNode(h_, p, v, len);
        case 11: return Ostrel_Table_ByteArray_UpdateNode(h_, k.data(), kl, v, len);
        case 13: return Ostrel_Table_String_DelNode(h_, s);
        case 14: return Ostrel_Table_Pointer_DelNode(h_, p);
        default: return Ostrel_Table_ByteArray_DelNode(h_, k.data(), kl);
        }
    }
    // One step; false when the key comes back null (a null pointer is a key
    // too: pointer walks are stepped by the count).
    bool step(OstrelTableIterHandle it, std::string *key, void **v, uint32_t *len) {
        const void *k = nullptr;
        const char *ks = nullptr;
        uint32_t klen = 0;
        if (type_ == TABLE_KEY_STRING) {
            EXPECT_EQ(Ostrel_Table_String_Iterate(it, &ks, v, len), 0u);
            k = ks;
        } else if (type_ == TABLE_KEY_POINTER)
            EXPECT_EQ(Ostrel_Table_Pointer_Iterate(it, &k, v, len), 0u);
        else
            EXPECT_EQ(Ostrel_Table_ByteArray_Iterate(it, &k, &klen, v, len), 0u);
        uintptr_t u = reinterpret_cast<uintptr_t>(k);
        if (type_ == TABLE_KEY_POINTER) key->assign(reinterpret_cast<const char *>(&u), sizeof u);
        else if (k != nullptr) key->assign(static_cast<const char *>(k), type_ == TABLE_KEY_STRING ? strlen(static_cast<const char *>(k)) : klen);
        return k != nullptr;
    }

    // Count, contents and forward order against the model, plus every link.
    void check(int op) {
        uint32_t n = 0;
        ASSERT_EQ(Ostrel_Table_GetCount(h_, &n), 0u);
        ASSERT_EQ(n, model_.size()) << "op " << op;
        ASSERT_STREQ(__OSL_Table_Verify(h_, nullptr, nullptr), nullptr) << "op " << op;
        OstrelTableIterHandle it = nullptr;
        ASSERT_EQ(Ostrel_Table_BeginIterate(h_, &it, TABLE_ITERATE_FORWARD), 0u);
        std::string k;
        void *v = nullptr;
        uint32_t len = 0;
        for (uint32_t i = 0; i < n; ++i) {
            step(it, &k, &v, &len);
            ASSERT_EQ(k, order_[i]) << "op " << op << " position " << i;
            ASSERT_TRUE(value_matches(model_[k], v, len)) << "op " << op;
        }
        ASSERT_TRUE(!step(it, &k, &v, &len) || (type_ == TABLE_KEY_POINTER && as_pointer(k) == nullptr && v == nullptr));
        ASSERT_EQ(Ostrel_Table_EndIterate(it), 0u);
    }

    // A walk in a random order that marks some nodes, carried out at the next
    // step or at the end; sorted walks follow the order the walk began with.
    void walk_with_marks(int op) {
        uint32_t mode = rng_() % 3;
        OstrelTableIterHandle it = nullptr;
        ASSERT_EQ(Ostrel_Table_BeginIterate(h_, &it, mode), 0u);
        std::vector<std::string> expect = order_;
        if (mode == TABLE_ITERATE_BACKWARD) std::reverse(expect.begin(), expect.end());
        std::map<std::string, std::pair<bool, Value>> marks; // delete?, else the new value
        std::set<std::string> seen;
        for (size_t i = 0, steps = rng_() % (expect.size() + 2); i < steps; ++i) {
            std::string k;
            void *v = nullptr;
            uint32_t len = 0;
            bool got = step(it, &k, &v, &len);
            if (i == expect.size()) { // past the last node
                ASSERT_TRUE(!got || type_ == TABLE_KEY_POINTER);
                ASSERT_EQ(Ostrel_Table_IterateDel(it), OSL_ERR_NOT_FOUND);
                break;
            }
            if (mode == TABLE_ITERATE_BUCKET)
                ASSERT_TRUE(model_.count(k) == 1 && seen.insert(k).second) << "op " << op;
            else
                ASSERT_EQ(k, expect[i]) << "op " << op;
            ASSERT_TRUE(value_matches(model_[k], v, len)) << "op " << op;
            for (int m = rng_() % 6 == 0 ? 1 + static_cast<int>(rng_() % 2) : 0; m > 0; --m) {
                auto nv = random_value();
                bool del = rng_() % 2 == 0;
                ASSERT_EQ(del ? Ostrel_Table_IterateDel(it) : Ostrel_Table_IterateUpdate(it, nv.first, nv.second), 0u);
                marks[k] = {del, expect_value(nv.first, nv.second, true)};
            }
        }
        ASSERT_EQ(Ostrel_Table_EndIterate(it), 0u);
        for (const auto &m : marks) {
            if (m.second.first)
                model_erase(m.first);
            else
                model_[m.first] = m.second.second;
        }
    }

    void run(int ops) {
        for (int op = 0; op < ops; ++op) {
            const std::string &k = keys_[rng_() % keys_.size()];
            bool present = model_.count(k) != 0;
            unsigned pick = rng_() % 100;
            if (op < ops / 3 && pick >= 35 && pick < 65) pick = 0; // the first third mostly fills
            auto v = random_value();
            void *got = nullptr;
            uint32_t got_len = 0;
            if (pick < 35) {
                ASSERT_EQ(call(0, k, v.first, v.second), present ? OSL_ERR_DUPLICATE_KEY : 0u) << "op " << op;
                if (!present) model_insert(k, expect_value(v.first, v.second, false));
            } else if (pick < 50) {
                ASSERT_EQ(call(1, k, nullptr, 0, &got, &got_len), present ? 0u : OSL_ERR_NOT_FOUND) << "op " << op;
                ASSERT_TRUE(!present || value_matches(model_[k], got, got_len)) << "op " << op;
            } else if (pick < 72) {
                ASSERT_EQ(call(2, k, v.first, v.second), present ? 0u : OSL_ERR_NOT_FOUND) << "op " << op;
                if (present) model_[k] = expect_value(v.first, v.second, false);
            } else if (pick < 90) {
                ASSERT_EQ(call(3, k, nullptr, 0), present ? 0u : OSL_ERR_NOT_FOUND) << "op " << op;
                if (present) model_erase(k);
            } else if (pick < 98) {
                walk_with_marks(op);
            } else {
                ASSERT_EQ(Ostrel_Table_SetProperty(h_, pick == 98 ? TABLE_PROP_RANGE : TABLE_PROP_REFRESH_THRESHOLD,
                                                   1 + rng_() % 300),
                          0u);
            }
            check(op);
            if (HasFatalFailure()) return;
        }
    }
};

TEST_P(TableModel, AgreesWithStdMapAfterEveryStep) {
    run(6000);
    EXPECT_GT(model_.size(), 20u); // the run kept a populated table
}

std::string param_name(const ::testing::TestParamInfo<Param> &info) {
    static const char *types[] = {"", "String", "Pointer", "ByteArray"};
    return std::string(types[std::get<0>(info.param)]) + (std::get<1>(info.param) ? "Copy" : "Reference") +
           (std::get<2>(info.param) ? "KeyOrder" : "InsertionOrder");
}

INSTANTIATE_TEST_SUITE_P(AllKinds, TableModel,
                         ::testing::Combine(::testing::Values(TABLE_KEY_STRING, TABLE_KEY_POINTER, TABLE_KEY_BYTEARRAY),
                                            ::testing::Values(NODE_STORAGE_REFERENCE, NODE_STORAGE_COPY),
                                            ::testing::Bool()),
                         param_name);

} // namespace
