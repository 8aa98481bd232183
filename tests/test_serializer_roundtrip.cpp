// Serializer round trip: random item lists (every type, scalars, arrays, null
// arrays, strings, NULL strings, nested packets and packet arrays down to
// depth 3, random indexes in unordered mode) in every alignment, byte order
// and mode, written and then read back with copy ('%'), allocate ('@N') and
// reference ('@') descriptors, compared value by value. Memory handed out by
// '@N' is released with Ostrel_Free, so the sanitizer build reports leaks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "ostrel_memory.h"
#include "zurn_general.h"
#include "test_serializer_util.h"

using namespace slz_test;

namespace {

struct Packet;

struct Item {
    char letter = 'd';      // c h d l p s b
    bool array = false;
    bool nullArray = false; // written with '#' and a NULL pointer
    char prefix = '%';
    uint32_t index = 0;     // unordered mode
    std::vector<uint64_t> values;
    uint32_t nullCount = 0;
    bool nullString = false;
    std::string text;
    std::vector<std::unique_ptr<Packet>> packets;
};

struct Packet {
    uint32_t endian = 0, align = 4, order = 1;
    std::vector<Item> items;
};

uint32_t elem_size(char letter) {
    switch (letter) {
    case 'c': return 1;
    case 'h': return 2;
    case 'd': return 4;
    default: return 8;
    }
}

uint64_t mask(uint64_t v, uint32_t size) { return size == 8 ? v : v & ((uint64_t{1} << (8 * size)) - 1); }

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    std::unique_ptr<Packet> packet(uint32_t endian, uint32_t align, uint32_t order, int depth) {
        auto p = std::make_unique<Packet>();
        p->endian = endian;
        p->align = align;
        p->order = order;
        std::vector<uint32_t> indexes(255);
        std::iota(indexes.begin(), indexes.end(), 1u);
        std::shuffle(indexes.begin(), indexes.end(), rng_);
        const int n = pick(0, depth == 0 ? 24 : 6);
        for (int i = 0; i < n; ++i) p->items.push_back(item(depth, indexes[static_cast<size_t>(i)]));
        return p;
    }

private:
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    uint64_t u64() { return std::uniform_int_distribution<uint64_t>()(rng_); }

    std::unique_ptr<Packet> nested(int depth) {
        static const uint32_t aligns[] = {1, 2, 4, 8};
        return packet(static_cast<uint32_t>(pick(0, 1)), aligns[pick(0, 3)], static_cast<uint32_t>(pick(0, 1)),
                      depth);
    }

    Item item(int depth, uint32_t index) {
        static const char letters[] = "chdlpsb";
        Item it;
        it.index = index;
        it.letter = letters[pick(0, depth < 3 ? 6 : 5)];
        it.prefix = pick(0, 1) ? '%' : '@';
        it.array = it.letter != 's' && pick(0, 2) == 0;
        if (it.letter == 's') {
            it.nullString = pick(0, 5) == 0;
            const int len = pick(0, 40);
            for (int i = 0; i < len; ++i) it.text.push_back(static_cast<char>(pick(1, 255)));
        } else if (it.letter == 'b') {
            const int count = it.array ? pick(0, 3) : 1;
            for (int i = 0; i < count; ++i) it.packets.push_back(nested(depth + 1));
        } else if (it.array && pick(0, 5) == 0) {
            it.nullArray = true;
            it.prefix = '#';
            it.nullCount = static_cast<uint32_t>(pick(1, 100000));
        } else {
            const int count = it.array ? (pick(0, 9) == 0 ? pick(100, 400) : pick(0, 12)) : 1;
            for (int i = 0; i < count; ++i) it.values.push_back(mask(u64(), elem_size(it.letter)));
        }
        return it;
    }

    std::mt19937 rng_;
};

// --- writing -------------------------------------------------------------------

template <typename T>
std::vector<T> as(const std::vector<uint64_t> &v) {
    std::vector<T> out;
    for (uint64_t x : v) out.push_back(static_cast<T>(x));
    return out;
}

std::vector<unsigned char> write(const Packet &p);

