// Serializer: typed items packed into self-describing packets and read back.
//
// Packet layout: a header of H bytes (12, or 16 with 8-byte alignment), in
// unordered mode an index table of count slots, then the items. Every item
// header, index entry and payload starts at a multiple of the alignment A and
// is zero-padded up to the next one; an item header, an index entry and a
// null array's count each take one slot of E bytes (4, or 8 when A = 8).
//
// Writing builds the packet in one growing buffer. In unordered mode the
// buffer starts with room for the header and 255 index entries; entries are
// written backwards in front of the items, and GetBuffer writes the header
// just before the first used entry, so a finished packet is never moved.
//
// Reading validates the whole packet once when it is opened, so that every
// later read stays inside the packet whatever bytes it was given.
#define OSL_SRC_PATH "src/serializer"
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "osl_frame.h"
#include "ostrel_memory.h"
#include "ostrel_serializer.h"

namespace {

constexpr uint32_t kWriteMagic = 0xA2F4C101u;
constexpr uint32_t kReadMagic = 0xA2F4C102u;
constexpr uint32_t kMagicPrefixMask = 0xFFFFFF00u;
constexpr uint32_t kMagicPrefix = 0xA2F4C100u;

constexpr uint8_t kPacketMagic = 0xE2;
constexpr uint32_t kMaxItems = 255;
constexpr uint32_t kMax24 = 0xFFFFFFu;
constexpr uint32_t kGrowStep = 512;
constexpr uint32_t kLargeBlock = 0x7FFFFFu;

// Item header bits.
constexpr uint32_t kFlagArray = 0x80000000u;
constexpr uint32_t kFlagNullArray = 0x40000000u;
constexpr uint32_t kTypePtr32 = 20;
constexpr uint32_t kTypePtr64 = 24;
constexpr uint32_t kTypeString = 32;
constexpr uint32_t kTypePacket = 48;
// The pointer type a descriptor asks for, before the width decides 20 or 24.
constexpr uint32_t kTypePointer = 16;

// Packet flags byte.
constexpr uint8_t kFlagBigEndian = 0x01;
constexpr uint8_t kFlagOrdered = 0x02;

} // namespace

// The 12 header bytes of a packet, kept in host byte order.
struct OSL_SlzHeader {
    uint8_t ucMagic;
    uint8_t ucReserved;
    uint8_t ucFlags;
    uint8_t ucAlign;
    uint32_t uTotalLength;
    uint8_t ucCount;
    uint8_t ucHeaderLength;
    uint16_t usItemsStart; // writing: from the buffer start; reading: from the packet start
};

struct Ostrel_Serializer {
    uint32_t uMagic;
    uint32_t uEndian;
    int32_t iAlign;
    uint32_t uOrder;
    unsigned char *pucPacket; // reading: the caller's packet
    uint32_t uPacketLength;   // reading
    unsigned char *pucBuf;    // writing: owned output buffer
    unsigned char *pucCursor;
    uint32_t uCapacity;       // 0 when the handle owns no buffer
    uint8_t aucIndexMap[32];  // indexes already used (unordered writing)
    uint32_t uNextItem;       // reading: offset of the next item
    OSL_SlzHeader stHeader;
    uint32_t bPointer32;
};

