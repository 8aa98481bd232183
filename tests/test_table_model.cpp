// Model-based test: thousands of random adds, gets, updates, deletes, range
// changes and walks with marks, run on a table and on a std::map model at
// once, for every key type, storage mode and sort order. After every step the
// count, the contents and the forward order must agree, and every link of
// the table must check out.
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

// Values are taken from these buffers, which outlive every table.
const std::vector<std::string> &value_pool() {
    static const std::vector<std::string> pool = [] {
        std::vector<std::string> p;
        for (int i = 0; i < 24; ++i) p.push_back(std::string(static_cast<size_t>(i * 3 + 1), static_cast<char>('A' + i)));
        return p;
    }();
    return pool;
}

using Param = std::tuple<uint32_t /*key type*/, int /*storage*/, bool /*key order*/>;

class TableModel : public ::testing::TestWithParam<Param> {
protected:
    uint32_t type_ = 0;
    int storage_ = 0;
    bool key_order_ = false;
    OstrelTableHandle h_ = nullptr;
    std::mt19937 rng_{20261121};
    std::vector<std::string> keys_;   // candidate keys, encoded as bytes
    std::map<std::string, Value> model_;
    std::vector<std::string> order_;  // the sorted list, head first
    int prev_level_ = 0;

    void SetUp() override {
        std::tie(type_, storage_, key_order_) = GetParam();
        prev_level_ = ZurnGeneral_SetLogLevel(16); // misses are logged as errors; keep the run quiet
        ASSERT_EQ(Ostrel_Table_Create(&h_, 2, storage_), 0u);
        if (key_order_) {
            ASSERT_EQ(Ostrel_Table_SetProperty(h_, TABLE_PROP_SORT_FUNCTION, 0), 0u);
        }
        make_keys();
    }
    void TearDown() override {
        if (h_ != nullptr) {
            EXPECT_EQ(Ostrel_Table_Destroy(h_), 0u);
        }
        ZurnGeneral_SetLogLevel(prev_level_);
    }

    // Short keys over a small alphabet: many prefixes of one another, equal
    // low halves for pointers, NUL bytes inside byte arrays.
    void make_keys() {
        std::set<std::string> ks;
        if (type_ == TABLE_KEY_POINTER) {
            // Pairs of pointers with equal low halves sort as equal.
            for (uintptr_t i = 0; i < 100; ++i) {
                uintptr_t v = (i % 50) * 8;
                if (i >= 50) v |= sizeof(uintptr_t) > 4 ? uintptr_t(1) << 40 : uintptr_t(4);
                ks.insert(std::string(reinterpret_cast<const char *>(&v), sizeof v));
            }
        } else {
            const std::string alphabet = type_ == TABLE_KEY_STRING ? std::string("abc") : std::string("\0ab", 3);
            while (ks.size() < 150) {
                std::string k;
                size_t len = rng_() % 6;
                for (size_t i = 0; i < len; ++i) k += alphabet[rng_() % alphabet.size()];
                ks.insert(k);
            }
        }
        keys_.assign(ks.begin(), ks.end());
    }

    static const void *as_pointer(const std::string &k) {
        uintptr_t v = 0;
        memcpy(&v, k.data(), sizeof v);
        return reinterpret_cast<const void *>(v);
    }