uint32_t write_item(Ostrel_Serializer *h, const Item &it, bool unordered) {
    std::string fmt(1, it.prefix);
    if (unordered) fmt += std::to_string(it.index) + ".";
    if (it.array) fmt += 'a';
    fmt += it.letter;
    const char *f = fmt.c_str();
    const int count = static_cast<int>(it.nullArray ? it.nullCount : it.values.size());
    if (it.nullArray) return Ostrel_Serializer_Serialize(h, 1, f, nullptr, count);
    switch (it.letter) {
    case 's': return Ostrel_Serializer_Serialize(h, 1, f, it.nullString ? nullptr : it.text.c_str());
    case 'b': {
        std::vector<Ostrel_Serializer *> inner;
        for (const auto &child : it.packets) {
            Ostrel_SerializerConfig c = config(child->endian, child->align, child->order);
            Ostrel_Serializer *ih = nullptr;
            EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &ih), 0u);
            for (const auto &ci : child->items) EXPECT_EQ(write_item(ih, ci, child->order == 0), 0u);
            inner.push_back(ih);
        }
        uint32_t rc = it.array ? Ostrel_Serializer_Serialize(h, 1, f, inner.data(), static_cast<int>(inner.size()))
                               : Ostrel_Serializer_Serialize(h, 1, f, inner[0]);
        for (auto *ih : inner) EXPECT_EQ(Ostrel_Serializer_Destroy(ih), 0u);
        return rc;
    }
    default: break;
    }
    if (!it.array) {
        const uint64_t v = it.values[0];
        switch (it.letter) {
        case 'l': return Ostrel_Serializer_Serialize(h, 1, f, static_cast<int64_t>(v));
        case 'p': return Ostrel_Serializer_Serialize(h, 1, f, reinterpret_cast<void *>(static_cast<uintptr_t>(v)));
        default: return Ostrel_Serializer_Serialize(h, 1, f, static_cast<int>(v));
        }
    }
    switch (it.letter) {
    case 'c': return Ostrel_Serializer_Serialize(h, 1, f, as<uint8_t>(it.values).data(), count);
    case 'h': return Ostrel_Serializer_Serialize(h, 1, f, as<uint16_t>(it.values).data(), count);
    case 'd': return Ostrel_Serializer_Serialize(h, 1, f, as<uint32_t>(it.values).data(), count);
    case 'l': return Ostrel_Serializer_Serialize(h, 1, f, as<uint64_t>(it.values).data(), count);
    default: {
        std::vector<void *> ptrs;
        for (uint64_t x : it.values) ptrs.push_back(reinterpret_cast<void *>(static_cast<uintptr_t>(x)));
        return Ostrel_Serializer_Serialize(h, 1, f, ptrs.data(), count);
    }
    }
}

std::vector<unsigned char> write(const Packet &p) {
    Writer w(p.endian, p.align, p.order);
    for (const auto &it : p.items) EXPECT_EQ(write_item(w.h, it, p.order == 0), 0u);
    return w.bytes();
}

// --- reading -------------------------------------------------------------------

enum Flavour { kCopy, kAllocate, kReference };

struct Span {
    const unsigned char *lo, *hi;
    bool holds(const void *p, size_t n) const {
        auto *c = static_cast<const unsigned char *>(p);
        return c >= lo && c + n <= hi;
    }
};

uint64_t load(const void *p, uint32_t size) {
    switch (size) {
    case 1: return *static_cast<const uint8_t *>(p);
    case 2: { uint16_t v; memcpy(&v, p, 2); return v; }
    case 4: { uint32_t v; memcpy(&v, p, 4); return v; }
    default: { uint64_t v; memcpy(&v, p, 8); return v; }
    }
}

void verify(Ostrel_Serializer *h, const Packet &p, Flavour fl, const Span &span, std::mt19937 &rng);

