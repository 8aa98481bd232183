// Random sequences of table operations checked against a model.
//
// The first byte picks the key type, the storage mode, insertion or key
// order, and the bucket range; the next two the refresh threshold and step.
// A first byte of 0x08 to 0x0F with a threshold byte of 0xFF starts past the
// bucket cap instead: 8192 buckets holding 17,000 keys of their own, so that
// lookups go through the table's index. Such a start is slow, so the seeds
// that take it are kept apart, in fuzz/corpus/table_past_cap.
// Then each operation takes an opcode byte and its key and value bytes: add,
// get, update, delete, a wrong-form call, a range change, and walks in the
// three orders with deletes and updates marked during the walk and changes
// that the open iterator must refuse. Keys come from a small alphabet so
// that duplicates, collisions and growth happen often.
//
// After every operation the count and the table's own link check (past 4096
// nodes: every 64th operation) must agree with the model; every get returns the model's bytes; sorted walks visit
// the nodes in the model's order (insertion order: newest first, updates
// keep their place; string key order: strcmp order); every walk visits each
// node once. Leaks show through the sanitizer at the end of each input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "ostrel_common.h"
#include "ostrel_table.h"
#include "fuzz_check.h"

const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain);


namespace {



struct Input {
    const uint8_t *p;
    size_t n;
    bool empty() const { return n == 0; }
    uint8_t byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
};

// Key bytes as the model keeps them: the string without its NUL, the bytes of
// a byte array, or the 8 bytes of a pointer value.
using Key = std::string;

class TableUnderTest {
public:
    explicit TableUnderTest(int key_type) : type_(key_type) {}

    int type() const { return type_; }

    Key make_key(Input &in) const {
        const uint8_t b = in.byte();
        if (type_ == TABLE_KEY_POINTER) {
            uintptr_t v = static_cast<uintptr_t>(b % 24u) * (b & 0x80u ? 0x100000001u : 1u); // null included
            return Key(reinterpret_cast<const char *>(&v), sizeof v);
        }
        const size_t len = type_ == TABLE_KEY_STRING ? b % 5u : 1u + b % 5u;
        Key k;
        for (size_t i = 0; i < len; ++i) k += static_cast<char>('a' + in.byte() % 3u);
        return k;
    }

    static const void *ptr_of(const Key &k) {
        uintptr_t v;
        memcpy(&v, k.data(), sizeof v);
        return reinterpret_cast<const void *>(v);
    }

    // Calls the form of the table's key type, or of another one if asked.
    uint32_t add(void *t, const Key &k, const void *v, uint32_t len, int form) const {
        switch (form) {
        case TABLE_KEY_STRING: return Ostrel_Table_String_AddNode(t, k.c_str(), v, len);
        case TABLE_KEY_POINTER: return Ostrel_Table_Pointer_AddNode(t, ptr_of(pad(k)), v, len);
        default: return Ostrel_Table_ByteArray_AddNode(t, k.data(), size32(k), v, len);
        }
    }
    uint32_t get(void *t, const Key &k, void **v, uint32_t *len, int form) const {
        switch (form) {
        case TABLE_KEY_STRING: return Ostrel_Table_String_GetNode(t, k.c_str(), v, len);
        case TABLE_KEY_POINTER: return Ostrel_Table_Pointer_GetNode(t, ptr_of(pad(k)), v, len);
        default: return Ostrel_Table_ByteArray_GetNode(t, k.data(), size32(k), v, len);
        }
    }
    uint32_t update(void *t, const Key &k, const void *v, uint32_t len) const {
        switch (type_) {
        case TABLE_KEY_STRING: return Ostrel_Table_String_UpdateNode(t, k.c_str(), v, len);
        case TABLE_KEY_POINTER: return Ostrel_Table_Pointer_UpdateNode(t, ptr_of(k), v, len);
        default: return Ostrel_Table_ByteArray_UpdateNode(t, k.data(), size32(k), v, len);
        }
    }
    uint32_t del(void *t, const Key &k) const {
        switch (type_) {
        case TABLE_KEY_STRING: return Ostrel_Table_String_DelNode(t, k.c_str());
        case TABLE_KEY_POINTER: return Ostrel_Table_Pointer_DelNode(t, ptr_of(k));
        default: return Ostrel_Table_ByteArray_DelNode(t, k.data(), size32(k));
        }
    }
    // One step; false at the end of the walk.
    bool step(void *it, Key &k, void **v, uint32_t *len) const {
        const char *s = nullptr;
        const void *p = nullptr;
        uint32_t kl = 0;
        check((type_ == TABLE_KEY_STRING    ? Ostrel_Table_String_Iterate(it, &s, v, len)
               : type_ == TABLE_KEY_POINTER ? Ostrel_Table_Pointer_Iterate(it, &p, v, len)
                                            : Ostrel_Table_ByteArray_Iterate(it, &p, &kl, v, len)) == 0);
        const uintptr_t u = reinterpret_cast<uintptr_t>(p);
        if (type_ == TABLE_KEY_POINTER) {
            k.assign(reinterpret_cast<const char *>(&u), sizeof u);
            return true; // the null key is a key here: the caller counts steps
        }
        if (s != nullptr) k.assign(s);
        if (p != nullptr) k.assign(static_cast<const char *>(p), kl);
        return s != nullptr || p != nullptr;
    }

private:
    static uint32_t size32(const Key &k) { return static_cast<uint32_t>(k.size()); }
    // A key of another type used with the pointer form: any 8 bytes do.
    static Key pad(const Key &k) {
        Key p = k;
        p.resize(sizeof(uintptr_t), '\0');
        return p;
    }