namespace {

// --- byte order -------------------------------------------------------------

uint32_t __OSL_Slz_GetByteOrder() {
    const uint16_t probe = 1;
    uint8_t first;
    memcpy(&first, &probe, 1);
    return first == 1 ? 0u : 1u;
}

inline uint16_t __OSL_Slz_ConvertByteOrder16(uint16_t v) { return __builtin_bswap16(v); }
inline uint32_t __OSL_Slz_ConvertByteOrder32(uint32_t v) { return __builtin_bswap32(v); }
inline uint64_t __OSL_Slz_ConvertByteOrder64(uint64_t v) { return __builtin_bswap64(v); }

// Loads and stores of packet fields: unaligned-safe, converted when the
// packet's byte order is not the host's.
inline uint16_t ld16(const unsigned char *p, bool swap) {
    uint16_t v;
    memcpy(&v, p, 2);
    return swap ? __OSL_Slz_ConvertByteOrder16(v) : v;
}
inline uint32_t ld32(const unsigned char *p, bool swap) {
    uint32_t v;
    memcpy(&v, p, 4);
    return swap ? __OSL_Slz_ConvertByteOrder32(v) : v;
}
inline uint64_t ld64(const unsigned char *p, bool swap) {
    uint64_t v;
    memcpy(&v, p, 8);
    return swap ? __OSL_Slz_ConvertByteOrder64(v) : v;
}
inline void st16(unsigned char *p, uint16_t v, bool swap) {
    if (swap) v = __OSL_Slz_ConvertByteOrder16(v);
    memcpy(p, &v, 2);
}
inline void st32(unsigned char *p, uint32_t v, bool swap) {
    if (swap) v = __OSL_Slz_ConvertByteOrder32(v);
    memcpy(p, &v, 4);
}
inline void st64(unsigned char *p, uint64_t v, bool swap) {
    if (swap) v = __OSL_Slz_ConvertByteOrder64(v);
    memcpy(p, &v, 8);
}

// Copies one value of `size` bytes (1, 2, 4 or 8) from src to dst,
// converting it when swap is set. src and dst may be the same place.
inline void copy_value(unsigned char *dst, const unsigned char *src, uint32_t size, bool swap) {
    switch (size) {
    case 1: *dst = *src; break;
    case 2: st16(dst, ld16(src, swap), false); break;
    case 4: st32(dst, ld32(src, swap), false); break;
    default: st64(dst, ld64(src, swap), false); break;
    }
}

// Copies `count` elements of `size` bytes, each converted when swap is set.
void copy_elements(unsigned char *dst, const unsigned char *src, uint32_t count, uint32_t size, bool swap) {
    if (!swap || size == 1) {
        if (dst != src) memcpy(dst, src, static_cast<size_t>(count) * size);
        return;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const size_t at = static_cast<size_t>(i) * size;
        copy_value(dst + at, src + at, size, true);
    }
}

// --- sizes ------------------------------------------------------------------

inline bool valid_align(uint32_t a) { return a == 1 || a == 2 || a == 4 || a == 8; }
// Header length H: 12 rounded up to the alignment.
inline uint32_t header_len(uint32_t a) { return a == 8 ? 16u : 12u; }
// Slot size E: 4 rounded up to the alignment.
inline uint32_t slot_len(uint32_t a) { return a == 8 ? 8u : 4u; }
inline uint64_t round_up(uint64_t n, uint32_t a) { return (n + a - 1) & ~static_cast<uint64_t>(a - 1); }

inline bool is_serializer(const void *h) {
    return h != nullptr && (*static_cast<const uint32_t *>(h) & kMagicPrefixMask) == kMagicPrefix;
}

// Handle check on the magic prefix shared by writing and reading handles.
#define SLZ_CHECK_HANDLE(h)                            \
    do {                                               \
        if (!is_serializer(h)) {                       \
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;      \
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid handle."); \
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;      \
            return OSL_ERR_INVALID_HANDLE;             \
        }                                              \
        g_OSL_errno = 0;                               \
    } while (0)

inline bool is_space(char c) { return c == ' ' || c == '\t'; }
inline bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Parses the "<digits>." index of an unordered-mode descriptor at p. The
// value saturates instead of overflowing; anything above 255 is refused later.
uint32_t parse_index(const char *&p, const char *szDesc, uint32_t *puIndex) {
    if (!is_digit(*p)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Format descriptor %s had invalid index.", szDesc);
        return OSL_ERR_INVALID_FORMAT;
    }
    uint32_t v = 0;
    for (; is_digit(*p); ++p)
        if (v < 100000000u) v = v * 10 + static_cast<uint32_t>(*p - '0');
    if (*p != '.') {
        OSL_LOG(LOG_LEVEL_ERROR, "Format descriptor %s expect '.'.", szDesc);
        return OSL_ERR_INVALID_FORMAT;
    }
    ++p;
    *puIndex = v;
    return 0;
}

// --- writing ----------------------------------------------------------------

__attribute__((noinline)) uint32_t grow_buffer(Ostrel_Serializer *h, uint64_t n);

// Makes sure n bytes are free after the cursor; the buffer grows in 512-byte
// steps and the cursor keeps its offset when the block moves.
inline uint32_t __OSL_Slz_PrepareBuffer(Ostrel_Serializer *h, uint64_t n) {
    if (h->pucBuf != nullptr && n <= h->uCapacity - static_cast<uint64_t>(h->pucCursor - h->pucBuf)) return 0;
    return grow_buffer(h, n);
}

// The slow path of __OSL_Slz_PrepareBuffer, which logs under that name.
uint32_t grow_buffer(Ostrel_Serializer *h, uint64_t n) {
    static const char fn[] = "__OSL_Slz_PrepareBuffer";
    if (h->pucBuf == nullptr) {
        uint64_t size = n == 0 ? kGrowStep : round_up(n, kGrowStep);
        if (size > kLargeBlock) OSL_LOG(LOG_LEVEL_WARN, "Large malloc in %s, size=%d.", fn, static_cast<int>(size));
        void *p = size > 0xFFFFFFFFu ? nullptr : calloc(1, static_cast<size_t>(size));
        if (p == nullptr) {
            OSL_LOG(LOG_LEVEL_ERROR, "Error in %s, alloc(%d) failed.", fn, static_cast<int>(size));
            OSL_LOG(LOG_LEVEL_TRACE, "<===Exit %s with 0x%x", fn, OSL_ERR_NO_MEMORY);
            return OSL_ERR_NO_MEMORY;
        }
        h->pucBuf = static_cast<unsigned char *>(p);
        h->pucCursor = h->pucBuf;
        h->uCapacity = static_cast<uint32_t>(size);
        return 0;
    }
    uint64_t used = static_cast<uint64_t>(h->pucCursor - h->pucBuf);
    uint64_t avail = h->uCapacity - used;
    if (n <= avail) return 0;
    uint64_t growth = round_up(n - avail, kGrowStep);
    if (growth > 0xFFFFFFFFull - h->uCapacity) {
        OSL_LOG(LOG_LEVEL_ERROR, "Not enough memory.");
        return OSL_ERR_NO_MEMORY;
    }
    uint64_t size = h->uCapacity + growth;
    if (size > kLargeBlock) OSL_LOG(LOG_LEVEL_WARN, "Large realloc in %s, size=%d.", fn, static_cast<int>(size));
    void *p = realloc(h->pucBuf, static_cast<size_t>(size));
    if (p == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Error in %s, realloc(%d) failed.", fn, static_cast<int>(size));
        OSL_LOG(LOG_LEVEL_TRACE, "<===Exit %s with 0x%x", fn, OSL_ERR_NO_MEMORY);
        return OSL_ERR_NO_MEMORY;
    }
    h->pucBuf = static_cast<unsigned char *>(p);
    h->pucCursor = h->pucBuf + used;
    h->uCapacity = static_cast<uint32_t>(size);
    return 0;
}

// Advances the cursor over n bytes just written and zero-fills up to the
// next multiple of the alignment.
inline void __OSL_Slz_AppendIndex(unsigned char **ppCursor, uint64_t n, uint32_t a) {
    uint64_t padded = round_up(n, a);
    if (padded != n) memset(*ppCursor + n, 0, static_cast<size_t>(padded - n));
    *ppCursor += padded;
}

// Writes one slot (a 32-bit value, zero-filled to E bytes) at the cursor.
inline void put_slot(Ostrel_Serializer *h, uint32_t v, bool swap) {
    st32(h->pucCursor, v, swap);
    if (h->iAlign == 8) memset(h->pucCursor + 4, 0, 4);
    h->pucCursor += slot_len(static_cast<uint32_t>(h->iAlign));
}

uint32_t prepare_or_log(Ostrel_Serializer *h, uint64_t n) {
    uint32_t rc = __OSL_Slz_PrepareBuffer(h, n);
    if (rc != 0) OSL_LOG(LOG_LEVEL_ERROR, "Prepare serialized output buffer failed.");
    return rc;
}

// One parsed descriptor.
struct Descriptor {
    char cPrefix;   // '%', '@' or '#'
    bool bAlloc;    // reading: "@N"
    bool bArray;    // 'a'
    char cLetter;   // c h d l p s b
    uint32_t uIndex;
};

// Integer and pointer items (letters c h d l p).
uint32_t __OSL_Slz_EncodeIntegerItem(va_list &ap, Ostrel_Serializer *h, uint32_t type, const Descriptor &d,
                                     bool swap) {
    if (type >= kTypeString) {
        OSL_LOG(LOG_LEVEL_ERROR, "Item type error: %d.", static_cast<int>(type));
        return OSL_ERR_INVALID_PARAMETER;
    }
    const uint32_t a = static_cast<uint32_t>(h->iAlign);
    const uint32_t e = slot_len(a);
    uint32_t size = type;
    bool ptr32 = false;
    if (type == kTypePointer) {
        ptr32 = h->bPointer32 != 0;
        type = ptr32 ? kTypePtr32 : kTypePtr64;
        size = ptr32 ? 4 : 8;
    }
    if (!d.bArray) {
        uint64_t v;
        if (type == kTypePtr32 || type == kTypePtr64)
            v = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(va_arg(ap, void *)));
        else if (size == 8)
            v = static_cast<uint64_t>(va_arg(ap, int64_t));
        else
            v = static_cast<uint32_t>(va_arg(ap, int));
        uint32_t rc = prepare_or_log(h, e + round_up(size, a));
        if (rc != 0) return rc;
        put_slot(h, type << 24 | size, swap);
        unsigned char *c = h->pucCursor;
        switch (size) {
        case 1: *c = static_cast<uint8_t>(v); break;
        case 2: st16(c, static_cast<uint16_t>(v), swap); break;
        case 4: st32(c, static_cast<uint32_t>(v), swap); break;
        default: st64(c, v, swap); break;
        }
        __OSL_Slz_AppendIndex(&h->pucCursor, size, a);
        return 0;
    }

    const unsigned char *elems = static_cast<const unsigned char *>(va_arg(ap, const void *));
    int count = va_arg(ap, int);
    uint64_t bytes = static_cast<uint64_t>(static_cast<uint32_t>(count)) * size;
    if (bytes > kMax24) {
        OSL_LOG(LOG_LEVEL_ERROR, "The length (in bytes) of the array exceeds limitation.");
        return OSL_ERR_INVALID_PARAMETER;
    }
    if (count != 0 && elems == nullptr) {
        if (d.cPrefix != '#') {
            OSL_LOG(LOG_LEVEL_ERROR, "The array pointer is NULL while its length is not 0.");
            return OSL_ERR_INVALID_PARAMETER;
        }
        uint32_t rc = prepare_or_log(h, 2ull * e);
        if (rc != 0) return rc;
        put_slot(h, (type | 0xC0u) << 24 | 4u, swap);
        put_slot(h, static_cast<uint32_t>(count), swap);
        return 0;
    }
    uint32_t rc = prepare_or_log(h, e + round_up(bytes, a));
    if (rc != 0) return rc;
    put_slot(h, (type | 0x80u) << 24 | static_cast<uint32_t>(bytes), swap);
    if (count == 0) return 0;
    unsigned char *c = h->pucCursor;
    uint32_t n = static_cast<uint32_t>(count);
    if (ptr32 && sizeof(void *) != 4) {
        // 32-bit pointer items from native pointers: the low 32 bits of each.
        for (uint32_t i = 0; i < n; ++i) {
            uintptr_t p;
            memcpy(&p, elems + i * sizeof(void *), sizeof p);
            st32(c + static_cast<size_t>(i) * 4, static_cast<uint32_t>(p), swap);
        }
    } else {
        copy_elements(c, elems, n, size, swap);
    }
    __OSL_Slz_AppendIndex(&h->pucCursor, bytes, a);
    return 0;
}

uint32_t encode_string(va_list &ap, Ostrel_Serializer *h, bool swap) {
    const uint32_t a = static_cast<uint32_t>(h->iAlign);
    const uint32_t e = slot_len(a);
    const char *s = va_arg(ap, const char *);
    if (s == nullptr) {
        uint32_t rc = prepare_or_log(h, e);
        if (rc != 0) return rc;
        put_slot(h, kTypeString << 24, swap);
        return 0;
    }
    size_t len = strnlen(s, kMax24 - 1);
    if (len >= kMax24 - 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "The length of string exceeds limitation.");
        return OSL_ERR_INVALID_PARAMETER;
    }
    uint32_t stored = static_cast<uint32_t>(len) + 1;
    uint32_t rc = prepare_or_log(h, e + round_up(stored, a));
    if (rc != 0) return rc;
    put_slot(h, kTypeString << 24 | stored, swap);
    memcpy(h->pucCursor, s, stored);
    __OSL_Slz_AppendIndex(&h->pucCursor, stored, a);
    return 0;
}

} // namespace