void verify_item(Ostrel_Serializer *h, const Item &it, bool unordered, Flavour fl, const Span &span,
                 std::mt19937 &rng) {
    std::string fmt = fl == kCopy ? "%" : fl == kAllocate ? "@N" : "@";
    if (it.letter == 'b') fmt = "@";
    if (unordered) fmt += std::to_string(it.index) + ".";
    if (it.array) fmt += 'a';
    fmt += it.letter;
    const char *f = fmt.c_str();
    SCOPED_TRACE(fmt);

    if (it.letter == 's') {
        const size_t stored = it.nullString ? 0 : it.text.size() + 1;
        if (fl == kCopy) {
            std::vector<char> buf(stored + 1, '#');
            int size = static_cast<int>(stored);
            ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, buf.data(), &size), 0u);
            EXPECT_EQ(size, static_cast<int>(stored));
            if (!it.nullString) {
                EXPECT_EQ(std::string(buf.data()), it.text);
            }
            EXPECT_EQ(buf[stored], '#');
            return;
        }
        char *s = reinterpret_cast<char *>(1);
        ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, &s), 0u);
        if (it.nullString) {
            EXPECT_EQ(s, nullptr);
            return;
        }
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(std::string(s), it.text);
        EXPECT_EQ(span.holds(s, stored), fl == kReference);
        if (fl == kAllocate) Ostrel_Free(s);
        return;
    }

    if (it.letter == 'b') {
        if (!it.array) {
            Ostrel_Serializer *inner = nullptr;
            ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, &inner), 0u);
            verify(inner, *it.packets[0], fl, span, rng);
            EXPECT_EQ(Ostrel_Serializer_Destroy(inner), 0u);
            return;
        }
        std::vector<Ostrel_Serializer *> inner(it.packets.size() + 1, nullptr);
        unsigned n = static_cast<unsigned>(inner.size());
        ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, inner.data(), &n), 0u);
        ASSERT_EQ(n, it.packets.size());
        EXPECT_EQ(inner.back(), nullptr);
        for (size_t i = 0; i < n; ++i) {
            verify(inner[i], *it.packets[i], fl, span, rng);
            EXPECT_EQ(Ostrel_Serializer_Destroy(inner[i]), 0u);
        }
        return;
    }

    const uint32_t size = elem_size(it.letter);
    if (!it.array) {
        if (fl == kCopy) {
            uint64_t v = 0;
            unsigned char raw[8] = {};
            ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, raw), 0u);
            v = load(raw, size);
            EXPECT_EQ(v, it.values[0]);
            return;
        }
        void *ptr = nullptr;
        ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, &ptr), 0u);
        ASSERT_NE(ptr, nullptr);
        EXPECT_EQ(load(ptr, size), it.values[0]);
        EXPECT_EQ(span.holds(ptr, size), fl == kReference);
        if (fl == kAllocate) Ostrel_Free(ptr);
        return;
    }

    const size_t count = it.values.size();
    if (fl == kCopy) {
        // Capacity of at least 8 bytes: a null array writes a NULL pointer there.
        const size_t cap = std::max(count, size_t{8} / size) + 1;
        std::vector<unsigned char> buf(cap * size, 0xA5);
        unsigned n = static_cast<unsigned>(cap);
        ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, buf.data(), &n), 0u);
        if (it.nullArray) {
            EXPECT_EQ(n, it.nullCount);
            EXPECT_EQ(load(buf.data(), 8), 0u);
            return;
        }
        ASSERT_EQ(n, count);
        for (size_t i = 0; i < count; ++i) ASSERT_EQ(load(buf.data() + i * size, size), it.values[i]) << i;
        EXPECT_EQ(buf[count * size], 0xA5);
        return;
    }
    void *ptr = &rng;
    unsigned n = 12345;
    ASSERT_EQ(Ostrel_Serializer_Deserialize(h, f, &ptr, &n), 0u);
    if (it.nullArray || count == 0) {
        EXPECT_EQ(ptr, nullptr);
        EXPECT_EQ(n, it.nullArray ? it.nullCount : 0u);
        return;
    }
    ASSERT_EQ(n, count);
    ASSERT_NE(ptr, nullptr);
    EXPECT_EQ(span.holds(ptr, count * size), fl == kReference);
    for (size_t i = 0; i < count; ++i)
        ASSERT_EQ(load(static_cast<unsigned char *>(ptr) + i * size, size), it.values[i]) << i;
    if (fl == kAllocate) Ostrel_Free(ptr);
}

void verify(Ostrel_Serializer *h, const Packet &p, Flavour fl, const Span &span, std::mt19937 &rng) {
    std::vector<size_t> order(p.items.size());
    std::iota(order.begin(), order.end(), size_t{0});
    if (p.order == 0) std::shuffle(order.begin(), order.end(), rng);
    for (size_t i : order) verify_item(h, p.items[i], p.order == 0, fl, span, rng);
    // Nothing is left in an ordered packet.
    if (p.order == 1) {
        uint8_t c;
        EXPECT_EQ(Ostrel_Serializer_Deserialize(h, "%c", &c), OSL_ERR_NOT_FOUND);
    }
}

class SerializerRoundTrip : public ::testing::TestWithParam<std::tuple<uint32_t, uint32_t, uint32_t>> {};

TEST_P(SerializerRoundTrip, RandomItemListsReadBackWithEveryDescriptorKind) {
    ZurnGeneral_SetLogLevel(8);
    const auto [endian, align, order] = GetParam();
    Generator gen(1000003u * endian + 1009u * align + order);
    std::mt19937 rng(align * 7 + endian);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        auto model = gen.packet(endian, align, order, 0);
        std::vector<unsigned char> bytes = write(*model);
        ASSERT_FALSE(bytes.empty());
        const std::vector<unsigned char> original = bytes;
        const Span span{bytes.data(), bytes.data() + bytes.size()};
        for (Flavour fl : {kCopy, kAllocate, kReference}) {
            Ostrel_Serializer *h = nullptr;
            ASSERT_EQ(Ostrel_Serializer_DeserializeInit(bytes.data(), static_cast<int>(bytes.size()), &h), 0u);
            verify(h, *model, fl, span, rng);
            EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
            // Copies and allocations leave the packet untouched; references
            // convert foreign-order values in place.
            if (fl != kReference) {
                EXPECT_TRUE(bytes == original);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllLayouts, SerializerRoundTrip,
                         ::testing::Combine(::testing::Values(kLE, kBE), ::testing::Values(1u, 2u, 4u, 8u),
                                            ::testing::Values(kUnordered, kOrdered)),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param) ? "BE" : "LE") + "_A" +
                                    std::to_string(std::get<1>(info.param)) +
                                    (std::get<2>(info.param) ? "_ordered" : "_unordered");
                         });

} // namespace