    int type_;
};

struct Model {
    std::map<Key, std::string> values;
    std::list<Key> order; // sorted-list order of the table, head first
    bool insertion_order = true;
    bool key_type_fixed = false;

    void add(const Key &k, const std::string &v) {
        values[k] = v;
        if (insertion_order) {
            order.push_front(k);
        } else {
            auto at = order.begin();
            while (at != order.end() && *at < k) ++at; // string keys: strcmp order
            order.insert(at, k);
        }
    }
    void erase(const Key &k) {
        values.erase(k);
        order.remove(k);
    }
};

void check_value(const Model &m, const Key &k, const void *v, uint32_t len) {
    const std::string &want = m.values.at(k);
    check(len == want.size());
    check(v != nullptr && memcmp(v, want.data(), len) == 0);
}

void check_table(void *t, const Model &m, int op) {
    uint32_t count = 0;
    check(Ostrel_Table_GetCount(t, &count) == 0 && count == m.values.size());
    uint32_t range = 0, longest = 0;
    if (count > 4096 && op % 64 != 0) return;
    check(__OSL_Table_Verify(t, &range, &longest) == nullptr);
    check(range >= 1 && range <= TABLE_RANGE_MAX);
}

// A walk in one of the three orders, with deletes and updates marked on the
// way and changes the open table must refuse.
void walk(void *t, const TableUnderTest &tut, Model &m, Input &in, std::deque<std::string> &arena) {
    const uint32_t mode = in.byte() % 3u;
    OstrelTableIterHandle it = nullptr;
    check(Ostrel_Table_BeginIterate(t, &it, mode) == 0 && it != nullptr);
    std::vector<Key> seen;
    enum { kNone, kDel, kUpd } pending = kNone;
    Key pending_key;
    std::string pending_value;
    auto apply = [&] {
        if (pending == kDel) m.erase(pending_key);
        if (pending == kUpd) m.values[pending_key] = pending_value;
        pending = kNone;
    };
    const size_t total = m.values.size();
    for (size_t i = 0; i < total; ++i) {
        Key k;
        void *v = nullptr;
        uint32_t len = 0;
        const bool got = tut.step(it, k, &v, &len);
        apply();
        check(got && m.values.count(k) == 1);
        check_value(m, k, v, len);
        seen.push_back(k);
        const uint8_t op = in.byte();
        if (op % 4u == 1) {
            check(Ostrel_Table_IterateDel(it) == 0);
            pending = kDel;
            pending_key = k;
        } else if (op % 4u == 2) {
            arena.emplace_back(1u + op % 13u, static_cast<char>(op));
            const std::string &nv = arena.back();
            check(Ostrel_Table_IterateUpdate(it, nv.data(), static_cast<uint32_t>(nv.size())) == 0);
            pending = kUpd;
            pending_key = k;
            pending_value = nv;
        } else if (op % 4u == 3) {
            const Key other = tut.make_key(in);
            const char one = 'x';
            check(tut.add(t, other, &one, 1, tut.type()) == OSL_ERR_SYSTEM_BUSY);
            check(tut.del(t, k) == OSL_ERR_SYSTEM_BUSY);
            check(tut.update(t, k, &one, 1) == OSL_ERR_SYSTEM_BUSY);
            check(Ostrel_Table_Destroy(t) == OSL_ERR_SYSTEM_BUSY);
        }
    }
    if (tut.type() != TABLE_KEY_POINTER) {
        Key k;
        void *v = nullptr;
        uint32_t len = 0;
        check(!tut.step(it, k, &v, &len)); // the walk is over
        apply();
    }
    check(Ostrel_Table_EndIterate(it) == 0);
    apply();

    // Every node once; sorted walks in the model's order.
    std::vector<Key> sorted_seen = seen;
    std::sort(sorted_seen.begin(), sorted_seen.end());
    check(std::adjacent_find(sorted_seen.begin(), sorted_seen.end()) == sorted_seen.end());
    check(seen.size() == total);
    if (mode != TABLE_ITERATE_BUCKET && (m.insertion_order || tut.type() == TABLE_KEY_STRING)) {
        std::vector<Key> want;
        // The model's order already lacks nodes deleted during the walk, so
        // compare the walk with its own deletions taken out.
        for (const Key &k : seen)
            if (m.values.count(k) != 0) want.push_back(k);
        std::vector<Key> model(m.order.begin(), m.order.end());
        if (mode == TABLE_ITERATE_BACKWARD) std::reverse(model.begin(), model.end());
        check(want == model);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    const uint8_t cfg = in.byte();
    const int key_type = 1 + cfg % 3;
    const int store = (cfg >> 2) & 1 ? NODE_STORAGE_COPY : NODE_STORAGE_REFERENCE;
    const uint32_t range = 1u + ((cfg >> 4) & 0x7u) * 3u;
    OstrelTableHandle t = nullptr;
    check(Ostrel_Table_Create(&t, range, store) == 0 && t != nullptr);
    const uint8_t threshold = in.byte();
    check(Ostrel_Table_SetProperty(t, TABLE_PROP_REFRESH_THRESHOLD, 1u + threshold * 4u % 1000u) == 0);
    check(Ostrel_Table_SetProperty(t, TABLE_PROP_REFRESH_STEP, in.byte() % 9u) == 0);
    Model m;
    if (cfg & 0x80u) {
        check(Ostrel_Table_SetProperty(t, TABLE_PROP_SORT_FUNCTION, 0) == 0);
        m.insertion_order = false;
    }
    TableUnderTest tut(key_type);
    std::deque<std::string> arena(1, "bulk"); // values stay put for reference-mode nodes
    for (uint32_t i = 0; (cfg & 0xF8u) == 0x08u && threshold == 0xFFu && i < 17000; ++i) { // keys no operation makes
        const uintptr_t p = 0x1000000u + 8u * i;
        const Key k = key_type == TABLE_KEY_POINTER ? Key(reinterpret_cast<const char *>(&p), sizeof p) : "z" + std::to_string(i);
        check(i != 0 || Ostrel_Table_SetProperty(t, TABLE_PROP_RANGE, TABLE_RANGE_MAX) == 0);
        check(tut.add(t, k, arena[0].data(), 4, key_type) == 0);
        m.add(k, arena[0]);
        m.key_type_fixed = true;
    }

    for (int ops = 0; !in.empty() && ops < 400; ++ops) {
        const uint8_t op = in.byte();
        const Key k = tut.make_key(in);
        const bool present = m.values.count(k) != 0;
        switch (op % 8u) {
        case 0:
        case 1: { // add
            arena.emplace_back(1u + in.byte() % 17u, static_cast<char>(op));
            const std::string &v = arena.back();
            const uint32_t rc = tut.add(t, k, v.data(), static_cast<uint32_t>(v.size()), key_type);
            check(rc == (present ? OSL_ERR_DUPLICATE_KEY : 0u));
            if (!present) m.add(k, v);
            m.key_type_fixed = true;
            break;
        }
        case 2: { // get
            void *v = nullptr;
            uint32_t len = 0;
            const uint32_t rc = tut.get(t, k, &v, &len, key_type);
            check(rc == (present ? 0u : OSL_ERR_NOT_FOUND));
            if (present) check_value(m, k, v, len);
            break;
        }
        case 3: { // update, longer or shorter than before
            arena.emplace_back(1u + in.byte() % 40u, static_cast<char>(op ^ 0x5A));
            const std::string &v = arena.back();
            const uint32_t rc = tut.update(t, k, v.data(), static_cast<uint32_t>(v.size()));
            check(rc == (present ? 0u : OSL_ERR_NOT_FOUND));
            if (present) m.values[k] = v;
            break;
        }
        case 4: // delete
            check(tut.del(t, k) == (present ? 0u : OSL_ERR_NOT_FOUND));
            if (present) m.erase(k);
            break;
        case 5: { // a form of another key type is refused once the type is fixed
            if (!m.key_type_fixed) break;
            const int other = 1 + (key_type + op / 8 % 2) % 3;
            void *v = nullptr;
            uint32_t len = 0;
            check(tut.get(t, k, &v, &len, other) == OSL_ERR_INVALID_PARAMETER);
            const char one = 'x';
            check(tut.add(t, k, &one, 1, other) == OSL_ERR_INVALID_PARAMETER);
            break;
        }
        case 6: // the range only grows
            check(Ostrel_Table_SetProperty(t, TABLE_PROP_RANGE, 1u + in.byte() * 37u % TABLE_RANGE_MAX) == 0);
            break;
        default:
            walk(t, tut, m, in, arena);
            break;
        }
        check_table(t, m, ops);
    }
    check_table(t, m, 0);
    check(Ostrel_Table_Destroy(t) == 0);
    return 0;
}