extern "C" OSTREL_API uint32_t Ostrel_Serializer_GetBuffer(Ostrel_Serializer *pSer, unsigned char **ppucBuf,
                                                           int *piLength);

namespace {

// Copies the finished packet of pInner into h as one nested-packet item.
uint32_t __OSL_Slz_InsertPacket(Ostrel_Serializer *h, Ostrel_Serializer *pInner, bool swap) {
    unsigned char *pkt = nullptr;
    int len = 0;
    uint32_t rc = Ostrel_Serializer_GetBuffer(pInner, &pkt, &len);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Get packet buffer failed.");
        return rc;
    }
    uint32_t ulen = static_cast<uint32_t>(len);
    if (ulen > kMax24) {
        OSL_LOG(LOG_LEVEL_ERROR, "The length of serialized package exceeds limitation(0xFFFFFF).");
        return OSL_ERR_INVALID_PARAMETER;
    }
    const uint32_t a = static_cast<uint32_t>(h->iAlign);
    // A handle may nest its own packet; its bytes move if the buffer grows.
    const bool self = pInner == h;
    const size_t selfOffset = self ? static_cast<size_t>(pkt - h->pucBuf) : 0;
    rc = prepare_or_log(h, slot_len(a) + round_up(ulen, a));
    if (rc != 0) return rc;
    if (self) pkt = h->pucBuf + selfOffset;
    put_slot(h, kTypePacket << 24 | ulen, swap);
    memcpy(h->pucCursor, pkt, ulen);
    __OSL_Slz_AppendIndex(&h->pucCursor, ulen, a);
    return 0;
}

uint32_t encode_packet(va_list &ap, Ostrel_Serializer *h, const Descriptor &d, int param, bool swap) {
    if (!d.bArray) {
        auto *inner = va_arg(ap, Ostrel_Serializer *);
        if (inner == nullptr) {
            OSL_LOG(LOG_LEVEL_ERROR, "The packet pointer is NULL parameter %d.", param);
            return OSL_ERR_INVALID_PARAMETER;
        }
        uint32_t rc = __OSL_Slz_InsertPacket(h, inner, swap);
        if (rc != 0) OSL_LOG(LOG_LEVEL_ERROR, "Insert packet to another packet failed.");
        return rc;
    }
    auto **arr = va_arg(ap, Ostrel_Serializer **);
    int count = va_arg(ap, int);
    if (static_cast<uint32_t>(count) > kMax24) {
        OSL_LOG(LOG_LEVEL_ERROR, "The packet counts of the packet array exceeds limitation.");
        return OSL_ERR_INVALID_PARAMETER;
    }
    if (count != 0 && arr == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "The array pointer is NULL while its length is %d of parameter %d.", count, param);
        return OSL_ERR_INVALID_PARAMETER;
    }
    uint32_t rc = prepare_or_log(h, slot_len(static_cast<uint32_t>(h->iAlign)));
    if (rc != 0) return rc;
    put_slot(h, kFlagArray | kTypePacket << 24 | static_cast<uint32_t>(count), swap);
    for (int i = 0; i < count; ++i) {
        rc = __OSL_Slz_InsertPacket(h, arr[i], swap);
        if (rc != 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Insert packet[%d] to another packet failed.", i);
            return rc;
        }
    }
    return 0;
}

