// A reader that knows nothing about a packet and tries to take every item out
// of it with every kind of descriptor, recursing into nested packets. Used by
// the fuzz target and by the unit tests that cut and mutate valid packets.
#ifndef OSTREL_FUZZ_SERIALIZER_READER_H
#define OSTREL_FUZZ_SERIALIZER_READER_H

#include <cstdint>
#include <cstdio>

#include "ostrel_common.h"
#include "ostrel_memory.h"
#include "ostrel_serializer.h"

namespace slz_reader {

enum Flavour { kCopy = 0, kReference = 1, kAllocate = 2 };

void read_all(Ostrel_Serializer *h, Flavour f, int depth, unsigned &items);

// Takes one item (`idx` is "<index>." in unordered mode, empty in ordered
// mode) with the first descriptor that fits it. Returns true when one did.
inline bool take(Ostrel_Serializer *h, const char *idx, Flavour f, int depth, unsigned &items) {
    for (const char *t : {"c", "h", "d", "l", "p", "ac", "ah", "ad", "al", "ap", "s", "b", "ab"}) {
        const char l = t[t[0] == 'a'];
        char fmt[24];
        snprintf(fmt, sizeof fmt, "%s%s%s", l == 'b' || f == kReference ? "@" : f == kCopy ? "%" : "@N", idx, t);
        uint64_t buf[32];
        Ostrel_Serializer *members[8] = {};
        void *p = nullptr, *dst = l == 'b' ? static_cast<void *>(members) : f == kCopy ? static_cast<void *>(buf) : &p;
        unsigned n = l == 'b' ? 8 : sizeof buf / (l == 'c' || l == 's' ? 1 : l == 'h' ? 2 : l == 'd' ? 4 : 8);
        uint32_t rc = Ostrel_Serializer_Deserialize(h, fmt, dst, &n); // a copied string's size is the capacity
        // A failed member open leaves the members opened before it with the caller.
        for (Ostrel_Serializer *m : members) {
            if (m != nullptr && rc == 0 && depth < 4) read_all(m, f, depth + 1, items);
            if (m != nullptr) Ostrel_Serializer_Destroy(m);
        }
        if (rc == OSL_ERR_BUFFER_TOO_SMALL) rc = Ostrel_Serializer_Deserialize(h, fmt, nullptr, &(n = ~0u)); // skip it
        if (rc == 0 && f == kAllocate) Ostrel_Free(p);
        if (rc == 0) return ++items;
    }
    return false;
}

inline void read_all(Ostrel_Serializer *h, Flavour f, int depth, unsigned &items) {
    // "%0.c" tells the modes apart without touching the packet: index 0 is
    // never found in unordered mode, and is an unknown type in ordered mode.
    if (Ostrel_Serializer_Deserialize(h, "%0.c", nullptr) != OSL_ERR_NOT_FOUND) {
        for (int i = 0; i < 256 && take(h, "", f, depth, items); ++i) continue;
        return;
    }
    char idx[8], probe[12];
    for (unsigned i = 1; i <= 255; ++i) {
        snprintf(idx, sizeof idx, "%u.", i);
        snprintf(probe, sizeof probe, "%%%u.c", i);
        if (Ostrel_Serializer_Deserialize(h, probe, nullptr) != OSL_ERR_NOT_FOUND) take(h, idx, f, depth, items);
    }
}

} // namespace slz_reader

#endif
