// Random sequences of table operations checked against a model (a hash map,
// the sorted list and the bucket range worked out again). tests/test_table.cpp
// runs the same model over seeded inputs for every key type, storage mode and
// sort order.
//
// Input: a configuration byte (bits 0-1 key type, bit 2 copy mode, bits 4-6
// bucket range, bit 7 key order), the refresh threshold (0: the default) and
// step (9 modulo 10: the default), then operations: an opcode byte, two key
// bytes and the value bytes. Bit 3 with range bits 7, in an input of 64
// bytes or more whose checksum() is 0, makes the big table: TABLE_RANGE_MAX
// buckets from the start, filled around the line of 2 nodes a bucket past
// which it keeps its lookup index (the threshold byte picks the count), half
// of its keys present, and at most 128 operations. Adds, gets, updates and deletes;
// calls in the form of another key type; changes of range, threshold, step
// and sort function, refused ones included, the sort function also right
// after emptying the table; walks in the three orders that mark deletes and
// updates as they go.
// Before every walk and after every operation the count, the range, every
// link of the table, and a walk of the sorted list with every value must
// agree with the model; in the big table that full check comes every 64th
// operation and at the end, and the count and whether the index is kept are
// checked after every operation.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ostrel_table.h"
#include "fuzz_check.h"

const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);
uintptr_t __OSL_Table_GetByteArrayIndex(const void *pKey, uint32_t uiKeyLength);
uint64_t __OSL_Table_IndexHeads(void *hTable);

namespace table_model {

struct Limits { int ops; uint32_t keys; }; // operations per input at most, distinct keys to draw from

// A big table costs as much as hundreds of small inputs under the
// sanitizers, so it also needs an input long enough for some operations and
// this weighted sum of all its bytes to be 0. Any change of one byte alters
// the sum, so a mutation seldom keeps a big input big (with the configuration
// bits alone the fuzzer kept mutating the big inputs it had found: one run in
// 25 was big, and throughput fell twentyfold). Changing the last byte by d
// changes the sum by d.
inline uint8_t checksum(const uint8_t *p, size_t n) {
    uint8_t h = 0;
    for (size_t i = 0; i < n; ++i) h = static_cast<uint8_t>(h * 31u + p[i]);
    return h;
}

// A key as bytes: a string without its NUL, a byte array, or a pointer value.
using Key = std::string;
// A value as the table should hold it: its own copy of the bytes, or the
// caller's pointer and length as given.
struct Value { bool own = false; std::string bytes; const void *ptr = nullptr; uint32_t len = 0; };

enum { kAdd, kGet, kUpdate, kDel };
// Sorted-list orders: newest first, by key, by the string order that an
// emptied table set back to the default keeps, and a caller's order that puts
// each new node last.
enum Order { kInsertion, kKey, kString, kAppend };
inline int32_t append_order(const void *, uint32_t, const void *, uint32_t) { return -1; }

class Model {
public:
    Model(const uint8_t *p, size_t n, Limits lim) : p_(p), n_(n), lim_(lim), big_(n >= 64 && (*p & 0x78) == 0x78 && checksum(p, n) == 0) {}