void reset_packet(Ostrel_Serializer *h) {
    h->stHeader.ucCount = 0;
    h->stHeader.ucHeaderLength = static_cast<uint8_t>(header_len(static_cast<uint32_t>(h->iAlign)));
    memset(h->aucIndexMap, 0, sizeof h->aucIndexMap);
    h->stHeader.uTotalLength = h->stHeader.ucHeaderLength;
    h->pucCursor = h->pucBuf + h->stHeader.usItemsStart;
}

// Marks an index as used; returns false when it already was. Indexes that are
// multiples of 8 map to an empty mask and so are never recorded: packets
// written by this library have always accepted them more than once.
bool mark_index(Ostrel_Serializer *h, uint32_t index) {
    uint8_t mask = static_cast<uint8_t>(1u << (((index % 8) - 1u) & 31u));
    uint8_t &slot = h->aucIndexMap[index / 8];
    if (slot & mask) return false;
    slot = static_cast<uint8_t>(slot | mask);
    return true;
}

uint32_t serialize_items(Ostrel_Serializer *h, const char *p, va_list &ap) {
    const bool swap = h->uEndian != __OSL_Slz_GetByteOrder();
    const bool unordered = h->uOrder == 0;
    const uint32_t a = static_cast<uint32_t>(h->iAlign);
    const uint32_t e = slot_len(a);
    int param = 0;
    for (;;) {
        while (is_space(*p)) ++p;
        if (*p == '\0') return 0;
        ++param;
        if (h->stHeader.ucCount >= kMaxItems) {
            OSL_LOG(LOG_LEVEL_ERROR, "The items count in the packet had exceeded 255.");
            return OSL_ERR_INVALID_FORMAT;
        }
        const char *desc = p;
        Descriptor d{};
        if (*p != '%' && *p != '@' && *p != '#') {
            OSL_LOG(LOG_LEVEL_ERROR, "Format descriptor %s doesn't start with %% or @.", p);
            return OSL_ERR_INVALID_FORMAT;
        }
        d.cPrefix = *p++;
        const size_t itemStart = static_cast<size_t>(h->pucCursor - h->pucBuf);
        const uint32_t itemOffset = static_cast<uint32_t>(itemStart - h->stHeader.usItemsStart);
        if (unordered) {
            uint32_t rc = parse_index(p, desc, &d.uIndex);
            if (rc != 0) return rc;
            if (itemOffset >= 0x1000000u) {
                OSL_LOG(LOG_LEVEL_ERROR, "The packet length exceeds item index offset limitation.");
                return OSL_ERR_BUFFER_TOO_SMALL;
            }
            if (d.uIndex == 0) {
                OSL_LOG(LOG_LEVEL_ERROR, "Index 0 is invalid.");
                return OSL_ERR_INVALID_FORMAT;
            }
            if (d.uIndex > 255) {
                OSL_LOG(LOG_LEVEL_ERROR, "Index(%d) is larger than 255.", static_cast<int>(d.uIndex));
                return OSL_ERR_INVALID_FORMAT;
            }
            if (!mark_index(h, d.uIndex)) {
                OSL_LOG(LOG_LEVEL_ERROR, "Parameter %d used duplicated index: %d.", param, static_cast<int>(d.uIndex));
                return OSL_ERR_INVALID_FORMAT;
            }
        }
        if (*p == 'a') {
            d.bArray = true;
            ++p;
        }
        d.cLetter = *p;
        uint32_t rc;
        switch (d.cLetter) {
        case 'c': rc = __OSL_Slz_EncodeIntegerItem(ap, h, 1, d, swap); break;
        case 'h': rc = __OSL_Slz_EncodeIntegerItem(ap, h, 2, d, swap); break;
        case 'd': rc = __OSL_Slz_EncodeIntegerItem(ap, h, 4, d, swap); break;
        case 'l': rc = __OSL_Slz_EncodeIntegerItem(ap, h, 8, d, swap); break;
        case 'p': rc = __OSL_Slz_EncodeIntegerItem(ap, h, kTypePointer, d, swap); break;
        case 's':
            if (d.bArray) {
                OSL_LOG(LOG_LEVEL_ERROR, "Not support string array: %%as");
                return OSL_ERR_INVALID_FORMAT;
            }
            rc = encode_string(ap, h, swap);
            break;
        case 'b': rc = encode_packet(ap, h, d, param, swap); break;
        default:
            OSL_LOG(LOG_LEVEL_ERROR, "Unknown parameter type: %s.", p);
            return OSL_ERR_INVALID_FORMAT;
        }
        ++p;
        if (rc != 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Serialize parameter %d failed.", param);
            // The failed item is not counted; dropping its partial bytes keeps
            // the packet fit for appending after the failure.
            h->pucCursor = h->pucBuf + itemStart;
            return rc;
        }
        if (unordered) {
            // Written once the item is complete: a handle that nests its own
            // packet finishes it first, and that header lands on this slot.
            unsigned char *entry = h->pucBuf + h->stHeader.usItemsStart - static_cast<size_t>(h->stHeader.ucCount + 1u) * e;
            st32(entry, d.uIndex << 24 | itemOffset, swap);
            if (e == 8) memset(entry + 4, 0, 4);
        }
        h->stHeader.ucCount = static_cast<uint8_t>(h->stHeader.ucCount + 1);
        uint64_t total = h->stHeader.ucHeaderLength + static_cast<uint64_t>(h->pucCursor - h->pucBuf) -
                         h->stHeader.usItemsStart;
        if (unordered) total += static_cast<uint64_t>(h->stHeader.ucCount) * e;
        h->stHeader.uTotalLength = static_cast<uint32_t>(total);
    }
}

// --- reading ----------------------------------------------------------------

