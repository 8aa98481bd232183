// A reader that knows nothing about a packet and tries to take every item out
// of it with every kind of descriptor, recursing into nested packets. Used by
// the fuzz target and by the unit tests that mutate valid packets.
#ifndef OSTREL_FUZZ_SERIALIZER_READER_H
#define OSTREL_FUZZ_SERIALIZER_READER_H

#include <cstdint>
#include <cstdio>

#include "ostrel_common.h"
#include "ostrel_memory.h"
#include "ostrel_serializer.h"

namespace slz_reader {

enum Flavour { kCopy = 0, kReference = 1, kAllocate = 2 };

struct Stats {
    unsigned items = 0;    // items taken
    unsigned packets = 0;  // nested packets opened
};

void read_all(Ostrel_Serializer *h, Flavour f, int depth, Stats &st);

inline const char *prefix(Flavour f) { return f == kCopy ? "%" : f == kReference ? "@" : "@N"; }

// Takes one item (of the given index, or the next one in ordered mode) with
// the first descriptor that fits it. Returns true when one did.
inline bool take(Ostrel_Serializer *h, unsigned index, bool ordered, Flavour f, int depth, Stats &st) {
    char idx[8] = "";
    if (!ordered) snprintf(idx, sizeof idx, "%u.", index);
    char fmt[24];
    static const char kInts[] = "chdlp";
    for (int arr = 0; arr < 2; ++arr) {
        for (const char *l = kInts; *l; ++l) {
            snprintf(fmt, sizeof fmt, "%s%s%s%c", prefix(f), idx, arr ? "a" : "", *l);
            uint32_t rc;
            if (!arr) {
                uint64_t value = 0;
                void *p = nullptr;
                rc = Ostrel_Serializer_Deserialize(h, fmt, f == kCopy ? static_cast<void *>(&value) : &p);
                if (rc == 0 && f == kAllocate && p) Ostrel_Free(p);
            } else if (f == kCopy) {
                uint64_t buf[32];
                unsigned n = sizeof buf / (*l == 'c' ? 1 : *l == 'h' ? 2 : *l == 'd' ? 4 : 8);
                rc = Ostrel_Serializer_Deserialize(h, fmt, buf, &n);
                if (rc == OSL_ERR_BUFFER_TOO_SMALL) rc = Ostrel_Serializer_Deserialize(h, fmt, nullptr, &n);
            } else {
                void *p = nullptr;
                unsigned n = 0;
                rc = Ostrel_Serializer_Deserialize(h, fmt, &p, &n);
                if (rc == 0 && f == kAllocate && p) Ostrel_Free(p);
            }
            if (rc == 0) {
                ++st.items;
                return true;
            }
        }
    }
    uint32_t rc;
    snprintf(fmt, sizeof fmt, "%s%ss", prefix(f), idx);
    if (f == kCopy) {
        char buf[64];
        int size = sizeof buf;
        rc = Ostrel_Serializer_Deserialize(h, fmt, buf, &size);
        if (rc == OSL_ERR_BUFFER_TOO_SMALL) rc = Ostrel_Serializer_Deserialize(h, fmt, nullptr);
    } else {
        char *s = nullptr;
        rc = Ostrel_Serializer_Deserialize(h, fmt, &s);
        if (rc == 0 && f == kAllocate && s) Ostrel_Free(s);
    }
    if (rc == 0) {
        ++st.items;
        return true;
    }
    Ostrel_Serializer *inner = nullptr;
    snprintf(fmt, sizeof fmt, "@%sb", idx);
    if (Ostrel_Serializer_Deserialize(h, fmt, &inner) == 0) {
        ++st.items;
        if (inner) {
            ++st.packets;
            if (depth < 4) read_all(inner, f, depth + 1, st);
            Ostrel_Serializer_Destroy(inner);
        }
        return true;
    }
    // A failed member open (a nested packet that does not validate) leaves
    // the members opened before it with the caller.
    Ostrel_Serializer *members[8] = {};
    unsigned n = 8;
    snprintf(fmt, sizeof fmt, "@%sab", idx);
    rc = Ostrel_Serializer_Deserialize(h, fmt, members, &n);
    for (unsigned i = 0; i < 8; ++i) {
        if (!members[i]) continue;
        ++st.packets;
        if (rc == 0 && depth < 4) read_all(members[i], f, depth + 1, st);
        Ostrel_Serializer_Destroy(members[i]);
    }
    if (rc == OSL_ERR_BUFFER_TOO_SMALL) {
        n = 0xFFFFFFFFu;
        rc = Ostrel_Serializer_Deserialize(h, fmt, nullptr, &n);
    }
    if (rc == 0) ++st.items;
    return rc == 0;
}

inline void read_all(Ostrel_Serializer *h, Flavour f, int depth, Stats &st) {
    // "%0.c" tells the modes apart without touching the packet: index 0 is
    // never found in unordered mode, and is an unknown type in ordered mode.
    const bool ordered = Ostrel_Serializer_Deserialize(h, "%0.c", nullptr) != OSL_ERR_NOT_FOUND;
    if (ordered) {
        for (int i = 0; i < 256 && take(h, 0, true, f, depth, st); ++i) {
        }
    } else {
        char probe[8];
        for (unsigned idx = 1; idx <= 255; ++idx) {
            snprintf(probe, sizeof probe, "%%%u.c", idx);
            if (Ostrel_Serializer_Deserialize(h, probe, nullptr) != OSL_ERR_NOT_FOUND) take(h, idx, false, f, depth, st);
        }
    }
}

} // namespace slz_reader

#endif