    // Runs the input; returns the largest number of nodes the table held.
    size_t run() {
        const uint8_t cfg = byte(), threshold = byte(), step = byte();
        type_ = 1u + (cfg & 3u) % 3u;
        storage_ = cfg >> 2 & 1;
        range_ = step_ = big_ ? TABLE_RANGE_MAX : 1u + (cfg >> 4 & 7u) * 3u;
        check(Ostrel_Table_Create(&h_, range_, storage_) == 0);
        if (threshold != 0) set(TABLE_PROP_REFRESH_THRESHOLD, thr_ = 1u + threshold * 4u % 1000u);
        if (step % 10 != 9) set(TABLE_PROP_REFRESH_STEP, step_ = step % 10u);
        if (cfg & 0x80) set(TABLE_PROP_SORT_FUNCTION, 0), order_ = kKey;
        // The big table: 16,380 to 16,387 nodes, so that a few adds or
        // deletes take the count across 2 * TABLE_RANGE_MAX.
        const uint32_t keys = big_ ? fill(2 * TABLE_RANGE_MAX - 4 + threshold % 8u) : lim_.keys;
        size_t peak = values_.size();
        for (int i = 0; i < (big_ ? std::min(lim_.ops, 128) : lim_.ops) && n_ != 0; ++i) {
            const uint32_t o = byte(), high = byte();
            const Key k = key_of((high << 8 | byte()) % keys);
            const bool present = values_.count(k) != 0;
            auto v = value();
            void *got = nullptr;
            uint32_t got_len = 0;
            if (o % 16 < 13) {
                const int op = o % 16 < 6 ? kAdd : o % 16 < 8 ? kGet : o % 16 < 11 ? kUpdate : kDel;
                const uint32_t want = op == kAdd ? (present ? OSL_ERR_DUPLICATE_KEY : 0u) : (present ? 0u : OSL_ERR_NOT_FOUND);
                void *held = nullptr; // a value the node holds: given back in part, or kept in place by a value that fits
                if (op == kUpdate && present && values_[k].own) check(call(kGet, type_, k, nullptr, 0, &held, &got_len) == 0);
                if (held != nullptr && o >> 4 == 0) v = {held, got_len / 2};
                const Value e = expect(v.first, v.second, false);
                check(call(op, type_, k, v.first, v.second, &got, &got_len) == want);
                check(op != kGet || !present || matches(values_[k], got, got_len));
                if (op == kAdd && !present) insert(k, e), fixed_ = true;
                if (op == kUpdate && present) values_[k] = e;
                if (op == kDel && present) erase(k);
                if (held != nullptr && e.own && storage_ == NODE_STORAGE_COPY)
                    check(call(kGet, type_, k, nullptr, 0, &got, nullptr) == 0 && (got == held) == (v.second <= got_len));
            } else if (o % 16 == 13) { // another form is refused once the key type is fixed
                check(!fixed_ || call(o / 16 % 4, 1u + (type_ + o / 64 % 2) % 3u, k, v.first, v.second, &got, &got_len) == OSL_ERR_INVALID_PARAMETER);
            } else if (o % 16 == 14) {
                const uint32_t mode = byte() % 3u;
                walk(mode, byte() % (values_.size() + 2), 1);
            } else {
                property(o >> 4, byte());
            }
            if (!big_ || i % 64 == 63) walk(TABLE_ITERATE_FORWARD, values_.size() + 1, 0);
            else counted();
            peak = std::max(peak, values_.size());
        }
        if (big_) walk(TABLE_ITERATE_FORWARD, values_.size() + 1, 0);
        check(Ostrel_Table_Destroy(h_) == 0);
        return peak;
    }

private:
    uint8_t byte() { return n_ == 0 ? 0 : (--n_, *p_++); }
    void set(int prop, uintptr_t v) { check(Ostrel_Table_SetProperty(h_, prop, v) == 0); }

    // Adds the keys of the even numbers below 2 * count, the model taking
    // them in bulk: each goes to the head of the sorted list (checked by the
    // model's own rule: the head does not sort before it), so in key order
    // they come largest first. Numbers are sorted by their key's digits (as
    // key_of makes them, first one first, padded to 16) without comparing
    // strings, which the fuzzer's tracing of memcmp makes slow; pointers by
    // the number, as their low half grows with it. Values have up to 15
    // bytes, some none. Returns how many keys the operations draw from: the
    // odd ones are new.
    uint32_t fill(uint32_t count) {
        std::vector<std::pair<uint64_t, uint32_t>> ids;
        values_.reserve(2 * count);
        for (uint32_t id = 0, len = 0; id < 2 * count; id += 2, len = 0) {
            uint64_t rank = id;
            if (type_ != TABLE_KEY_POINTER)
                for (uint32_t i = id; i != 0; i = (i - 1) / 3) rank = (len++ == 0 ? 0 : rank * 4) + (i - 1) % 3 + 1;
            ids.emplace_back(type_ == TABLE_KEY_POINTER ? rank : rank << 2 * (16 - len), id);
        }
        if (order_ == kKey) std::sort(ids.rbegin(), ids.rend());
        for (uint32_t i = 0; i < count; ++i) {
            const Key k = key_of(ids[i].second);
            check(call(kAdd, type_, k, kPool + i % 50, i % 16, nullptr, nullptr) == 0);
            check(order_list_.empty() || compare(order_list_.back(), k) >= 0);
            values_.emplace(k, expect(kPool + i % 50, i % 16, false));
            order_list_.push_back(k);
        }
        std::reverse(order_list_.begin(), order_list_.end());
        fixed_ = true;
        return 2 * count;
    }
    // The count; in the big table (whose range stays) also its lookup index:
    // there past 2 nodes a bucket, gone under 1, with at least 2 heads a node.
    void counted() {
        uint32_t count = 0;
        check(Ostrel_Table_GetCount(h_, &count) == 0 && count == values_.size());
        const uint64_t heads = big_ ? __OSL_Table_IndexHeads(h_) : 0;
        check(!big_ || (heads == 0 ? count <= 2 * range_ : count >= range_ && heads >= 2 * uint64_t{count}));
    }