// Validates a received packet and, when it is sound, points h at it. Besides
// the layout checks it makes sure that walking the items ends exactly at the
// packet end and that every index entry names the start of an item, so that
// no later read can leave [pucBuf, pucBuf + uLength).
uint32_t __OSL_Slz_UpdateDecoderHandle(const unsigned char *pucBuf, uint32_t uLength, Ostrel_Serializer *h) {
    const unsigned char *p = pucBuf;
    if (p[0] != kPacketMagic) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid magic number: %d.", p[0]);
        return OSL_ERR_INVALID_DATA;
    }
    const uint32_t a = p[3];
    if (!valid_align(a)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid align length: %d.", static_cast<int>(a));
        return OSL_ERR_INVALID_DATA;
    }
    const uint8_t flags = p[2];
    const bool swap = (flags & kFlagBigEndian) != __OSL_Slz_GetByteOrder();
    const uint32_t total = ld32(p + 4, swap);
    if (total != uLength) {
        OSL_LOG(LOG_LEVEL_ERROR, "The length stored in the packet is %d while the given is %d.",
                static_cast<int>(total), static_cast<int>(uLength));
        return OSL_ERR_INVALID_DATA;
    }
    const uint32_t hl = p[9];
    if (hl > total || hl < header_len(a) || (hl != 12 && (hl & (hl - 1)) != 0)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid header length: %d.", static_cast<int>(hl));
        return OSL_ERR_INVALID_DATA;
    }
    const bool ordered = (flags & kFlagOrdered) != 0;
    const uint32_t count = p[8];
    const uint32_t e = slot_len(a);
    const uint32_t itemsOffset = ld16(p + 10, swap);
    if (ordered) {
        if (itemsOffset != hl) {
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid items offset in ordered mode: %d", static_cast<int>(itemsOffset));
            return OSL_ERR_INVALID_DATA;
        }
    } else {
        if (itemsOffset != hl + count * e) {
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid items offset in unordered mode: %d.", static_cast<int>(itemsOffset));
            return OSL_ERR_INVALID_DATA;
        }
        for (uint32_t i = 0; i < count; ++i) {
            const uint64_t at = hl + static_cast<uint64_t>(i) * e;
            if (at + e > uLength || (ld32(p + at, swap) & kMax24) + static_cast<uint64_t>(itemsOffset) >= total) {
                OSL_LOG(LOG_LEVEL_ERROR, "Invalid index table.");
                return OSL_ERR_INVALID_DATA;
            }
        }
    }

    // Walk the items. Positions are 64-bit so that no length can wrap them;
    // every header read is preceded by a check that its slot is inside.
    uint32_t starts[kMaxItems];
    uint64_t pos = itemsOffset;
    for (uint32_t i = 0; i < count; ++i) {
        starts[i] = static_cast<uint32_t>(pos - itemsOffset);
        bool ok = true;
        if (pos + e > uLength) {
            ok = false;
        } else {
            const uint32_t v = ld32(p + pos, swap);
            pos += e;
            const uint32_t type = (v >> 24) & 0x3F;
            const uint32_t len = v & kMax24;
            const bool isNull = (v & kFlagNullArray) != 0;
            if (v & kFlagArray) {
                const uint32_t foreignPtr = sizeof(void *) == 8 ? kTypePtr32 : kTypePtr64;
                const bool elementType = type == 1 || type == 2 || type == 4 || type == 8 || type == kTypePtr32 ||
                                         type == kTypePtr64 || type == kTypePacket;
                // A null array whose slot is not 4 bytes, and an element type
                // no array can have, are rejected without a message.
                if ((isNull && len != 4) || !elementType) {
                    ok = false;
                } else if (type == foreignPtr) {
                    OSL_LOG(LOG_LEVEL_ERROR,
                            "Pointer that has different length with current arch is forbidden, item: %d.",
                            static_cast<int>(i));
                    ok = false;
                } else if (type == kTypePacket) {
                    // A packet array is never written as a null array.
                    if (isNull) ok = false;
                    for (uint32_t j = 0; ok && j < len; ++j) {
                        if (pos + e > uLength) {
                            ok = false;
                            break;
                        }
                        const uint32_t mv = ld32(p + pos, swap);
                        pos += e;
                        if ((mv >> 24) != kTypePacket || pos >= uLength || p[pos] != kPacketMagic) {
                            ok = false;
                            break;
                        }
                        pos += round_up(mv & kMax24, a);
                    }
                } else {
                    pos += isNull ? e : round_up(len, a);
                }
            } else if (isNull) {
                ok = false;
            } else {
                switch (type) {
                case 1:
                case 2:
                case 4:
                case 8: ok = len == type; break;
                case kTypePtr64: ok = len == 8; break;
                case kTypePtr32: ok = len == 4; break;
                case kTypeString: ok = len == 0 || (pos + len <= uLength && p[pos + len - 1] == 0); break;
                case kTypePacket: ok = len != 0 && pos < uLength && p[pos] == kPacketMagic; break;
                default: ok = false; break;
                }
                pos += round_up(len, a);
            }
        }
        if (!ok) {
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid item %d in packet.", static_cast<int>(i));
            return OSL_ERR_INVALID_DATA;
        }
    }
    if (pos != uLength) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid packet data: context exceeds packet length.");
        return OSL_ERR_INVALID_DATA;
    }
    if (!ordered) {
        // Every entry must name the start of an item (starts[] is ascending).
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t off = ld32(p + hl + static_cast<size_t>(i) * e, swap) & kMax24;
            uint32_t lo = 0, hi = count;
            while (lo < hi) {
                uint32_t mid = (lo + hi) / 2;
                if (starts[mid] < off)
                    lo = mid + 1;
                else
                    hi = mid;
            }
            if (lo == count || starts[lo] != off) {
                OSL_LOG(LOG_LEVEL_ERROR, "Invalid index table.");
                return OSL_ERR_INVALID_DATA;
            }
        }
    }

    h->uMagic = kReadMagic;
    h->uEndian = flags & kFlagBigEndian;
    h->iAlign = static_cast<int32_t>(a);
    h->uOrder = ordered ? 1u : 0u;
    h->pucPacket = const_cast<unsigned char *>(pucBuf);
    h->uPacketLength = uLength;
    h->pucBuf = nullptr;
    h->pucCursor = nullptr;
    h->uCapacity = 0;
    memset(h->aucIndexMap, 0, sizeof h->aucIndexMap);
    h->uNextItem = itemsOffset;
    h->stHeader = OSL_SlzHeader{kPacketMagic, p[1], flags, static_cast<uint8_t>(a), total,
                                static_cast<uint8_t>(count), static_cast<uint8_t>(hl),
                                static_cast<uint16_t>(itemsOffset)};
    h->bPointer32 = 0;
    return 0;
}

// Reading state of one Deserialize call.
struct Reader {
    Ostrel_Serializer *h;
    unsigned char *pkt;
    uint32_t a;
    uint32_t e;
    bool swap;
    uint64_t pos; // offset of the current item in the packet
    int param;
};

