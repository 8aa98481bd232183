// The keyed table against std::unordered_map<std::string, int> and GLib's
// GHashTable with string keys of 16 characters: insert, successful lookup,
// failed lookup and delete, at 1,000 and 6,000 keys (under the 8192-bucket
// cap) and at 30,000, 100,000 and 1,000,000 keys (over it: chains of about
// 3.7, 12 and 122).
//
// Each peer keeps its own copy of every key, as the table does (GHashTable:
// g_strdup with g_free). The table is created with 1024 buckets and grows by
// its default step; unordered_map and GHashTable start at their defaults.
// Lookups walk the keys in a shuffled order. The counter "per_op" is the time
// of one operation; "bytes_per_node" is the heap that a filled table or map
// holds (glibc's mallinfo2, keys included) divided by its number of keys.
// Log lines below ERROR and the table's "Node don't exist."
// lines on misses are filtered by the log threshold (set to OFF), so a miss
// pays for one filtered log call.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "ostrel_table.h"
#include "zurn_general.h"

namespace {

constexpr uint32_t kInitialRange = 1024;

struct Keys {
    std::vector<std::string> present; // inserted, in insertion order
    std::vector<std::string> absent;  // never inserted
    std::vector<size_t> order;        // shuffled indexes for lookups and deletes
};

// 16 hex characters from a mixed counter: distinct, evenly spread.
std::string key16(uint64_t i) {
    uint64_t x = i * 0x9E3779B97F4A7C15ull;
    x ^= x >> 31;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 29;
    char buf[17];
    snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(x));
    return std::string(buf, 16);
}

const Keys &keys(size_t n) {
    static std::map<size_t, Keys> cache;
    auto it = cache.find(n);
    if (it != cache.end()) return it->second;
    static const int quiet = ZurnGeneral_SetLogLevel(16);
    (void)quiet;
    Keys k;
    for (size_t i = 0; i < n; ++i) {
        k.present.push_back(key16(2 * i));
        k.absent.push_back(key16(2 * i + 1));
        k.order.push_back(i);
    }
    std::shuffle(k.order.begin(), k.order.end(), std::mt19937_64(n));
    return cache.emplace(n, std::move(k)).first->second;
}