    // Growth after an add or a threshold change (forced: after a range change,
    // also at the new range itself).
    void refresh(bool forced) {
        if (values_.size() * 100 / range_ > thr_ && (forced || (range_ < TABLE_RANGE_MAX && step_ != 0)))
            range_ = std::min(range_ + step_, static_cast<uint32_t>(TABLE_RANGE_MAX));
    }
    // Sort function (which = 0 empties the table first), range, threshold or
    // step; values out of range are refused and change nothing.
    void property(uint32_t which, uint32_t b) {
        if (which < 2) {
            if (which == 0) walk(TABLE_ITERATE_FORWARD, values_.size() + 1, 2);
            const uintptr_t fn = b & 1 ? reinterpret_cast<uintptr_t>(&append_order) : 0;
            check(Ostrel_Table_SetProperty(h_, TABLE_PROP_SORT_FUNCTION, fn) == (values_.empty() ? 0 : OSL_ERR_NOT_EMPTY));
            // A new table takes its key type's order at the first add, whatever was set.
            if (values_.empty()) order_ = !fixed_ ? kKey : fn ? kAppend : kString;
            return;
        }
        const int prop = which < 7 ? TABLE_PROP_RANGE : which < 12 ? TABLE_PROP_REFRESH_THRESHOLD : TABLE_PROP_REFRESH_STEP;
        const uint32_t v = b >= 250 ? b * 40 : prop == TABLE_PROP_REFRESH_THRESHOLD ? b % 64 * 4
                           : prop == TABLE_PROP_RANGE ? (b & 1 ? range_ + b % 8 : 1 + b % 64) : b % 9;
        const bool bad = prop == TABLE_PROP_REFRESH_THRESHOLD ? v == 0 || v > 1000 : v > TABLE_RANGE_MAX;
        check(Ostrel_Table_SetProperty(h_, prop, v) == (bad ? OSL_ERR_INVALID_PARAMETER : 0));
        if (!bad && prop == TABLE_PROP_REFRESH_STEP) step_ = v;
        if (!bad && prop == TABLE_PROP_REFRESH_THRESHOLD) thr_ = v, refresh(false);
        if (!bad && prop == TABLE_PROP_RANGE && v > range_) range_ = v, refresh(true); // the range never shrinks
    }