// Integer and pointer items (letters c h d l p).
uint32_t __OSL_Slz_DecodeIntegerItem(va_list &ap, Reader &r, const Descriptor &d) {
    uint32_t type, size;
    switch (d.cLetter) {
    case 'c': type = size = 1; break;
    case 'h': type = size = 2; break;
    case 'd': type = size = 4; break;
    case 'l': type = size = 8; break;
    default:
        type = r.h->bPointer32 ? kTypePtr32 : kTypePtr64;
        size = r.h->bPointer32 ? 4 : 8;
        break;
    }
    const uint32_t v = ld32(r.pkt + r.pos, r.swap);
    const uint32_t itemType = (v >> 24) & 0x3F;
    if (itemType != type) {
        OSL_LOG(LOG_LEVEL_ERROR, "The item's type in the packet is %d, but is deserialized as %d.",
                static_cast<int>(itemType), static_cast<int>(type));
        return OSL_ERR_INVALID_FORMAT;
    }
    const uint32_t len = v & kMax24;
    unsigned char *data = r.pkt + r.pos + r.e;

    if (!d.bArray) {
        void *dst = va_arg(ap, void *);
        if (dst != nullptr) {
            if (d.cPrefix == '%') {
                copy_value(static_cast<unsigned char *>(dst), data, size, r.swap);
            } else if (d.bAlloc) {
                void *block = Ostrel_Malloc_D(size, OSL_SRC_PATH, __LINE__);
                if (block == nullptr) {
                    OSL_LOG(LOG_LEVEL_ERROR, "Alloc memory (size=%d) failed.", static_cast<int>(size));
                    return OSL_ERR_NO_MEMORY;
                }
                copy_value(static_cast<unsigned char *>(block), data, size, r.swap);
                *static_cast<void **>(dst) = block;
            } else {
                if (r.swap && size > 1) copy_value(data, data, size, true);
                *static_cast<const void **>(dst) = data;
            }
        }
        r.pos += r.e + round_up(len, r.a);
        return 0;
    }

    void *dst = va_arg(ap, void *);
    unsigned int *pLen = va_arg(ap, unsigned int *);
    if (pLen == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Deserialize to an array of which the length pointer is NULL.");
        return OSL_ERR_INVALID_PARAMETER;
    }
    if (v & kFlagNullArray) {
        const uint32_t count = ld32(data, r.swap);
        if (dst != nullptr) {
            if (d.cPrefix == '%') {
                // The NULL pointer lands in the element buffer, within its capacity.
                uint64_t room = static_cast<uint64_t>(*pLen) * size;
                memset(dst, 0, static_cast<size_t>(room < sizeof(void *) ? room : sizeof(void *)));
            } else {
                *static_cast<void **>(dst) = nullptr;
            }
        }
        *pLen = count;
        r.pos += 2ull * r.e;
        return 0;
    }
    const uint32_t count = len / size;
    if (dst != nullptr) {
        if (d.cPrefix == '%') {
            if (*pLen < count) {
                OSL_LOG(LOG_LEVEL_ERROR, "Given memory is not enough, expect %d, was %d bytes.",
                        static_cast<int>(count), static_cast<int>(*pLen));
                return OSL_ERR_BUFFER_TOO_SMALL;
            }
            copy_elements(static_cast<unsigned char *>(dst), data, count, size, r.swap);
        } else if (d.bAlloc) {
            void *block = nullptr;
            if (count != 0) {
                block = Ostrel_Calloc_D(count, size, OSL_SRC_PATH, __LINE__);
                if (block == nullptr) {
                    OSL_LOG(LOG_LEVEL_ERROR, "Alloc memory (size=%d*%d) failed.", static_cast<int>(count),
                            static_cast<int>(size));
                    return OSL_ERR_NO_MEMORY;
                }
                copy_elements(static_cast<unsigned char *>(block), data, count, size, r.swap);
            }
            *static_cast<void **>(dst) = block;
        } else {
            if (r.swap) copy_elements(data, data, count, size, true);
            *static_cast<void **>(dst) = count != 0 ? data : nullptr;
        }
    }
    *pLen = count;
    r.pos += r.e + round_up(len, r.a);
    return 0;
}

uint32_t decode_string(va_list &ap, Reader &r, const Descriptor &d) {
    if (d.bArray) {
        OSL_LOG(LOG_LEVEL_ERROR, "Not support string array: %%as");
        return OSL_ERR_INVALID_FORMAT;
    }
    const uint32_t v = ld32(r.pkt + r.pos, r.swap);
    const uint32_t itemType = (v >> 24) & 0x3F;
    if (itemType != kTypeString) {
        OSL_LOG(LOG_LEVEL_ERROR, "The item's type in the packet is %d, but is deserialized as string.",
                static_cast<int>(itemType));
        return OSL_ERR_INVALID_FORMAT;
    }
    const uint32_t len = v & kMax24;
    const unsigned char *data = r.pkt + r.pos + r.e;
    void *dst = va_arg(ap, void *);
    if (dst != nullptr) {
        if (d.cPrefix == '%') {
            int *pSize = va_arg(ap, int *);
            if (pSize == nullptr) {
                OSL_LOG(LOG_LEVEL_ERROR, "The string length pointer of parameter %d is NULL.", r.param);
                return OSL_ERR_INVALID_PARAMETER;
            }
            if (*pSize < static_cast<int>(len)) {
                OSL_LOG(LOG_LEVEL_ERROR, "The output buffer length of parameter %d is %d while the array length is %d.",
                        r.param, *pSize, static_cast<int>(len));
                *pSize = static_cast<int>(len);
                return OSL_ERR_BUFFER_TOO_SMALL;
            }
            memcpy(dst, data, len);
            *pSize = static_cast<int>(len);
        } else if (d.bAlloc) {
            char *copy = nullptr;
            if (len != 0) {
                copy = static_cast<char *>(Ostrel_Malloc_D(len, OSL_SRC_PATH, __LINE__));
                if (copy == nullptr) {
                    OSL_LOG(LOG_LEVEL_ERROR, "Alloc memory (size=%d) failed.", static_cast<int>(len));
                    return OSL_ERR_NO_MEMORY;
                }
                memcpy(copy, data, len);
            }
            *static_cast<char **>(dst) = copy;
        } else {
            *static_cast<const char **>(dst) = len != 0 ? reinterpret_cast<const char *>(data) : nullptr;
        }
    }
    r.pos += r.e + round_up(len, r.a);
    return 0;
}

uint32_t decode_packet(va_list &ap, Reader &r, const Descriptor &d) {
    if (d.cPrefix == '%') {
        OSL_LOG(LOG_LEVEL_ERROR, "Not support copy packet: %%b or %%ab");
        return OSL_ERR_INVALID_FORMAT;
    }
    const uint32_t v = ld32(r.pkt + r.pos, r.swap);
    const uint32_t itemType = (v >> 24) & 0x3F;
    if (itemType != kTypePacket) {
        OSL_LOG(LOG_LEVEL_ERROR, "The item's type in the packet is %d, but is deserialized as packet.",
                static_cast<int>(itemType));
        return OSL_ERR_INVALID_FORMAT;
    }
    const uint32_t len = v & kMax24;
    if (!d.bArray) {
        auto **phInner = va_arg(ap, Ostrel_Serializer **);
        const unsigned char *data = r.pkt + r.pos + r.e;
        if (phInner != nullptr) {
            uint32_t rc = Ostrel_Serializer_DeserializeInit(data, static_cast<int>(len), phInner);
            if (rc != 0) {
                OSL_LOG(LOG_LEVEL_ERROR, "DeserializeInit of parameter %d failed.", r.param);
                return rc;
            }
        }
        r.pos += r.e + round_up(len, r.a);
        return 0;
    }
    auto **arr = va_arg(ap, Ostrel_Serializer **);
    unsigned int *pCount = va_arg(ap, unsigned int *);
    if (pCount == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "The string length pointer of parameter %d is NULL.", r.param);
        return OSL_ERR_INVALID_PARAMETER;
    }
    if (len > *pCount) {
        OSL_LOG(LOG_LEVEL_ERROR, "The output buffer length of parameter %d is %d while the array length is %d.",
                r.param, static_cast<int>(*pCount), static_cast<int>(len));
        return OSL_ERR_BUFFER_TOO_SMALL;
    }
    uint64_t pos = r.pos + r.e;
    for (uint32_t j = 0; j < len; ++j) {
        const uint32_t memberLen = ld32(r.pkt + pos, r.swap) & kMax24;
        pos += r.e;
        if (arr != nullptr) {
            uint32_t rc = Ostrel_Serializer_DeserializeInit(r.pkt + pos, static_cast<int>(memberLen), &arr[j]);
            if (rc != 0) {
                OSL_LOG(LOG_LEVEL_ERROR, "DeserializeInit of parameter %d failed.", r.param);
                return rc;
            }
        }
        pos += round_up(memberLen, r.a);
    }
    *pCount = len;
    r.pos = pos;
    return 0;
}