void per_op(benchmark::State &st, size_t ops_per_iteration) {
    st.counters["per_op"] = benchmark::Counter(static_cast<double>(ops_per_iteration),
                                               benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Values are the addresses of these ints (reference mode keeps the pointer).
const std::vector<int> &values() {
    static const std::vector<int> v(1000000);
    return v;
}

// Heap in use: the arena's allocated chunks plus mmap-ed blocks (large arrays).
size_t heap_in_use() {
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

// Reports the heap that fill() leaves allocated, per key, and returns what
// fill() made.
template <class Fill>
auto measured_fill(benchmark::State &st, size_t n, Fill fill) {
    size_t before = heap_in_use();
    auto made = fill();
    st.counters["bytes_per_node"] = static_cast<double>(heap_in_use() - before) / static_cast<double>(n);
    return made;
}

// --- Ostrel ---------------------------------------------------------------

OstrelTableHandle ostrel_filled(const Keys &k) {
    OstrelTableHandle h = nullptr;
    Ostrel_Table_Create(&h, kInitialRange, NODE_STORAGE_REFERENCE);
    const auto &v = values();
    for (size_t i = 0; i < k.present.size(); ++i) Ostrel_Table_String_AddNode(h, k.present[i].c_str(), &v[i], sizeof(int));
    return h;
}

void BM_Ostrel_Insert(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    const auto &v = values();
    for (auto _ : st) {
        st.PauseTiming();
        OstrelTableHandle h = nullptr;
        Ostrel_Table_Create(&h, kInitialRange, NODE_STORAGE_REFERENCE);
        st.ResumeTiming();
        for (size_t i = 0; i < k.present.size(); ++i)
            benchmark::DoNotOptimize(Ostrel_Table_String_AddNode(h, k.present[i].c_str(), &v[i], sizeof(int)));
        st.PauseTiming();
        Ostrel_Table_Destroy(h);
        st.ResumeTiming();
    }
    per_op(st, k.present.size());
}

void BM_Ostrel_Hit(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    OstrelTableHandle h = measured_fill(st, k.present.size(), [&] { return ostrel_filled(k); });
    size_t i = 0;
    void *pv = nullptr;
    for (auto _ : st) {
        benchmark::DoNotOptimize(Ostrel_Table_String_GetNode(h, k.present[k.order[i]].c_str(), &pv, nullptr));
        benchmark::DoNotOptimize(pv);
        if (++i == k.order.size()) i = 0;
    }
    Ostrel_Table_Destroy(h);
    per_op(st, 1);
}

void BM_Ostrel_Miss(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    OstrelTableHandle h = ostrel_filled(k);
    size_t i = 0;
    void *pv = nullptr;
    for (auto _ : st) {
        benchmark::DoNotOptimize(Ostrel_Table_String_GetNode(h, k.absent[k.order[i]].c_str(), &pv, nullptr));
        if (++i == k.order.size()) i = 0;
    }
    Ostrel_Table_Destroy(h);
    per_op(st, 1);
}

void BM_Ostrel_Delete(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    for (auto _ : st) {
        st.PauseTiming();
        OstrelTableHandle h = ostrel_filled(k);
        st.ResumeTiming();
        for (size_t i : k.order) benchmark::DoNotOptimize(Ostrel_Table_String_DelNode(h, k.present[i].c_str()));
        st.PauseTiming();
        Ostrel_Table_Destroy(h);
        st.ResumeTiming();
    }
    per_op(st, k.present.size());
}

// --- std::unordered_map ----------------------------------------------------

using StdMap = std::unordered_map<std::string, int>;

void std_fill(StdMap &m, const Keys &k) {
    for (size_t i = 0; i < k.present.size(); ++i) m.emplace(k.present[i], static_cast<int>(i));
}

void BM_StdUnorderedMap_Insert(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    for (auto _ : st) {
        st.PauseTiming();
        auto *m = new StdMap;
        st.ResumeTiming();
        for (size_t i = 0; i < k.present.size(); ++i) benchmark::DoNotOptimize(m->emplace(k.present[i], static_cast<int>(i)));
        st.PauseTiming();
        delete m;
        st.ResumeTiming();
    }
    per_op(st, k.present.size());
}

void BM_StdUnorderedMap_Hit(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    StdMap *pm = measured_fill(st, k.present.size(), [&] {
        auto *m = new StdMap;
        std_fill(*m, k);
        return m;
    });
    StdMap &m = *pm;
    size_t i = 0;
    for (auto _ : st) {
        auto it = m.find(k.present[k.order[i]]);
        benchmark::DoNotOptimize(it->second);
        if (++i == k.order.size()) i = 0;
    }
    delete pm;
    per_op(st, 1);
}

void BM_StdUnorderedMap_Miss(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    StdMap m;
    std_fill(m, k);
    size_t i = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(m.find(k.absent[k.order[i]]) == m.end());
        if (++i == k.order.size()) i = 0;
    }
    per_op(st, 1);
}

void BM_StdUnorderedMap_Delete(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    for (auto _ : st) {
        st.PauseTiming();
        auto *m = new StdMap;
        std_fill(*m, k);
        st.ResumeTiming();
        for (size_t i : k.order) benchmark::DoNotOptimize(m->erase(k.present[i]));
        st.PauseTiming();
        delete m;
        st.ResumeTiming();
    }
    per_op(st, k.present.size());
}

// --- GLib GHashTable --------------------------------------------------------

GHashTable *glib_new() { return g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr); }

void glib_fill(GHashTable *t, const Keys &k) {
    for (size_t i = 0; i < k.present.size(); ++i)
        g_hash_table_insert(t, g_strdup(k.present[i].c_str()), GINT_TO_POINTER(static_cast<int>(i) + 1));
}

void BM_GHashTable_Insert(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    for (auto _ : st) {
        st.PauseTiming();
        GHashTable *t = glib_new();
        st.ResumeTiming();
        for (size_t i = 0; i < k.present.size(); ++i)
            benchmark::DoNotOptimize(
                g_hash_table_insert(t, g_strdup(k.present[i].c_str()), GINT_TO_POINTER(static_cast<int>(i) + 1)));
        st.PauseTiming();
        g_hash_table_destroy(t);
        st.ResumeTiming();
    }
    per_op(st, k.present.size());
}

void BM_GHashTable_Hit(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    GHashTable *t = measured_fill(st, k.present.size(), [&] {
        GHashTable *g = glib_new();
        glib_fill(g, k);
        return g;
    });
    size_t i = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(g_hash_table_lookup(t, k.present[k.order[i]].c_str()));
        if (++i == k.order.size()) i = 0;
    }
    g_hash_table_destroy(t);
    per_op(st, 1);
}

void BM_GHashTable_Miss(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    GHashTable *t = glib_new();
    glib_fill(t, k);
    size_t i = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(g_hash_table_lookup(t, k.absent[k.order[i]].c_str()));
        if (++i == k.order.size()) i = 0;
    }
    g_hash_table_destroy(t);
    per_op(st, 1);
}

void BM_GHashTable_Delete(benchmark::State &st) {
    const Keys &k = keys(static_cast<size_t>(st.range(0)));
    for (auto _ : st) {
        st.PauseTiming();
        GHashTable *t = glib_new();
        glib_fill(t, k);
        st.ResumeTiming();
        for (size_t i : k.order) benchmark::DoNotOptimize(g_hash_table_remove(t, k.present[i].c_str()));
        st.PauseTiming();
        g_hash_table_destroy(t);
        st.ResumeTiming();
    }
    per_op(st, k.present.size());
}

} // namespace

#define TABLE_SIZES Arg(1000)->Arg(6000)->Arg(30000)->Arg(100000)->Arg(1000000)
BENCHMARK(BM_Ostrel_Insert)->TABLE_SIZES;
BENCHMARK(BM_StdUnorderedMap_Insert)->TABLE_SIZES;
BENCHMARK(BM_GHashTable_Insert)->TABLE_SIZES;
BENCHMARK(BM_Ostrel_Hit)->TABLE_SIZES;
BENCHMARK(BM_StdUnorderedMap_Hit)->TABLE_SIZES;
BENCHMARK(BM_GHashTable_Hit)->TABLE_SIZES;
BENCHMARK(BM_Ostrel_Miss)->TABLE_SIZES;
BENCHMARK(BM_StdUnorderedMap_Miss)->TABLE_SIZES;
BENCHMARK(BM_GHashTable_Miss)->TABLE_SIZES;
BENCHMARK(BM_Ostrel_Delete)->TABLE_SIZES;
BENCHMARK(BM_StdUnorderedMap_Delete)->TABLE_SIZES;
BENCHMARK(BM_GHashTable_Delete)->TABLE_SIZES;
