// Encoding and decoding one record with Ostrel's serializer (through the C
// calls and through the C++ layer, which must stay within 1.05x of them),
// msgpack-c and tpl, side by side: four 32-bit integers, one 64-bit integer, a 32-character
// string, an array of 16 32-bit integers and a nested record of two integers.
// Each iteration handles one record; the counter bytes_per_record is the
// encoded size. Handles and buffers are reused across records where the
// library allows it. tpl has no nested record type inside a flat map, so its
// nested pair is two more integers.
#include <benchmark/benchmark.h>
#include <msgpack.h>
#include <tpl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ostrel.hpp"
#include "ostrel_common.h"
#include "ostrel_serializer.h"
#include "zurn_general.h"

namespace {

struct Record {
    int32_t i[4];
    int64_t big;
    char str[33];
    int32_t arr[16];
    int32_t nested[2];
};

Record sample() {
    Record r{};
    const int32_t ints[4] = {7, -1200, 305419896, -2023406815};
    memcpy(r.i, ints, sizeof ints);
    r.big = 0x0123456789ABCDEFLL;
    memcpy(r.str, "The quick brown fox jumps over a", 33);
    for (int k = 0; k < 16; ++k) r.arr[k] = k * 40503 - 300000;
    r.nested[0] = 65535;
    r.nested[1] = -3;
    return r;
}

bool same(const Record &a, const Record &b) {
    return memcmp(a.i, b.i, sizeof a.i) == 0 && a.big == b.big && strcmp(a.str, b.str) == 0 &&
           memcmp(a.arr, b.arr, sizeof a.arr) == 0 && memcmp(a.nested, b.nested, sizeof a.nested) == 0;
}

// Services log at WARN or above; "Reuse old serializer" is an INFO line.
void quiet() { ZurnGeneral_SetLogLevel(LOG_LEVEL_WARN); }

// --- Ostrel ------------------------------------------------------------------

struct OstrelCodec {
    Ostrel_Serializer *outer = nullptr, *inner = nullptr;
    Ostrel_Serializer *reader = nullptr, *innerReader = nullptr;
    OstrelCodec() {
        const Ostrel_SerializerConfig c = {0, 0, 4, 1, 0}; // little-endian, A = 4, ordered
        Ostrel_Serializer_SerializeInit(&c, &outer);
        Ostrel_Serializer_SerializeInit(&c, &inner);
    }
    ~OstrelCodec() {
        for (auto *h : {outer, inner, reader, innerReader})
            if (h) Ostrel_Serializer_Destroy(h);
    }
    bool encode(const Record &r, unsigned char **p, int *n) {
        return Ostrel_Serializer_Serialize(inner, OSL_SLZ_MODE_RESET, "%d%d", r.nested[0], r.nested[1]) == 0 &&
               Ostrel_Serializer_Serialize(outer, OSL_SLZ_MODE_RESET, "%d%d%d%d%l%s%ad%b", r.i[0], r.i[1], r.i[2],
                                           r.i[3], r.big, r.str, r.arr, 16, inner) == 0 &&
               Ostrel_Serializer_GetBuffer(outer, p, n) == 0;
    }
    bool decode(const unsigned char *p, int n, Record &r) {
        int size = sizeof r.str;
        unsigned count = 16;
        return Ostrel_Serializer_DeserializeInit(p, n, &reader) == 0 &&
               Ostrel_Serializer_Deserialize(reader, "%d%d%d%d%l%s%ad@b", &r.i[0], &r.i[1], &r.i[2], &r.i[3], &r.big,
                                             r.str, &size, r.arr, &count, &innerReader) == 0 &&
               Ostrel_Serializer_Deserialize(innerReader, "%d%d", &r.nested[0], &r.nested[1]) == 0;
    }
};

void BM_Encode_Ostrel(benchmark::State &st) {
    quiet();
    const Record r = sample();
    OstrelCodec c;
    unsigned char *p = nullptr;
    int n = 0;
    for (auto _ : st) {
        if (!c.encode(r, &p, &n)) st.SkipWithError("encode failed");
        benchmark::DoNotOptimize(p);
    }
    st.counters["bytes_per_record"] = n;
}

void BM_Decode_Ostrel(benchmark::State &st) {
    quiet();
    const Record r = sample();
    OstrelCodec c;
    unsigned char *p = nullptr;
    int n = 0;
    c.encode(r, &p, &n);
    Record out{};
    if (!c.decode(p, n, out) || !same(r, out)) st.SkipWithError("round trip failed");
    for (auto _ : st) {
        c.decode(p, n, out);
        benchmark::DoNotOptimize(out);
    }
    st.counters["bytes_per_record"] = n;
}

// --- Ostrel through the C++ layer: the same packets, descriptors from types -----

struct OstrelCppCodec {
    ostrel::writer outer = ostrel::writer::create().value(); // little-endian, A = 4, ordered
    ostrel::writer inner = ostrel::writer::create().value();
    ostrel::reader reader, innerReader;
    bool encode(const Record &r, ostrel::byte_view &out) {
        if (inner.rewrite(r.nested[0], r.nested[1]) ||
            outer.rewrite(r.i[0], r.i[1], r.i[2], r.i[3], r.big, r.str, r.arr, inner))
            return false;
        auto packet = outer.buffer();
        if (packet) out = *packet;
        return packet.has_value();
    }
    bool decode(ostrel::byte_view packet, Record &r) {
        return !reader.reopen(packet) && !reader.read(r.i[0], r.i[1], r.i[2], r.i[3], r.big, r.str, r.arr, innerReader) &&
               !innerReader.read(r.nested[0], r.nested[1]);
    }
};

void BM_Encode_OstrelCpp(benchmark::State &st) {
    quiet();
    const Record r = sample();
    OstrelCppCodec c;
    ostrel::byte_view out;
    for (auto _ : st) {
        if (!c.encode(r, out)) st.SkipWithError("encode failed");
        benchmark::DoNotOptimize(out);
    }
    st.counters["bytes_per_record"] = static_cast<double>(out.size());
}

void BM_Decode_OstrelCpp(benchmark::State &st) {
    quiet();
    const Record r = sample();
    OstrelCppCodec c;
    ostrel::byte_view packet;
    c.encode(r, packet);
    // The packet is the one the C calls write for the same record.
    OstrelCodec plain;
    unsigned char *p = nullptr;
    int n = 0;
    if (!plain.encode(r, &p, &n) || ostrel::byte_view(p, n).str() != packet.str()) st.SkipWithError("packets differ");
    Record out{};
    if (!c.decode(packet, out) || !same(r, out)) st.SkipWithError("round trip failed");
    for (auto _ : st) {
        c.decode(packet, out);
        benchmark::DoNotOptimize(out);
    }
    st.counters["bytes_per_record"] = static_cast<double>(packet.size());
}

// --- msgpack-c ---------------------------------------------------------------

void msgpack_encode(msgpack_packer *pk, const Record &r) {
    msgpack_pack_array(pk, 8);
    for (int k = 0; k < 4; ++k) msgpack_pack_int32(pk, r.i[k]);
    msgpack_pack_int64(pk, r.big);
    const size_t len = strlen(r.str);
    msgpack_pack_str(pk, len);
    msgpack_pack_str_body(pk, r.str, len);
    msgpack_pack_array(pk, 16);
    for (int k = 0; k < 16; ++k) msgpack_pack_int32(pk, r.arr[k]);
    msgpack_pack_array(pk, 2);
    msgpack_pack_int32(pk, r.nested[0]);
    msgpack_pack_int32(pk, r.nested[1]);
}

bool msgpack_decode(msgpack_unpacked *u, const char *p, size_t n, Record &r) {
    size_t off = 0;
    if (msgpack_unpack_next(u, p, n, &off) != MSGPACK_UNPACK_SUCCESS) return false;
    const msgpack_object &o = u->data;
    if (o.type != MSGPACK_OBJECT_ARRAY || o.via.array.size != 8) return false;
    const msgpack_object *f = o.via.array.ptr;
    for (int k = 0; k < 4; ++k) r.i[k] = static_cast<int32_t>(f[k].via.i64);
    r.big = f[4].via.i64;
    if (f[5].type != MSGPACK_OBJECT_STR || f[5].via.str.size >= sizeof r.str) return false;
    memcpy(r.str, f[5].via.str.ptr, f[5].via.str.size);
    r.str[f[5].via.str.size] = '\0';
    if (f[6].type != MSGPACK_OBJECT_ARRAY || f[6].via.array.size != 16) return false;
    for (int k = 0; k < 16; ++k) r.arr[k] = static_cast<int32_t>(f[6].via.array.ptr[k].via.i64);
    if (f[7].type != MSGPACK_OBJECT_ARRAY || f[7].via.array.size != 2) return false;
    r.nested[0] = static_cast<int32_t>(f[7].via.array.ptr[0].via.i64);
    r.nested[1] = static_cast<int32_t>(f[7].via.array.ptr[1].via.i64);
    return true;
}

void BM_Encode_Msgpack(benchmark::State &st) {
    const Record r = sample();
    msgpack_sbuffer sb;
    msgpack_sbuffer_init(&sb);
    msgpack_packer pk;
    msgpack_packer_init(&pk, &sb, msgpack_sbuffer_write);
    for (auto _ : st) {
        msgpack_sbuffer_clear(&sb);
        msgpack_encode(&pk, r);
        benchmark::DoNotOptimize(sb.data);
    }
    st.counters["bytes_per_record"] = static_cast<double>(sb.size);
    msgpack_sbuffer_destroy(&sb);
}

void BM_Decode_Msgpack(benchmark::State &st) {
    const Record r = sample();
    msgpack_sbuffer sb;
    msgpack_sbuffer_init(&sb);
    msgpack_packer pk;
    msgpack_packer_init(&pk, &sb, msgpack_sbuffer_write);
    msgpack_encode(&pk, r);
    msgpack_unpacked u;
    msgpack_unpacked_init(&u);
    Record out{};
    if (!msgpack_decode(&u, sb.data, sb.size, out) || !same(r, out)) st.SkipWithError("round trip failed");
    for (auto _ : st) {
        msgpack_decode(&u, sb.data, sb.size, out);
        benchmark::DoNotOptimize(out);
    }
    st.counters["bytes_per_record"] = static_cast<double>(sb.size);
    msgpack_unpacked_destroy(&u);
    msgpack_sbuffer_destroy(&sb);
}

// --- tpl -----------------------------------------------------------------------

char kTplFormat[] = "iiiiIsi#ii";

size_t tpl_encode(const Record &r, char *buf, size_t cap) {
    Record copy = r;
    char *s = copy.str;
    tpl_node *tn = tpl_map(kTplFormat, &copy.i[0], &copy.i[1], &copy.i[2], &copy.i[3], &copy.big, &s, copy.arr, 16,
                           &copy.nested[0], &copy.nested[1]);
    tpl_pack(tn, 0);
    size_t used = 0;
    int rc = tpl_dump(tn, TPL_GETSIZE, &used);
    if (rc == 0 && used <= cap) rc = tpl_dump(tn, TPL_MEM | TPL_PREALLOCD, buf, cap);
    tpl_free(tn);
    return rc == 0 && used <= cap ? used : 0;
}

bool tpl_decode(char *buf, size_t n, Record &r) {
    char *s = nullptr;
    tpl_node *tn = tpl_map(kTplFormat, &r.i[0], &r.i[1], &r.i[2], &r.i[3], &r.big, &s, r.arr, 16, &r.nested[0],
                           &r.nested[1]);
    bool ok = tpl_load(tn, TPL_MEM | TPL_EXCESS_OK, buf, n) == 0 && tpl_unpack(tn, 0) > 0 && s != nullptr;
    if (ok) {
        strncpy(r.str, s, sizeof r.str - 1);
        r.str[sizeof r.str - 1] = '\0';
    }
    free(s);
    tpl_free(tn);
    return ok;
}

void BM_Encode_Tpl(benchmark::State &st) {
    const Record r = sample();
    char buf[512];
    size_t n = 0;
    for (auto _ : st) {
        n = tpl_encode(r, buf, sizeof buf);
        benchmark::DoNotOptimize(buf);
    }
    if (n == 0) st.SkipWithError("encode failed");
    st.counters["bytes_per_record"] = static_cast<double>(n);
}

void BM_Decode_Tpl(benchmark::State &st) {
    const Record r = sample();
    char buf[512];
    const size_t n = tpl_encode(r, buf, sizeof buf);
    Record out{};
    if (n == 0 || !tpl_decode(buf, n, out) || !same(r, out)) st.SkipWithError("round trip failed");
    for (auto _ : st) {
        tpl_decode(buf, n, out);
        benchmark::DoNotOptimize(out);
    }
    st.counters["bytes_per_record"] = static_cast<double>(n);
}

} // namespace

BENCHMARK(BM_Encode_Ostrel);
BENCHMARK(BM_Encode_OstrelCpp);
BENCHMARK(BM_Encode_Msgpack);
BENCHMARK(BM_Encode_Tpl);
BENCHMARK(BM_Decode_Ostrel);
BENCHMARK(BM_Decode_OstrelCpp);
BENCHMARK(BM_Decode_Msgpack);
BENCHMARK(BM_Decode_Tpl);