// Finds the item of an index in the index table; false when there is none.
// Index 0 is never written, so it is never found.
bool find_index(const Reader &r, uint32_t index, uint64_t *pPos) {
    if (index == 0) return false;
    const OSL_SlzHeader &hd = r.h->stHeader;
    const unsigned char *entry = r.pkt + hd.ucHeaderLength;
    for (uint32_t i = 0; i < hd.ucCount; ++i, entry += r.e) {
        const uint32_t v = ld32(entry, r.swap);
        if ((v >> 24) == index) {
            *pPos = static_cast<uint64_t>(hd.usItemsStart) + (v & kMax24);
            return true;
        }
    }
    return false;
}

uint32_t deserialize_items(Ostrel_Serializer *h, const char *p, va_list &ap) {
    Reader r{h,
             h->pucPacket,
             static_cast<uint32_t>(h->iAlign),
             slot_len(static_cast<uint32_t>(h->iAlign)),
             h->uEndian != __OSL_Slz_GetByteOrder(),
             h->uNextItem,
             0};
    const bool unordered = h->uOrder == 0;
    for (;;) {
        while (is_space(*p)) ++p;
        if (*p == '\0') break;
        ++r.param;
        const char *desc = p;
        Descriptor d{};
        if (*p != '%' && *p != '@') {
            OSL_LOG(LOG_LEVEL_ERROR, "Format descriptor %s doesn't start with %% or @.", p);
            return OSL_ERR_INVALID_FORMAT;
        }
        d.cPrefix = *p++;
        if (*p == 'N') {
            d.bAlloc = d.cPrefix == '@';
            ++p;
        }
        if (unordered) {
            uint32_t rc = parse_index(p, desc, &d.uIndex);
            if (rc != 0) return rc;
            if (d.uIndex > 255) {
                OSL_LOG(LOG_LEVEL_ERROR, "Index(%d) is larger than 255.", static_cast<int>(d.uIndex));
                return OSL_ERR_INVALID_FORMAT;
            }
        }
        if (*p == 'a') {
            d.bArray = true;
            ++p;
        }
        d.cLetter = *p;
        if (strchr("chdlpsb", d.cLetter) == nullptr || d.cLetter == '\0') {
            OSL_LOG(LOG_LEVEL_ERROR, "Unknown parameter type: %s.", p);
            return OSL_ERR_INVALID_FORMAT;
        }
        ++p;

        if (unordered) {
            if (!find_index(r, d.uIndex, &r.pos)) {
                OSL_LOG(LOG_LEVEL_ERROR, "Can't find serialized data with index: %d.", static_cast<int>(d.uIndex));
                return OSL_ERR_NOT_FOUND;
            }
        } else if (r.pos >= h->uPacketLength) {
            OSL_LOG(LOG_LEVEL_ERROR, "No more items in the packet.");
            return OSL_ERR_NOT_FOUND;
        }
        const bool itemIsArray = (ld32(r.pkt + r.pos, r.swap) & kFlagArray) != 0;
        if (itemIsArray && !d.bArray) {
            OSL_LOG(LOG_LEVEL_ERROR, "Item in the packet is an array, but is NOT deserialized as an array.");
            return OSL_ERR_INVALID_FORMAT;
        }
        if (!itemIsArray && d.bArray) {
            OSL_LOG(LOG_LEVEL_ERROR, "Item in the packet is NOT an array, but is deserialized as an array.");
            return OSL_ERR_INVALID_FORMAT;
        }
        uint32_t rc;
        switch (d.cLetter) {
        case 's': rc = decode_string(ap, r, d); break;
        case 'b': rc = decode_packet(ap, r, d); break;
        default: rc = __OSL_Slz_DecodeIntegerItem(ap, r, d); break;
        }
        if (rc != 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Deserialize parameter %d failed.", r.param);
            return rc;
        }
    }
    h->uNextItem = static_cast<uint32_t>(r.pos);
    return 0;
}

} // namespace

extern "C" {

OSTREL_API uint32_t Ostrel_Serializer_SerializeInit(const Ostrel_SerializerConfig *pConfig, Ostrel_Serializer **phSer) {
    OSL_ASSERT_ARG(NULL != pConfig);
    OSL_ASSERT_ARG(NULL != phSer);
    if (pConfig->uEndian > 1 || pConfig->uOrder > 1) OSL_RETURN(OSL_ERR_INVALID_DATA);
    if (!valid_align(pConfig->uAlign)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid align length: %d.", static_cast<int>(pConfig->uAlign));
        OSL_RETURN(OSL_ERR_INVALID_DATA);
    }
    auto *h = static_cast<Ostrel_Serializer *>(calloc(1, sizeof(Ostrel_Serializer)));
    if (h == nullptr) OSL_ALLOC_FAILED(sizeof(Ostrel_Serializer));
    const uint32_t a = pConfig->uAlign;
    h->uMagic = kWriteMagic;
    h->uEndian = pConfig->uEndian;
    h->iAlign = static_cast<int32_t>(a);
    h->uOrder = pConfig->uOrder;
    h->bPointer32 = (pConfig->iExtended > 0 && pConfig->bPointer32 != 0) ? 1u : 0u;
    const uint32_t hl = header_len(a);
    h->stHeader.ucMagic = kPacketMagic;
    h->stHeader.ucReserved = 0;
    h->stHeader.ucFlags = static_cast<uint8_t>(pConfig->uEndian | (pConfig->uOrder == 1 ? kFlagOrdered : 0));
    h->stHeader.ucAlign = static_cast<uint8_t>(a);
    h->stHeader.uTotalLength = hl;
    h->stHeader.ucCount = 0;
    h->stHeader.ucHeaderLength = static_cast<uint8_t>(hl);
    const uint32_t reserved = pConfig->uOrder == 1 ? hl : hl + kMaxItems * slot_len(a);
    uint32_t rc = __OSL_Slz_PrepareBuffer(h, reserved);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Prepare serialized output buffer failed.");
        h->uMagic = 0;
        free(h);
        OSL_RETURN(rc);
    }
    h->pucCursor = h->pucBuf + reserved;
    h->stHeader.usItemsStart = static_cast<uint16_t>(reserved);
    OSL_LOG(LOG_LEVEL_INFO, "Create serializer: %p for serializing.", static_cast<void *>(h));
    *phSer = h;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Serializer_Serialize(Ostrel_Serializer *pSer, int mode, const char *szFormat, ...) {
    OSL_ASSERT_ARG(NULL != pSer);
    OSL_ASSERT_ARG(NULL != szFormat);
    SLZ_CHECK_HANDLE(pSer);
    if (pSer->uMagic != kWriteMagic) {
        OSL_LOG(LOG_LEVEL_ERROR, "Handle didn't be initialized by Ostrel_Serializer_SerializeInit()");
        OSL_RETURN(OSL_ERR_INVALID_STATUS);
    }
    if (pSer->uEndian > 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid endian.");
        OSL_RETURN(OSL_ERR_INVALID_HANDLE);
    }
    if (pSer->uOrder > 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid order setting.");
        OSL_RETURN(OSL_ERR_INVALID_HANDLE);
    }
    if (!valid_align(static_cast<uint32_t>(pSer->iAlign))) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid align length in handle: %d.", pSer->iAlign);
        OSL_RETURN(OSL_ERR_INVALID_DATA);
    }
    if (mode != OSL_SLZ_MODE_APPEND && mode != OSL_SLZ_MODE_RESET) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid serialize mode: %d.", mode);
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    if (mode == OSL_SLZ_MODE_RESET) reset_packet(pSer);
    va_list ap;
    va_start(ap, szFormat);
    uint32_t rc = serialize_items(pSer, szFormat, ap);
    va_end(ap);
    OSL_RETURN(rc);
}