    int compare(const std::string &a, const std::string &b) const {
        if (type_ == TABLE_KEY_STRING) return strcmp(a.c_str(), b.c_str());
        if (type_ == TABLE_KEY_POINTER) {
            auto lo = [](const std::string &k) {
                return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(as_pointer(k)));
            };
            return static_cast<int32_t>(lo(a) - lo(b));
        }
        size_t n = std::min(a.size(), b.size());
        return n == 0 ? 0 : memcmp(a.data(), b.data(), n);
    }

    void model_insert(const std::string &k, const Value &v) {
        model_[k] = v;
        size_t at = 0;
        if (key_order_)
            while (at < order_.size() && compare(order_[at], k) < 0) ++at;
        order_.insert(order_.begin() + static_cast<long>(at), k);
    }
    void model_erase(const std::string &k) {
        model_.erase(k);
        order_.erase(std::find(order_.begin(), order_.end(), k));
    }

    // The value a node should end up with: copied when the table copies (or
    // always, for a walk's update) and there are bytes, else kept as given.
    Value expect_value(const void *p, uint32_t len, bool through_iterator) const {
        Value v;
        if (p != nullptr && len != 0 && (storage_ == NODE_STORAGE_COPY || through_iterator)) {
            v.own = true;
            v.bytes.assign(static_cast<const char *>(p), len);
        } else {
            v.ptr = p;
            v.len = len;
        }
        return v;
    }

    std::pair<const void *, uint32_t> random_value() {
        const auto &pool = value_pool();
        if (rng_() % 10 == 0) return {nullptr, rng_() % 3};
        const std::string &s = pool[rng_() % pool.size()];
        return {s.data(), static_cast<uint32_t>(rng_() % (s.size() + 1))};
    }

    uint32_t add(const std::string &k, const void *v, uint32_t len) {
        if (type_ == TABLE_KEY_STRING) return Ostrel_Table_String_AddNode(h_, k.c_str(), v, len);
        if (type_ == TABLE_KEY_POINTER) return Ostrel_Table_Pointer_AddNode(h_, as_pointer(k), v, len);
        return Ostrel_Table_ByteArray_AddNode(h_, k.data(), static_cast<uint32_t>(k.size()), v, len);
    }
    uint32_t get(const std::string &k, void **v, uint32_t *len) {
        if (type_ == TABLE_KEY_STRING) return Ostrel_Table_String_GetNode(h_, k.c_str(), v, len);
        if (type_ == TABLE_KEY_POINTER) return Ostrel_Table_Pointer_GetNode(h_, as_pointer(k), v, len);
        return Ostrel_Table_ByteArray_GetNode(h_, k.data(), static_cast<uint32_t>(k.size()), v, len);
    }
    uint32_t update(const std::string &k, const void *v, uint32_t len) {
        if (type_ == TABLE_KEY_STRING) return Ostrel_Table_String_UpdateNode(h_, k.c_str(), v, len);
        if (type_ == TABLE_KEY_POINTER) return Ostrel_Table_Pointer_UpdateNode(h_, as_pointer(k), v, len);
        return Ostrel_Table_ByteArray_UpdateNode(h_, k.data(), static_cast<uint32_t>(k.size()), v, len);
    }
    uint32_t del(const std::string &k) {
        if (type_ == TABLE_KEY_STRING) return Ostrel_Table_String_DelNode(h_, k.c_str());
        if (type_ == TABLE_KEY_POINTER) return Ostrel_Table_Pointer_DelNode(h_, as_pointer(k));
        return Ostrel_Table_ByteArray_DelNode(h_, k.data(), static_cast<uint32_t>(k.size()));
    }
    // One step; false at the end of the walk.
    bool step(OstrelTableIterHandle it, std::string *key, void **v, uint32_t *len) {
        uint32_t rc = 0;
        bool got = false;
        if (type_ == TABLE_KEY_STRING) {
            const char *k = nullptr;
            rc = Ostrel_Table_String_Iterate(it, &k, v, len);
            if (k != nullptr) *key = k;
            got = k != nullptr;
        } else if (type_ == TABLE_KEY_POINTER) {
            const void *k = &rng_;
            rc = Ostrel_Table_Pointer_Iterate(it, &k, v, len);
            uintptr_t u = reinterpret_cast<uintptr_t>(k);
            key->assign(reinterpret_cast<const char *>(&u), sizeof u);
            got = true; // a null pointer is a key: the caller steps by count
        } else {
            const void *k = nullptr;
            uint32_t klen = 0;
            rc = Ostrel_Table_ByteArray_Iterate(it, &k, &klen, v, len);
            if (k != nullptr) key->assign(static_cast<const char *>(k), klen);
            got = k != nullptr;
        }
        EXPECT_EQ(rc, 0u);
        return got;
    }

    // The step after the last node returns a null key.
    void expect_end(OstrelTableIterHandle it) {
        if (type_ == TABLE_KEY_POINTER) {
            const void *k = &rng_;
            ASSERT_EQ(Ostrel_Table_Pointer_Iterate(it, &k, nullptr, nullptr), 0u);
            ASSERT_EQ(k, nullptr);
            return;
        }
        std::string k;
        void *v = nullptr;
        uint32_t len = 0;
        ASSERT_FALSE(step(it, &k, &v, &len));
    }

    bool value_matches(const Value &m, const void *v, uint32_t len) const {
        if (len != (m.own ? m.bytes.size() : m.len)) return false;
        if (!m.own) return v == m.ptr;
        return v != nullptr && memcmp(v, m.bytes.data(), len) == 0;
    }

    // Count, contents and forward order against the model, plus every link.
    void check(int op) {
        uint32_t n = 0;
        ASSERT_EQ(Ostrel_Table_GetCount(h_, &n), 0u);
        ASSERT_EQ(n, model_.size()) << "op " << op;
        ASSERT_STREQ(__OSL_Table_Verify(h_, nullptr, nullptr), nullptr) << "op " << op;
        OstrelTableIterHandle it = nullptr;
        ASSERT_EQ(Ostrel_Table_BeginIterate(h_, &it, TABLE_ITERATE_FORWARD), 0u);
        for (uint32_t i = 0; i < n; ++i) {
            std::string k;
            void *v = nullptr;
            uint32_t len = 0;
            ASSERT_TRUE(step(it, &k, &v, &len));
            ASSERT_EQ(k, order_[i]) << "op " << op << " position " << i;
            ASSERT_TRUE(value_matches(model_[k], v, len)) << "op " << op;
        }
        expect_end(it);
        ASSERT_EQ(Ostrel_Table_EndIterate(it), 0u);
    }

    // A walk in a random order that marks random nodes; the marks are
    // carried out at the next step or at the end. Sorted walks visit the
    // model's order as it was when the walk began.
    void walk_with_marks(int op) {
        uint32_t mode = rng_() % 3;
        OstrelTableIterHandle it = nullptr;
        ASSERT_EQ(Ostrel_Table_BeginIterate(h_, &it, mode), 0u);
        std::vector<std::string> expect = order_;
        if (mode == TABLE_ITERATE_BACKWARD) std::reverse(expect.begin(), expect.end());
        size_t steps = rng_() % (expect.size() + 2);
        std::map<std::string, std::pair<int, Value>> marks; // 1 delete, 2 update
        std::set<std::string> seen;
        for (size_t i = 0; i < steps; ++i) {
            std::string k;
            void *v = nullptr;
            uint32_t len = 0;
            if (i == expect.size()) { // past the last node
                expect_end(it);
                ASSERT_EQ(Ostrel_Table_IterateDel(it), OSL_ERR_NOT_FOUND);
                break;
            }
            ASSERT_TRUE(step(it, &k, &v, &len));
            if (mode == TABLE_ITERATE_BUCKET)
                ASSERT_TRUE(model_.count(k) == 1 && seen.insert(k).second) << "op " << op;
            else
                ASSERT_EQ(k, expect[i]) << "op " << op;
            ASSERT_TRUE(value_matches(model_[k], v, len)) << "op " << op;
            for (int m = rng_() % 6 == 0 ? 1 + static_cast<int>(rng_() % 2) : 0; m > 0; --m) {
                if (rng_() % 2 == 0) {
                    ASSERT_EQ(Ostrel_Table_IterateDel(it), 0u);
                    marks[k] = {1, Value()};
                } else {
                    auto nv = random_value();
                    ASSERT_EQ(Ostrel_Table_IterateUpdate(it, nv.first, nv.second), 0u);
                    marks[k] = {2, expect_value(nv.first, nv.second, true)};
                }
            }
        }
        ASSERT_EQ(Ostrel_Table_EndIterate(it), 0u);
        for (const auto &m : marks) {
            if (m.second.first == 1)
                model_erase(m.first);
            else
                model_[m.first] = m.second.second;
        }
    }

    void run(int ops) {
        for (int op = 0; op < ops; ++op) {
            const std::string &k = keys_[rng_() % keys_.size()];
            bool present = model_.count(k) != 0;
            // The first third mostly fills the table, the rest churns it.
            unsigned pick = rng_() % 100;
            if (op < ops / 3 && pick >= 35 && pick < 65) pick = 0;
            if (pick < 35) {
                auto v = random_value();
                ASSERT_EQ(add(k, v.first, v.second), present ? OSL_ERR_DUPLICATE_KEY : 0u) << "op " << op;
                if (!present) model_insert(k, expect_value(v.first, v.second, false));
            } else if (pick < 50) {
                void *v = nullptr;
                uint32_t len = 0;
                ASSERT_EQ(get(k, &v, &len), present ? 0u : OSL_ERR_NOT_FOUND) << "op " << op;
                if (present) {
                    ASSERT_TRUE(value_matches(model_[k], v, len)) << "op " << op;
                }
            } else if (pick < 72) {
                auto v = random_value();
                ASSERT_EQ(update(k, v.first, v.second), present ? 0u : OSL_ERR_NOT_FOUND) << "op " << op;
                if (present) model_[k] = expect_value(v.first, v.second, false);
            } else if (pick < 90) {
                ASSERT_EQ(del(k), present ? 0u : OSL_ERR_NOT_FOUND) << "op " << op;
                if (present) model_erase(k);
            } else if (pick < 98) {
                walk_with_marks(op);
            } else if (pick < 99) {
                ASSERT_EQ(Ostrel_Table_SetProperty(h_, TABLE_PROP_RANGE, 1 + rng_() % 300), 0u);
            } else {
                ASSERT_EQ(Ostrel_Table_SetProperty(h_, TABLE_PROP_REFRESH_THRESHOLD, 1 + rng_() % 400), 0u);
            }
            check(op);
            if (HasFatalFailure()) return;
        }
    }
};

TEST_P(TableModel, AgreesWithStdMapAfterEveryStep) {
    run(6000);
    EXPECT_GT(model_.size(), 20u); // the run kept a populated table, not an empty one
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