    // Key number i: a pointer, two of each low half, or a string of "abc"
    // (byte arrays: of NUL, 'a' and 'b') counted shortest first, so that keys
    // are often prefixes of one another.
    Key key_of(uint32_t i) const {
        const uintptr_t pointer = (i >> 1) * 8 + (i & 1) * static_cast<uintptr_t>(0x10000000000ull);
        if (type_ == TABLE_KEY_POINTER) return Key(reinterpret_cast<const char *>(&pointer), sizeof pointer);
        Key k; // letters by arithmetic: GCC 12 with -fsanitize=undefined misreads "\0ab"[n] picked by a condition
        for (uint32_t d; i != 0; i = (i - 1) / 3)
            d = (i - 1) % 3, k += static_cast<char>(type_ == TABLE_KEY_STRING ? 'a' + d : d == 0 ? 0 : 'a' + d - 1);
        return k;
    }
    static uintptr_t as_pointer(const Key &k) {
        uintptr_t v = 0;
        return memcpy(&v, k.data(), std::min(k.size(), sizeof v)), v;
    }
    // Values point into a pool that outlives the tables (reference mode keeps
    // the pointers); some are null or empty.
    static constexpr char kPool[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::pair<const void *, uint32_t> value() {
        const uint8_t b = byte();
        if (b % 10 == 0) return {nullptr, b % 3u};
        return {kPool + b % 50, byte() % 41u};
    }
    // Copied in copy mode (an iterator's update always holds a copy) when
    // there are bytes; else kept as given (a node keeps a buffer of its own it
    // is given back).
    Value expect(const void *p, uint32_t len, bool by_iterator) const {
        const bool own = p != nullptr && len != 0 && (storage_ == NODE_STORAGE_COPY || by_iterator);
        return own ? Value{true, std::string(static_cast<const char *>(p), len), nullptr, 0} : Value{false, "", p, len};
    }
    static bool matches(const Value &m, const void *v, uint32_t len) {
        if (!m.own) return v == m.ptr && len == m.len;
        return v != nullptr && reinterpret_cast<uintptr_t>(v) % alignof(max_align_t) == 0 && len == m.bytes.size() &&
               memcmp(v, m.bytes.data(), len) == 0;
    }

    // The sort function of the table's order, written out again, and the
    // sorted insertion: before the first node that does not sort before.
    int compare(const Key &a, const Key &b) const {
        if (order_ == kInsertion || order_ == kAppend) return order_ == kInsertion ? 1 : -1;
        if (type_ == TABLE_KEY_POINTER) return order_ == kString ? 0 : static_cast<int32_t>(as_pointer(a) - as_pointer(b));
        if (type_ == TABLE_KEY_STRING || order_ == kString) return strcmp(a.c_str(), b.c_str());
        return std::min(a.size(), b.size()) == 0 ? 0 : memcmp(a.data(), b.data(), std::min(a.size(), b.size()));
    }
    void insert(const Key &k, const Value &v) {
        values_[k] = v;
        auto at = order_list_.begin();
        while (at != order_list_.end() && compare(*at, k) < 0) ++at;
        order_list_.insert(at, k);
        refresh(false);
    }
    void erase(const Key &k) {
        values_.erase(k);
        order_list_.erase(std::find(order_list_.begin(), order_list_.end(), k));
    }
    uint32_t bucket(const Key &k) const { // strings hash as the bytes before their NUL
        const uintptr_t index = type_ == TABLE_KEY_POINTER ? as_pointer(k) : __OSL_Table_GetByteArrayIndex(k.data(), static_cast<uint32_t>(k.size()));
        return static_cast<uint32_t>(index) % range_; // the low 32 bits
    }

    // op in the form of key type `form`; v and len are the value, pv and plen
    // the outputs of a get.
    uint32_t call(int op, uint32_t form, const Key &k, const void *v, uint32_t len, void **pv, uint32_t *plen) {
        const char *s = k.c_str();
        const void *p = type_ == TABLE_KEY_POINTER ? reinterpret_cast<const void *>(as_pointer(k)) : k.data();
        const auto kl = static_cast<uint32_t>(k.size());
        switch (op * 4 + static_cast<int>(form)) {
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
    // One step; false when the key comes back null (for pointer keys that is
    // also the null pointer key, so pointer walks go by the count).
    bool step(OstrelTableIterHandle it, Key *k, void **v, uint32_t *len) const {
        const char *s = nullptr;
        const void *p = nullptr;
        uint32_t kl = 0;
        check((type_ == TABLE_KEY_STRING    ? Ostrel_Table_String_Iterate(it, &s, v, len)
               : type_ == TABLE_KEY_POINTER ? Ostrel_Table_Pointer_Iterate(it, &p, v, len)
                                            : Ostrel_Table_ByteArray_Iterate(it, &p, &kl, v, len)) == 0);
        if (s != nullptr) p = s, kl = static_cast<uint32_t>(strlen(s));
        const uintptr_t u = reinterpret_cast<uintptr_t>(p);
        if (type_ == TABLE_KEY_POINTER) k->assign(reinterpret_cast<const char *>(&u), sizeof u);
        else if (p != nullptr) k->assign(static_cast<const char *>(p), kl);
        return p != nullptr;
    }

    // A walk of `steps` steps in one order: keys in the model's order (bucket
    // order: each once, by ascending bucket), values as the model holds them.
    // With marks (1: random, 2: delete every node), nodes are marked for
    // deletion or a new value (a later mark replaces an earlier one); the
    // model takes the marks when the walk is closed. A random walk has a
    // second iterator, opened just before or after it and stepped once, that
    // follows its changes: its node is gone (nothing to mark) or takes a new
    // value through it, and it goes on from where it was. The table's links
    // are checked first (in the big table not again for the second iterator).
    void walk(uint32_t mode, size_t steps, int marks, OstrelTableIterHandle it = nullptr, const Key *skip = nullptr) {
        uint32_t range = range_, last = 0;
        check((big_ && it != nullptr) || (__OSL_Table_Verify(h_, &range, nullptr) == nullptr && range == range_));
        counted();
        OstrelTableIterHandle other = nullptr;
        Key first, k;
        void *v = nullptr;
        uint32_t len = 0;
        const bool other_first = marks == 1 && byte() % 2 == 0; // either may be the newer one
        if (other_first) check(Ostrel_Table_BeginIterate(h_, &other, mode) == 0);
        if (it == nullptr) check(Ostrel_Table_BeginIterate(h_, &it, mode) == 0);
        if (marks == 1 && !other_first) check(Ostrel_Table_BeginIterate(h_, &other, mode) == 0);
        if (marks == 1) check(step(other, &first, &v, &len) || values_.empty() || type_ == TABLE_KEY_POINTER);
        std::vector<Key> want = order_list_;
        if (mode == TABLE_ITERATE_BACKWARD) std::reverse(want.begin(), want.end());
        if (skip != nullptr) want.erase(std::find(want.begin(), want.end(), *skip));
        std::map<Key, std::pair<bool, Value>> marked;
        std::unordered_set<Key> seen;
        for (size_t i = 0; i < steps; ++i) {
            const bool got = step(it, &k, &v, &len);
            if (i == want.size()) { // past the last node, and it stays there
                check(!got && !step(it, &k, &v, &len) && Ostrel_Table_IterateDel(it) == OSL_ERR_NOT_FOUND);
                break;
            }
            const auto at = values_.find(k); // each key once: in bucket order by the set, else as the model's order has it
            check((got || type_ == TABLE_KEY_POINTER) && at != values_.end() && (mode != TABLE_ITERATE_BUCKET || seen.insert(k).second));
            check(matches(at->second, v, len) && (mode != TABLE_ITERATE_BUCKET ? k == want[i] : bucket(k) >= last));
            if (mode == TABLE_ITERATE_BUCKET) last = bucket(k);
            static const char *const kMarks[] = {"", "d", "u", "du", "ud"};
            const uint8_t m = marks == 2 ? 1 : marks ? byte() % 12 : 0;
            for (const char *c = m < 5 ? kMarks[m] : ""; *c != '\0'; ++c) {
                const auto nv = value();
                check((*c == 'd' ? Ostrel_Table_IterateDel(it) : Ostrel_Table_IterateUpdate(it, nv.first, nv.second)) == 0);
                marked[k] = {*c == 'd', expect(nv.first, nv.second, true)};
            }
        }
        check(Ostrel_Table_EndIterate(it) == 0);
        for (const auto &m : marked) m.second.first ? void(values_.erase(m.first)) : void(values_[m.first] = m.second.second);
        if (order_list_.size() != values_.size()) // the deleted keys leave the sorted list in one pass
            order_list_.erase(std::remove_if(order_list_.begin(), order_list_.end(), [this](const Key &x) { return values_.count(x) == 0; }),
                              order_list_.end());
        if (other == nullptr) return;
        const auto nv = value();
        const bool kept = values_.count(first) != 0;
        check(Ostrel_Table_IterateUpdate(other, nv.first, nv.second) == (kept ? 0 : OSL_ERR_NOT_FOUND));
        if (kept) values_[first] = expect(nv.first, nv.second, true); // carried out at its first step below
        // To the end, or in the big table its first 256 steps.
        walk(mode, std::min<size_t>(values_.size() + !kept, big_ ? 256 : SIZE_MAX), 0, other, kept ? &first : nullptr);
    }

    const uint8_t *p_;
    size_t n_;
    Limits lim_;
    uint32_t type_ = 0, range_ = 1, thr_ = 75, step_ = 1;
    int storage_ = 0;
    Order order_ = kInsertion;
    bool fixed_ = false;
    const bool big_;
    OstrelTableHandle h_ = nullptr;
    std::unordered_map<Key, Value> values_;
    std::vector<Key> order_list_; // the sorted list, head first
};

inline size_t run(const uint8_t *data, size_t size, Limits lim) { return Model(data, size, lim).run(); }

} // namespace table_model

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    table_model::run(data, size, {400, 121});
    return 0;
}