OSTREL_API uint32_t Ostrel_Serializer_GetBuffer(Ostrel_Serializer *pSer, unsigned char **ppucBuf, int *piLength) {
    OSL_ASSERT_ARG(NULL != pSer);
    OSL_ASSERT_ARG(NULL != ppucBuf);
    OSL_ASSERT_ARG(NULL != piLength);
    SLZ_CHECK_HANDLE(pSer);
    if (pSer->uMagic != kWriteMagic) {
        OSL_LOG(LOG_LEVEL_ERROR, "Handle didn't be initialized by Ostrel_Serializer_SerializeInit()");
        OSL_RETURN(OSL_ERR_INVALID_STATUS);
    }
    const OSL_SlzHeader &hd = pSer->stHeader;
    const uint32_t e = slot_len(static_cast<uint32_t>(pSer->iAlign));
    const uint32_t indexBytes = pSer->uOrder == 0 ? hd.ucCount * e : 0;
    const uint32_t start = hd.usItemsStart - indexBytes - hd.ucHeaderLength;
    const bool swap = pSer->uEndian != __OSL_Slz_GetByteOrder();
    unsigned char *p = pSer->pucBuf + start;
    p[0] = hd.ucMagic;
    p[1] = hd.ucReserved;
    p[2] = hd.ucFlags;
    p[3] = hd.ucAlign;
    st32(p + 4, hd.uTotalLength, swap);
    p[8] = hd.ucCount;
    p[9] = hd.ucHeaderLength;
    st16(p + 10, static_cast<uint16_t>(hd.usItemsStart - start), swap);
    if (hd.ucHeaderLength > 12) memset(p + 12, 0, hd.ucHeaderLength - 12u);
    *ppucBuf = p;
    *piLength = static_cast<int>(hd.uTotalLength);
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Serializer_Destroy(Ostrel_Serializer *pSer) {
    OSL_ASSERT_ARG(NULL != pSer);
    SLZ_CHECK_HANDLE(pSer);
    if (pSer->uCapacity != 0) free(pSer->pucBuf);
    memset(pSer, 0, sizeof *pSer);
    free(pSer);
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Serializer_DeserializeInit(const unsigned char *pucBuf, int length,
                                                      Ostrel_Serializer **phSer) {
    OSL_ASSERT_ARG(NULL != pucBuf);
    OSL_ASSERT_ARG(NULL != phSer);
    if (length <= 11) {
        OSL_LOG(LOG_LEVEL_ERROR, "Serialized packet length error: %d.", length);
        OSL_RETURN(OSL_ERR_INVALID_DATA);
    }
    Ostrel_Serializer *h = *phSer;
    const bool fresh = h == nullptr;
    if (!fresh) {
        OSL_LOG(LOG_LEVEL_INFO, "Reuse old serializer: %p to deserialize.", static_cast<void *>(h));
        if (!is_serializer(h)) {
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid handle.");
            OSL_RETURN(OSL_ERR_INVALID_HANDLE);
        }
        if (h->uMagic == kWriteMagic) {
            OSL_LOG(LOG_LEVEL_ERROR, "This handle can only be used to serialize.");
            OSL_RETURN(OSL_ERR_INVALID_STATUS);
        }
    } else {
        h = static_cast<Ostrel_Serializer *>(calloc(1, sizeof(Ostrel_Serializer)));
        if (h == nullptr) OSL_ALLOC_FAILED(sizeof(Ostrel_Serializer));
    }
    uint32_t rc = __OSL_Slz_UpdateDecoderHandle(pucBuf, static_cast<uint32_t>(length), h);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid encoded packet data.");
        if (fresh) free(h);
        OSL_RETURN(rc);
    }
    *phSer = h;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Serializer_DeserializeInit_Ex(const Ostrel_SerializerConfig *pConfig,
                                                         const unsigned char *pucBuf, int length,
                                                         Ostrel_Serializer **phSer) {
    OSL_ASSERT_ARG(NULL != pConfig);
    OSL_ASSERT_ARG(NULL != pucBuf);
    OSL_ASSERT_ARG(NULL != phSer);
    uint32_t rc = Ostrel_Serializer_DeserializeInit(pucBuf, length, phSer);
    if (rc != 0) return rc;
    if (pConfig->iExtended > 0 && pConfig->bPointer32 != 0) (*phSer)->bPointer32 = 1;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Serializer_Deserialize(Ostrel_Serializer *pSer, const char *szFormat, ...) {
    OSL_ASSERT_ARG(NULL != pSer);
    OSL_ASSERT_ARG(NULL != szFormat);
    SLZ_CHECK_HANDLE(pSer);
    if (pSer->uMagic != kReadMagic) {
        OSL_LOG(LOG_LEVEL_ERROR, "Handle didn't be initialized by Ostrel_Serializer_DeserializeInit()");
        OSL_RETURN(OSL_ERR_INVALID_STATUS);
    }
    va_list ap;
    va_start(ap, szFormat);
    uint32_t rc = deserialize_items(pSer, szFormat, ap);
    va_end(ap);
    OSL_RETURN(rc);
}

} // extern "C"
