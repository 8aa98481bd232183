// Helpers shared by the serializer tests: configurations, writing handles,
// and packets as hex text ("E2 00 02 04 ...") for byte-exact comparisons.
#ifndef OSTREL_TEST_SERIALIZER_UTIL_H
#define OSTREL_TEST_SERIALIZER_UTIL_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "ostrel_serializer.h"

namespace slz_test {

constexpr const char *kPath = "src/serializer";
constexpr uint32_t kLE = 0, kBE = 1, kUnordered = 0, kOrdered = 1;

// A logged line as LogCapture::texts() gives it, and a list of them.
inline std::string line(const std::string &text) { return std::string(kPath) + "|" + text; }
inline std::vector<std::string> lines(std::initializer_list<std::string> texts) {
    std::vector<std::string> out;
    for (const auto &t : texts) out.push_back(line(t));
    return out;
}

inline Ostrel_SerializerConfig config(uint32_t endian, uint32_t align, uint32_t order, bool ptr32 = false) {
    return Ostrel_SerializerConfig{ptr32 ? 1 : 0, endian, align, order, ptr32 ? 1u : 0u};
}

inline std::string hex(const unsigned char *p, size_t n) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        snprintf(b, sizeof b, i ? " %02X" : "%02X", p[i]);
        s += b;
    }
    return s;
}
inline std::string hex(const std::vector<unsigned char> &v) { return hex(v.data(), v.size()); }

inline std::vector<unsigned char> unhex(const std::string &s) {
    std::vector<unsigned char> out;
    for (size_t i = 0; i < s.size();) {
        if (s[i] == ' ') {
            ++i;
            continue;
        }
        out.push_back(static_cast<unsigned char>(std::stoul(s.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return out;
}

// Appends items to a writing handle.
template <typename... Args>
uint32_t put(Ostrel_Serializer *h, const char *fmt, Args... args) {
    return Ostrel_Serializer_Serialize(h, OSL_SLZ_MODE_APPEND, fmt, args...);
}

// A writing handle destroyed at scope end.
struct Writer {
    Ostrel_Serializer *h = nullptr;
    explicit Writer(const Ostrel_SerializerConfig &c) { EXPECT_EQ(Ostrel_Serializer_SerializeInit(&c, &h), 0u); }
    Writer(uint32_t endian, uint32_t align, uint32_t order) : Writer(config(endian, align, order)) {}
    ~Writer() {
        if (h) {
            EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
        }
    }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    std::vector<unsigned char> bytes() const {
        unsigned char *p = nullptr;
        int n = 0;
        EXPECT_EQ(Ostrel_Serializer_GetBuffer(h, &p, &n), 0u);
        return p ? std::vector<unsigned char>(p, p + n) : std::vector<unsigned char>();
    }
    std::string packet() const { return hex(bytes()); }
};

// A reading handle over its own exact-size copy of a packet (so that the
// sanitizer sees any read past its end), destroyed at scope end.
struct Reader {
    std::vector<unsigned char> buf;
    Ostrel_Serializer *h = nullptr;
    uint32_t rc;
    explicit Reader(std::vector<unsigned char> b) : buf(std::move(b)) {
        rc = Ostrel_Serializer_DeserializeInit(buf.data(), static_cast<int>(buf.size()), &h);
    }
    explicit Reader(const std::string &hexText) : Reader(unhex(hexText)) {}
    ~Reader() {
        if (h) {
            EXPECT_EQ(Ostrel_Serializer_Destroy(h), 0u);
        }
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;
};

} // namespace slz_test

#endif
