// Keyed table: hash buckets over string, pointer or byte-array keys, with
// every node also kept on one doubly linked list in a sort order, and
// iterators whose deletes and updates are carried out at their next step.
//
// A node is one heap block: the fixed fields, then the key bytes (string and
// byte-array keys), then the value bytes when the value is copied. Growing the
// bucket array relinks nodes without moving them; only a value update that
// needs more room moves a node to a new block.
//
// The bucket array stops growing at TABLE_RANGE_MAX buckets, after which its
// chains lengthen with the count. So that a lookup still costs about one node
// visit, a table whose chains average more than kIndexFromChain nodes also
// keeps a private lookup index beside them: a power-of-two array of heads of
// singly linked chains (through each node's pIndexNext) over the key's full
// hash, with at least two heads a node, and the last node of each bucket
// chain, so that an add appends without walking its chain. The buckets,
// chains and sorted list stay exactly as they would be without it; only the
// way a node is found changes. When the index cannot be allocated the table
// works through its chains alone.
#define OSL_SRC_PATH "src/table"
#include <cstdlib>
#if defined(__ARM_FEATURE_CRC32)
#include <arm_acle.h>
#endif
#include <cstring>

#include "osl_frame.h"
#include "ostrel_table.h"

// The standard CRC-32 table of the reflected polynomial 0xEDB88320.
extern const uint32_t g_Table_Crc32Table[256];
constexpr uint32_t g_Table_Crc32Table[256] = {
    0x00000000u, 0x77073096u, 0xEE0E612Cu, 0x990951BAu, 0x076DC419u, 0x706AF48Fu,
    0xE963A535u, 0x9E6495A3u, 0x0EDB8832u, 0x79DCB8A4u, 0xE0D5E91Eu, 0x97D2D988u,
    0x09B64C2Bu, 0x7EB17CBDu, 0xE7B82D07u, 0x90BF1D91u, 0x1DB71064u, 0x6AB020F2u,
    0xF3B97148u, 0x84BE41DEu, 0x1ADAD47Du, 0x6DDDE4EBu, 0xF4D4B551u, 0x83D385C7u,
    0x136C9856u, 0x646BA8C0u, 0xFD62F97Au, 0x8A65C9ECu, 0x14015C4Fu, 0x63066CD9u,
    0xFA0F3D63u, 0x8D080DF5u, 0x3B6E20C8u, 0x4C69105Eu, 0xD56041E4u, 0xA2677172u,
    0x3C03E4D1u, 0x4B04D447u, 0xD20D85FDu, 0xA50AB56Bu, 0x35B5A8FAu, 0x42B2986Cu,
    0xDBBBC9D6u, 0xACBCF940u, 0x32D86CE3u, 0x45DF5C75u, 0xDCD60DCFu, 0xABD13D59u,
    0x26D930ACu, 0x51DE003Au, 0xC8D75180u, 0xBFD06116u, 0x21B4F4B5u, 0x56B3C423u,
    0xCFBA9599u, 0xB8BDA50Fu, 0x2802B89Eu, 0x5F058808u, 0xC60CD9B2u, 0xB10BE924u,
    0x2F6F7C87u, 0x58684C11u, 0xC1611DABu, 0xB6662D3Du, 0x76DC4190u, 0x01DB7106u,
    0x98D220BCu, 0xEFD5102Au, 0x71B18589u, 0x06B6B51Fu, 0x9FBFE4A5u, 0xE8B8D433u,
    0x7807C9A2u, 0x0F00F934u, 0x9609A88Eu, 0xE10E9818u, 0x7F6A0DBBu, 0x086D3D2Du,
    0x91646C97u, 0xE6635C01u, 0x6B6B51F4u, 0x1C6C6162u, 0x856530D8u, 0xF262004Eu,
    0x6C0695EDu, 0x1B01A57Bu, 0x8208F4C1u, 0xF50FC457u, 0x65B0D9C6u, 0x12B7E950u,
    0x8BBEB8EAu, 0xFCB9887Cu, 0x62DD1DDFu, 0x15DA2D49u, 0x8CD37CF3u, 0xFBD44C65u,
    0x4DB26158u, 0x3AB551CEu, 0xA3BC0074u, 0xD4BB30E2u, 0x4ADFA541u, 0x3DD895D7u,
    0xA4D1C46Du, 0xD3D6F4FBu, 0x4369E96Au, 0x346ED9FCu, 0xAD678846u, 0xDA60B8D0u,
    0x44042D73u, 0x33031DE5u, 0xAA0A4C5Fu, 0xDD0D7CC9u, 0x5005713Cu, 0x270241AAu,
    0xBE0B1010u, 0xC90C2086u, 0x5768B525u, 0x206F85B3u, 0xB966D409u, 0xCE61E49Fu,
    0x5EDEF90Eu, 0x29D9C998u, 0xB0D09822u, 0xC7D7A8B4u, 0x59B33D17u, 0x2EB40D81u,
    0xB7BD5C3Bu, 0xC0BA6CADu, 0xEDB88320u, 0x9ABFB3B6u, 0x03B6E20Cu, 0x74B1D29Au,
    0xEAD54739u, 0x9DD277AFu, 0x04DB2615u, 0x73DC1683u, 0xE3630B12u, 0x94643B84u,
    0x0D6D6A3Eu, 0x7A6A5AA8u, 0xE40ECF0Bu, 0x9309FF9Du, 0x0A00AE27u, 0x7D079EB1u,
    0xF00F9344u, 0x8708A3D2u, 0x1E01F268u, 0x6906C2FEu, 0xF762575Du, 0x806567CBu,
    0x196C3671u, 0x6E6B06E7u, 0xFED41B76u, 0x89D32BE0u, 0x10DA7A5Au, 0x67DD4ACCu,
    0xF9B9DF6Fu, 0x8EBEEFF9u, 0x17B7BE43u, 0x60B08ED5u, 0xD6D6A3E8u, 0xA1D1937Eu,
    0x38D8C2C4u, 0x4FDFF252u, 0xD1BB67F1u, 0xA6BC5767u, 0x3FB506DDu, 0x48B2364Bu,
    0xD80D2BDAu, 0xAF0A1B4Cu, 0x36034AF6u, 0x41047A60u, 0xDF60EFC3u, 0xA867DF55u,
    0x316E8EEFu, 0x4669BE79u, 0xCB61B38Cu, 0xBC66831Au, 0x256FD2A0u, 0x5268E236u,
    0xCC0C7795u, 0xBB0B4703u, 0x220216B9u, 0x5505262Fu, 0xC5BA3BBEu, 0xB2BD0B28u,
    0x2BB45A92u, 0x5CB36A04u, 0xC2D7FFA7u, 0xB5D0CF31u, 0x2CD99E8Bu, 0x5BDEAE1Du,
    0x9B64C2B0u, 0xEC63F226u, 0x756AA39Cu, 0x026D930Au, 0x9C0906A9u, 0xEB0E363Fu,
    0x72076785u, 0x05005713u, 0x95BF4A82u, 0xE2B87A14u, 0x7BB12BAEu, 0x0CB61B38u,
    0x92D28E9Bu, 0xE5D5BE0Du, 0x7CDCEFB7u, 0x0BDBDF21u, 0x86D3D2D4u, 0xF1D4E242u,
    0x68DDB3F8u, 0x1FDA836Eu, 0x81BE16CDu, 0xF6B9265Bu, 0x6FB077E1u, 0x18B74777u,
    0x88085AE6u, 0xFF0F6A70u, 0x66063BCAu, 0x11010B5Cu, 0x8F659EFFu, 0xF862AE69u,
    0x616BFFD3u, 0x166CCF45u, 0xA00AE278u, 0xD70DD2EEu, 0x4E048354u, 0x3903B3C2u,
    0xA7672661u, 0xD06016F7u, 0x4969474Du, 0x3E6E77DBu, 0xAED16A4Au, 0xD9D65ADCu,
    0x40DF0B66u, 0x37D83BF0u, 0xA9BCAE53u, 0xDEBB9EC5u, 0x47B2CF7Fu, 0x30B5FFE9u,
    0xBDBDF21Cu, 0xCABAC28Au, 0x53B39330u, 0x24B4A3A6u, 0xBAD03605u, 0xCDD70693u,
    0x54DE5729u, 0x23D967BFu, 0xB3667A2Eu, 0xC4614AB8u, 0x5D681B02u, 0x2A6F2B94u,
    0xB40BBE37u, 0xC30C8EA1u, 0x5A05DF1Bu, 0x2D02EF8Du
};

namespace {

constexpr uint32_t kTableMagic = 0xC47F8609u;
constexpr uint32_t kIterMagic = 0xD47F8609u;
constexpr size_t kLargeMalloc = 0x7FFFFF;
constexpr uint32_t kDefaultThreshold = 75;
constexpr uint32_t kThresholdMax = 1000;
// Copied values start on this boundary inside the node block, so a value
// read through the returned pointer is as aligned as malloc's own blocks.
constexpr size_t kValueAlign = alignof(max_align_t);

// Slicing tables for eight bytes a step: row 0 is g_Table_Crc32Table, row k
// advances row k-1 by one more zero byte. The result is bit for bit the
// byte-at-a-time CRC.
struct CrcSlices {
    uint32_t row[8][256];
};

constexpr CrcSlices make_crc_slices() {
    CrcSlices s{};
    for (int i = 0; i < 256; ++i) s.row[0][i] = g_Table_Crc32Table[i];
    for (int k = 1; k < 8; ++k)
        for (int i = 0; i < 256; ++i) {
            uint32_t prev = s.row[k - 1][i];
            s.row[k][i] = (prev >> 8) ^ s.row[0][prev & 0xFFu];
        }
    return s;
}

constexpr CrcSlices kCrc = make_crc_slices();

// CRC-32 register update over n bytes: start value in, register out, with no
// final inversion. On AArch64 processors with the CRC32 instructions (same
// reflected polynomial) they do the work; elsewhere eight bytes a step through
// the slicing tables. Both give the values of the byte-at-a-time form below.
inline uint32_t crc_update(uint32_t crc, const unsigned char *p, size_t n) {
#if defined(__ARM_FEATURE_CRC32) && defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    while (n >= 8) {
        uint64_t v;
        memcpy(&v, p, 8);
        crc = __crc32d(crc, v);
        p += 8;
        n -= 8;
    }
    while (n-- != 0) crc = __crc32b(crc, *p++);
    return crc;
#else
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    while (n >= 8) {
        uint32_t lo, hi;
        memcpy(&lo, p, 4);
        memcpy(&hi, p + 4, 4);
        lo ^= crc;
        crc = kCrc.row[7][lo & 0xFFu] ^ kCrc.row[6][(lo >> 8) & 0xFFu] ^ kCrc.row[5][(lo >> 16) & 0xFFu] ^
              kCrc.row[4][lo >> 24] ^ kCrc.row[3][hi & 0xFFu] ^ kCrc.row[2][(hi >> 8) & 0xFFu] ^
              kCrc.row[1][(hi >> 16) & 0xFFu] ^ kCrc.row[0][hi >> 24];
        p += 8;
        n -= 8;
    }
#endif
    while (n-- != 0) crc = g_Table_Crc32Table[(crc ^ *p++) & 0xFFu] ^ (crc >> 8);
    return crc;
#endif
}

struct IterRec;

// Value flags of a node.
constexpr uint32_t kValueInline = 1; // pValue points at this block's own value bytes
constexpr uint32_t kValueOwned = 2;  // pValue is a buffer this node frees (reference mode, iterator update)

struct NodeRec {
    // Fields a lookup does not read.
    const void *pKey;        // own key bytes, or the pointer key itself
    NodeRec *pBucketPrev;
    NodeRec *pSortPrev;
    NodeRec *pSortNext;
    NodeRec **ppBucketSlot;  // the bucket entry holding this node, while it is first of its chain
    // Fields a lookup reads, placed right before the key bytes so that a
    // chain step and the key compare mostly touch one cache line.
    NodeRec *pIndexNext;     // next node under the same lookup-index head
    NodeRec *pBucketNext;
    uint32_t uiHash;         // low 32 bits of the key's index, so nothing is rehashed
    uint32_t uiKeyLength;    // string: strlen + 1; byte array: as given; pointer: 0
    void *pValue;            // own copy or the caller's pointer
    uint32_t uiValueLength;
    uint32_t uiFlags;        // kValueInline, kValueOwned
};

struct TableRec {
    uint32_t uiMagic;
    uint32_t uiRange;
    NodeRec **ppBuckets;
    uint64_t ullRangeFactor; // remainder factor of uiRange (see bucket_of)
    uint32_t uiCount;
    TableCompareFn pfnSort;
    TableIndexFn pfnIndex;
    NodeRec *pHead;
    NodeRec *pTail;
    uint32_t uiKeyType;
    uint32_t uiStoreMode;
    uint32_t uiThreshold;
    uint32_t uiStep;
    uint32_t uiIterCount;
    IterRec *pOpenIters;     // every open iterator, so a change made by one keeps the others' places valid
    // Lookup index of long chains (see the top of this file); ppIndex null: none.
    NodeRec **ppIndex;       // 1 << uiIndexBits heads
    NodeRec **ppTails;       // uiRange entries: the last node of each bucket chain
    uint32_t uiIndexBits;
    uint32_t uiIndexRetryAt; // after a failed index allocation: the count at which to try again
};

struct IterRec {
    uint32_t uiMagic;
    TableRec *pTable;
    uint32_t uiBucket;       // bucket order: the bucket holding pNext
    NodeRec *pNext;
    NodeRec *pCurrent;
    uint32_t uiMode;
    uint32_t uiAction;
    void *pPendingValue;
    uint32_t uiPendingLength;
    IterRec *pPrevOpen;
    IterRec *pNextOpen;
};

unsigned char *inline_data(NodeRec *node) { return reinterpret_cast<unsigned char *>(node + 1); }
const unsigned char *inline_data(const NodeRec *node) { return reinterpret_cast<const unsigned char *>(node + 1); }

// hash % range by two multiplications instead of a division (the remainder
// method of Lemire, Kaser and Kurz): exact for every 32-bit hash and range.
uint64_t range_factor(uint32_t uiRange) { return UINT64_MAX / uiRange + 1; }

inline uint32_t bucket_of(uint32_t uiHash, uint32_t uiRange, uint64_t ullFactor) {
#if defined(__SIZEOF_INT128__)
    return static_cast<uint32_t>((static_cast<unsigned __int128>(ullFactor * uiHash) * uiRange) >> 64);
#else
    (void)ullFactor;
    return uiHash % uiRange;
#endif
}

inline bool bytes_equal(const unsigned char *a, const unsigned char *b, size_t n) {
    if (n > 32) return memcmp(a, b, n) == 0;
    for (; n >= 8; a += 8, b += 8, n -= 8) {
        uint64_t x, y;
        memcpy(&x, a, 8);
        memcpy(&y, b, 8);
        if (x != y) return false;
    }
    for (; n != 0; --n)
        if (*a++ != *b++) return false;
    return true;
}

// Offset of copied value bytes from the start of the inline data: the first
// aligned place of the block after the key bytes.
size_t value_offset(size_t keyBytes) {
    size_t end = sizeof(NodeRec) + keyBytes;
    return (end + kValueAlign - 1) / kValueAlign * kValueAlign - sizeof(NodeRec);
}

void free_node(NodeRec *node) {
    if ((node->uiFlags & kValueOwned) != 0) free(node->pValue);
    free(node);
}

// A key as one operation sees it: its bytes and byte count (a string's count
// includes the NUL) and its hash.
struct KeyRef {
    const void *p;
    size_t len;
    uint32_t hash;
};

__attribute__((always_inline)) inline KeyRef make_key(uint32_t uiKeyType, const void *pKey, uint32_t uiKeyLength) {
    KeyRef k{pKey, 0, 0};
    switch (uiKeyType) {
    case TABLE_KEY_STRING: {
        size_t n = strlen(static_cast<const char *>(pKey));
        k.len = n + 1;
        k.hash = crc_update(0xFFFFFFFFu, static_cast<const unsigned char *>(pKey), n);
        break;
    }
    case TABLE_KEY_POINTER:
        k.hash = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pKey));
        break;
    default:
        k.len = uiKeyLength;
        k.hash = uiKeyLength == 0 ? 0xFFFFFFFFu : crc_update(0xFFFFFFFFu, static_cast<const unsigned char *>(pKey), uiKeyLength);
        break;
    }
    return k;
}

inline bool key_matches(uint32_t uiKeyType, const NodeRec *node, const KeyRef &key) {
    if (node->uiHash != key.hash) return false;
    if (uiKeyType == TABLE_KEY_POINTER) return node->pKey == key.p;
    // Strings: equal lengths (NUL counted) and equal bytes is strcmp() == 0.
    return node->uiKeyLength == key.len && bytes_equal(inline_data(node), static_cast<const unsigned char *>(key.p), key.len);
}

NodeRec **bucket_slot(const TableRec *pTable, uint32_t uiHash) {
    return &pTable->ppBuckets[bucket_of(uiHash, pTable->uiRange, pTable->ullRangeFactor)];
}

// Lookup index ---------------------------------------------------------------

// The index is kept while the chains average more than kIndexFromChain nodes
// and dropped when they average less than one; it has two to eight heads a
// node (grown past one node in two heads, shrunk below one in eight), so that
// a lookup mostly finds its node first under its head, and a miss mostly
// finds an empty head.
constexpr uint32_t kIndexFromChain = 2;
constexpr uint32_t kIndexMinBits = 4;

// The index's head of a key: its full 32-bit hash, or for pointer keys the
// whole pointer (pointers that share their low half share a bucket but not a
// head), spread by a multiplicative hash and cut to the top uiBits bits.
inline uint32_t index_head(uint32_t uiKeyType, const void *pKey, uint32_t uiHash, uint32_t uiBits) {
    uint64_t v = uiKeyType == TABLE_KEY_POINTER ? static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pKey)) : uiHash;
    return static_cast<uint32_t>((v * 0x9E3779B97F4A7C15ull) >> (64 - uiBits));
}

inline NodeRec **index_slot_of(const TableRec *t, const NodeRec *n) {
    return &t->ppIndex[index_head(t->uiKeyType, n->pKey, n->uiHash, t->uiIndexBits)];
}

uint32_t bits_for(uint32_t uiCount) {
    uint32_t b = kIndexMinBits;
    while (b < 32 && (uint64_t{1} << b) < 2 * uint64_t{uiCount}) ++b;
    return b;
}

void index_push(NodeRec **ppIndex, uint32_t uiKeyType, uint32_t uiBits, NodeRec *n) {
    NodeRec **head = &ppIndex[index_head(uiKeyType, n->pKey, n->uiHash, uiBits)];
    n->pIndexNext = *head;
    *head = n;
}

void index_drop(TableRec *t) {
    free(t->ppIndex);
    free(t->ppTails);
    t->ppIndex = nullptr;
    t->ppTails = nullptr;
    t->uiIndexBits = 0;
}

// A failed allocation is tried again only once the count has grown by half.
void index_backoff(TableRec *t) {
    uint64_t at = uint64_t{t->uiCount} + t->uiCount / 2 + 1;
    t->uiIndexRetryAt = at > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(at);
}

// Makes the index from the bucket chains.
void index_build(TableRec *t) {
    uint32_t uiBits = bits_for(t->uiCount);
    auto **ppIndex = static_cast<NodeRec **>(calloc(size_t{1} << uiBits, sizeof(NodeRec *)));
    auto **ppTails = static_cast<NodeRec **>(calloc(t->uiRange, sizeof(NodeRec *)));
    if (ppIndex == nullptr || ppTails == nullptr) {
        free(ppIndex);
        free(ppTails);
        index_backoff(t);
        return;
    }
    for (uint32_t b = 0; b < t->uiRange; ++b)
        for (NodeRec *n = t->ppBuckets[b]; n != nullptr; n = n->pBucketNext) {
            index_push(ppIndex, t->uiKeyType, uiBits, n);
            ppTails[b] = n;
        }
    t->ppIndex = ppIndex;
    t->ppTails = ppTails;
    t->uiIndexBits = uiBits;
}

// Moves every node to a new array of 1 << uiBits heads; on failure the old
// array stays, merely fuller or emptier than intended.
bool index_resize(TableRec *t, uint32_t uiBits) {
    auto **ppIndex = static_cast<NodeRec **>(calloc(size_t{1} << uiBits, sizeof(NodeRec *)));
    if (ppIndex == nullptr) return false;
    for (size_t h = 0, slots = size_t{1} << t->uiIndexBits; h < slots; ++h)
        for (NodeRec *n = t->ppIndex[h], *next; n != nullptr; n = next) {
            next = n->pIndexNext;
            index_push(ppIndex, t->uiKeyType, uiBits, n);
        }
    free(t->ppIndex);
    t->ppIndex = ppIndex;
    t->uiIndexBits = uiBits;
    return true;
}

// Builds, resizes or drops the index for the current count and range; run
// after an add that may need it and after every delete while there is one.
// Kept out of line: the operations under the cap only test whether to call it.
__attribute__((noinline)) void index_settle(TableRec *t) {
    const uint64_t uiCount = t->uiCount;
    if (t->ppIndex == nullptr) {
        if (uiCount > uint64_t{kIndexFromChain} * t->uiRange && uiCount >= t->uiIndexRetryAt) index_build(t);
        return;
    }
    const uint64_t uiSlots = uint64_t{1} << t->uiIndexBits;
    if (uiCount < t->uiRange)
        index_drop(t);
    else if (2 * uiCount > uiSlots && t->uiIndexBits < 32 && uiCount >= t->uiIndexRetryAt) {
        if (!index_resize(t, t->uiIndexBits + 1)) index_backoff(t);
    } else if (uiCount < uiSlots / 8 && t->uiIndexBits > kIndexMinBits)
        (void)index_resize(t, t->uiIndexBits - 1);
}

// After a refresh: the index keeps its heads, the chain ends follow the new
// range (the first node pushed into a chain stays its last), or the index
// goes when they cannot be made.
__attribute__((noinline)) void index_new_tails(TableRec *t) {
    auto **ppTails = static_cast<NodeRec **>(calloc(t->uiRange, sizeof(NodeRec *)));
    if (ppTails == nullptr) {
        index_drop(t);
        index_backoff(t);
        return;
    }
    for (NodeRec *n = t->pHead; n != nullptr; n = n->pSortNext) {
        NodeRec **tail = &ppTails[bucket_of(n->uiHash, t->uiRange, t->ullRangeFactor)];
        if (*tail == nullptr) *tail = n;
    }
    free(t->ppTails);
    t->ppTails = ppTails;
}

void index_remove(TableRec *t, NodeRec *n) {
    for (NodeRec **pp = index_slot_of(t, n); *pp != nullptr; pp = &(*pp)->pIndexNext)
        if (*pp == n) {
            *pp = n->pIndexNext;
            return;
        }
}

// pNew takes pOld's place in the index and as its bucket chain's last node.
void index_replace(TableRec *t, const NodeRec *pOld, NodeRec *pNew) {
    for (NodeRec **pp = index_slot_of(t, pOld); *pp != nullptr; pp = &(*pp)->pIndexNext)
        if (*pp == pOld) {
            *pp = pNew;
            pNew->pIndexNext = pOld->pIndexNext;
            break;
        }
    NodeRec **tail = &t->ppTails[bucket_of(pOld->uiHash, t->uiRange, t->ullRangeFactor)];
    if (*tail == pOld) *tail = pNew;
}

inline NodeRec *find_node(const TableRec *pTable, const KeyRef &key) {
    if (pTable->ppIndex != nullptr) {
        NodeRec *n = pTable->ppIndex[index_head(pTable->uiKeyType, key.p, key.hash, pTable->uiIndexBits)];
        for (; n != nullptr; n = n->pIndexNext)
            if (key_matches(pTable->uiKeyType, n, key)) return n;
        return nullptr;
    }
    for (NodeRec *n = *bucket_slot(pTable, key.hash); n != nullptr; n = n->pBucketNext)
        if (key_matches(pTable->uiKeyType, n, key)) return n;
    return nullptr;
}

bool table_ok(const TableRec *t) {
    return t != nullptr && t->uiMagic == kTableMagic && t->pfnSort != nullptr && t->pfnIndex != nullptr &&
           t->uiKeyType <= TABLE_KEY_BYTEARRAY;
}

bool iter_ok(const IterRec *it) { return it != nullptr && it->uiMagic == kIterMagic && it->uiMode <= TABLE_ITERATE_BACKWARD; }

// Table handle check: the last error is 0x90010 around the message on a bad
// handle, cleared on a good one.
#define OSL_CHECK_TABLE(h)                                                                                       \
    do {                                                                                                         \
        const TableRec *t_ = static_cast<const TableRec *>(h);                                                   \
        if (!table_ok(t_)) {                                                                                     \
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;                                                                \
            if (t_ != nullptr && t_->uiMagic == kTableMagic && t_->pfnSort != nullptr && t_->pfnIndex != nullptr) \
                OSL_LOG(LOG_LEVEL_ERROR, "Invalid table handle with unknown key mode: %d", (int)t_->uiKeyType);  \
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid table handle: %p.", static_cast<const void *>(t_));               \
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;                                                                \
            return OSL_ERR_INVALID_HANDLE;                                                                       \
        }                                                                                                        \
        g_OSL_errno = 0;                                                                                         \
    } while (0)

#define OSL_CHECK_ITER(h)                                                                                 \
    do {                                                                                                  \
        const IterRec *i_ = static_cast<const IterRec *>(h);                                              \
        if (!iter_ok(i_)) {                                                                               \
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;                                                         \
            if (i_ != nullptr && i_->uiMagic == kIterMagic)                                               \
                OSL_LOG(LOG_LEVEL_ERROR, "Invalid iterate handle with unknown iterate mode: %d", (int)i_->uiMode); \
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid table iterater handle: %p.", static_cast<const void *>(i_)); \
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;                                                         \
            return OSL_ERR_INVALID_HANDLE;                                                                \
        }                                                                                                 \
        g_OSL_errno = 0;                                                                                  \
    } while (0)

// Key checks a table cannot make from its own key type: a new table has none
// yet, and a byte-array key is only readable when it has bytes or is empty.
#define OSL_CHECK_KEY_ARG(type)                                                     \
    do {                                                                            \
        if (TABLE_KEY_STRING == (type)) OSL_ASSERT_ARG(NULL != pKey);               \
        if (TABLE_KEY_BYTEARRAY == (type)) OSL_ASSERT_ARG((NULL != pKey) || (0 == uiKeyLength)); \
    } while (0)

void log_type_mismatch(uint32_t uiWanted, uint32_t uiActual) {
    OSL_LOG(LOG_LEVEL_ERROR, "Operation target expect key type %d, actually %d", (int)uiWanted, (int)uiActual);
}

// Iterator helpers ---------------------------------------------------------

// Bucket order: the first node of the first non-empty bucket from uiFrom up.
void seek_bucket(IterRec *it, uint32_t uiFrom) {
    const TableRec *t = it->pTable;
    for (uint32_t b = uiFrom; b < t->uiRange; ++b)
        if (t->ppBuckets[b] != nullptr) {
            it->uiBucket = b;
            it->pNext = t->ppBuckets[b];
            return;
        }
    it->pNext = nullptr;
}

// Moves the iterator's next node on from `node` (its current next) in its order.
void advance_past(IterRec *it, const NodeRec *node) {
    switch (it->uiMode) {
    case TABLE_ITERATE_FORWARD:
        it->pNext = node->pSortNext;
        break;
    case TABLE_ITERATE_BACKWARD:
        it->pNext = node->pSortPrev;
        break;
    default:
        if (node->pBucketNext != nullptr)
            it->pNext = node->pBucketNext;
        else
            seek_bucket(it, it->uiBucket + 1);
        break;
    }
}

void drop_pending(IterRec *it) {
    if (it->pPendingValue != nullptr && it->uiPendingLength != 0) free(it->pPendingValue);
    it->pPendingValue = nullptr;
    it->uiPendingLength = 0;
}

// A node is about to leave its block: deleted (pRepl null) or moved to pRepl.
// Every open iterator that would step onto it or act on it follows.
void retarget_iterators(TableRec *t, const NodeRec *pOld, NodeRec *pRepl) {
    for (IterRec *it = t->pOpenIters; it != nullptr; it = it->pNextOpen) {
        if (it->pNext == pOld) {
            if (pRepl != nullptr)
                it->pNext = pRepl;
            else
                advance_past(it, pOld);
        }
        if (it->pCurrent == pOld) {
            if (pRepl != nullptr) {
                it->pCurrent = pRepl;
            } else {
                it->pCurrent = nullptr;
                drop_pending(it);
                it->uiAction = TABLE_ACTION_NONE;
            }
        }
    }
}

void unlink_node(TableRec *t, NodeRec *n) {
    if (t->ppIndex != nullptr) {
        index_remove(t, n);
        NodeRec **tail = &t->ppTails[bucket_of(n->uiHash, t->uiRange, t->ullRangeFactor)];
        if (*tail == n) *tail = n->pBucketPrev;
    }
    if (n->ppBucketSlot != nullptr) {
        *n->ppBucketSlot = n->pBucketNext;
        if (n->pBucketNext != nullptr) {
            n->pBucketNext->ppBucketSlot = n->ppBucketSlot;
            n->pBucketNext->pBucketPrev = nullptr;
        }
    } else if (n->pBucketNext != nullptr) {
        n->pBucketNext->pBucketPrev = n->pBucketPrev;
    }
    if (n->pBucketPrev != nullptr) n->pBucketPrev->pBucketNext = n->pBucketNext;
    if (n->pSortNext != nullptr) n->pSortNext->pSortPrev = n->pSortPrev;
    if (n->pSortPrev != nullptr) n->pSortPrev->pSortNext = n->pSortNext;
    if (t->pHead == n) t->pHead = n->pSortNext;
    if (t->pTail == n) t->pTail = n->pSortPrev;
}

} // namespace

// Index and compare functions of the key types ------------------------------

uintptr_t __OSL_Table_GetStringIndex(const void *pKey, uint32_t /*uiKeyLength*/) {
    const char *s = static_cast<const char *>(pKey);
    return crc_update(0xFFFFFFFFu, reinterpret_cast<const unsigned char *>(s), strlen(s));
}

uintptr_t __OSL_Table_GetPointerIndex(const void *pKey, uint32_t /*uiKeyLength*/) {
    return reinterpret_cast<uintptr_t>(pKey);
}

uintptr_t __OSL_Table_GetByteArrayIndex(const void *pKey, uint32_t uiKeyLength) {
    if (uiKeyLength == 0) return 0xFFFFFFFFu;
    return crc_update(0xFFFFFFFFu, static_cast<const unsigned char *>(pKey), uiKeyLength);
}

// The CRC-32 update the table uses, and the byte-at-a-time table form that
// every faster form must match (compared by the tests on each platform).
uint32_t __OSL_Table_Crc32(uint32_t uiCrc, const void *pData, size_t n) {
    return crc_update(uiCrc, static_cast<const unsigned char *>(pData), n);
}

uint32_t __OSL_Table_Crc32Bytewise(uint32_t uiCrc, const void *pData, size_t n) {
    const auto *p = static_cast<const unsigned char *>(pData);
    while (n-- != 0) uiCrc = g_Table_Crc32Table[(uiCrc ^ *p++) & 0xFFu] ^ (uiCrc >> 8);
    return uiCrc;
}

// strcmp() of two keys. Each key's stored length is a hard end that reads as
// a NUL: a string key's length counts its NUL, so for strings this is plain
// strcmp(); keys of other types that meet this order (an emptied table set
// back to the default order) are never read past their end, and pointer keys
// (length 0) compare as empty strings.
int32_t __OSL_Table_CompareKeySrting(const void *pKey1, uint32_t uiKeyLength1, const void *pKey2,
                                     uint32_t uiKeyLength2) {
    const auto *a = static_cast<const unsigned char *>(pKey1);
    const auto *b = static_cast<const unsigned char *>(pKey2);
    if (uiKeyLength1 != 0 && uiKeyLength2 != 0 && a[uiKeyLength1 - 1] == 0 && b[uiKeyLength2 - 1] == 0)
        return strcmp(static_cast<const char *>(pKey1), static_cast<const char *>(pKey2));
    for (uint32_t i = 0;; ++i) {
        int ca = i < uiKeyLength1 ? a[i] : 0;
        int cb = i < uiKeyLength2 ? b[i] : 0;
        if (ca != cb || ca == 0) return ca - cb;
    }
}

int32_t __OSL_Table_CompareKeyPointer(const void *pKey1, uint32_t /*uiKeyLength1*/, const void *pKey2,
                                      uint32_t /*uiKeyLength2*/) {
    uint32_t a = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pKey1));
    uint32_t b = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pKey2));
    return static_cast<int32_t>(a - b);
}

// Compares over the shorter length, so a key that is a prefix of another
// sorts as equal to it.
int32_t __OSL_Table_CompareKeyByteArray(const void *pKey1, uint32_t uiKeyLength1, const void *pKey2,
                                        uint32_t uiKeyLength2) {
    uint32_t n = uiKeyLength1 < uiKeyLength2 ? uiKeyLength1 : uiKeyLength2;
    return n == 0 ? 0 : memcmp(pKey1, pKey2, n);
}

// The sort function of a new table: every existing node sorts after the new
// one, which keeps the list in insertion order, newest first.
int32_t __OSL_Table_CompareAlwaysTrue(const void *, uint32_t, const void *, uint32_t) { return 1; }

// Structure ----------------------------------------------------------------

// Makes a node block for a key of uiKeyBytes bytes (string: strlen + 1; byte
// array: its length; pointer: ignored) and a value, copied only in copy mode
// and only when it has bytes. Null when the block cannot be made.
NodeRec *__OSL_Table_CreateNode(uint32_t uiKeyType, const void *pKey, size_t uiKeyBytes, const void *pValue,
                                uint32_t uiValueLength, uint32_t uiStoreMode) {
    if (uiKeyType == TABLE_KEY_POINTER) uiKeyBytes = 0;
    if (uiKeyType == TABLE_KEY_STRING && uiKeyBytes > UINT32_MAX) {
        OSL_LOG(LOG_LEVEL_ERROR, "The string key length was too long: %p.", reinterpret_cast<void *>(uiKeyBytes));
        return nullptr;
    }
    bool bCopy = uiStoreMode == NODE_STORAGE_COPY && pValue != nullptr && uiValueLength != 0;
    size_t uiValueAt = bCopy ? value_offset(uiKeyBytes) : uiKeyBytes;
    size_t uiSize = sizeof(NodeRec) + uiValueAt + (bCopy ? uiValueLength : 0);
    auto *node = static_cast<NodeRec *>(malloc(uiSize));
    if (node == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Alloc memory (size=%d) failed.", static_cast<int>(uiSize));
        return nullptr;
    }
    memset(node, 0, sizeof(NodeRec));
    unsigned char *data = inline_data(node);
    if (uiKeyType == TABLE_KEY_POINTER) {
        node->pKey = pKey;
    } else {
        if (uiKeyBytes != 0) memcpy(data, pKey, uiKeyBytes);
        node->pKey = data;
        node->uiKeyLength = static_cast<uint32_t>(uiKeyBytes);
    }
    if (bCopy) {
        memset(data + uiKeyBytes, 0, uiValueAt - uiKeyBytes);
        memcpy(data + uiValueAt, pValue, uiValueLength);
        node->pValue = data + uiValueAt;
        node->uiFlags = kValueInline;
    } else {
        node->pValue = const_cast<void *>(pValue);
    }
    node->uiValueLength = uiValueLength;
    return node;
}

// Places a new node on the sorted list before the first node that does not
// sort before it (equal keys: the newer goes first), else at the tail.
void __OSL_Table_AddSortNode(TableRec *pTable, NodeRec *pNode) {
    NodeRec *at = pTable->pHead;
    if (pTable->pfnSort != __OSL_Table_CompareAlwaysTrue) {
        while (at != nullptr && pTable->pfnSort(at->pKey, at->uiKeyLength, pNode->pKey, pNode->uiKeyLength) < 0)
            at = at->pSortNext;
    }
    if (at == nullptr) {
        pNode->pSortPrev = pTable->pTail;
        if (pTable->pTail != nullptr)
            pTable->pTail->pSortNext = pNode;
        else
            pTable->pHead = pNode;
        pTable->pTail = pNode;
        return;
    }
    pNode->pSortNext = at;
    pNode->pSortPrev = at->pSortPrev;
    if (at->pSortPrev != nullptr)
        at->pSortPrev->pSortNext = pNode;
    else
        pTable->pHead = pNode;
    at->pSortPrev = pNode;
}

// Rebuilds the bucket array. Ordinary mode grows the range by the refresh
// step (up to the cap) once the load passes the threshold; forced mode
// rebuilds at the stored range, grown by a step when the load passes the
// threshold there. Nodes are relinked in sorted order, each pushed at the
// front of its new chain. On failure the table is left as it was.
uint32_t __OSL_Table_RefreshTable(TableRec *pTable, int iForced) {
    uint64_t uiLoad = static_cast<uint64_t>(pTable->uiCount) * 100u / pTable->uiRange;
    uint32_t uiNewRange = pTable->uiRange;
    if (iForced == 0) {
        if (pTable->uiRange >= TABLE_RANGE_MAX || pTable->uiStep == 0 || uiLoad <= pTable->uiThreshold) return 0;
    }
    if (uiLoad > pTable->uiThreshold) {
        uiNewRange = pTable->uiRange + pTable->uiStep;
        if (uiNewRange > TABLE_RANGE_MAX) uiNewRange = TABLE_RANGE_MAX;
    }
    size_t uiSize = static_cast<size_t>(uiNewRange) * sizeof(NodeRec *);
    if (uiSize > kLargeMalloc) OSL_LOG(LOG_LEVEL_WARN, "Large malloc in %s, size=%d.", __func__, static_cast<int>(uiSize));
    auto **ppNew = static_cast<NodeRec **>(calloc(uiNewRange, sizeof(NodeRec *)));
    if (ppNew == nullptr) OSL_ALLOC_FAILED(uiSize);
    const uint64_t ullFactor = range_factor(uiNewRange);
    for (NodeRec *n = pTable->pHead; n != nullptr; n = n->pSortNext) {
        NodeRec **slot = &ppNew[bucket_of(n->uiHash, uiNewRange, ullFactor)];
        n->pBucketPrev = nullptr;
        n->pBucketNext = *slot;
        if (*slot != nullptr) {
            (*slot)->pBucketPrev = n;
            (*slot)->ppBucketSlot = nullptr;
        }
        *slot = n;
        n->ppBucketSlot = slot;
    }
    free(pTable->ppBuckets);
    pTable->ppBuckets = ppNew;
    pTable->uiRange = uiNewRange;
    pTable->ullRangeFactor = ullFactor;
    if (pTable->ppIndex != nullptr) index_new_tails(pTable);
    // A walk in bucket order goes on from its next node's new bucket: it stays
    // on live nodes, but nodes may come back or be passed over after a change
    // of range during the walk.
    for (IterRec *it = pTable->pOpenIters; it != nullptr; it = it->pNextOpen)
        if (it->uiMode == TABLE_ITERATE_BUCKET && it->pNext != nullptr)
            it->uiBucket = bucket_of(it->pNext->uiHash, uiNewRange, ullFactor);
    return 0;
}

// Fixes the key type of a table on its first node: the type's index function,
// and its compare function unless the table keeps insertion order.
void __OSL_Table_SetKeyType(TableRec *pTable, uint32_t uiKeyType) {
    pTable->uiKeyType = uiKeyType;
    switch (uiKeyType) {
    case TABLE_KEY_STRING:
        pTable->pfnIndex = __OSL_Table_GetStringIndex;
        break;
    case TABLE_KEY_POINTER:
        pTable->pfnIndex = __OSL_Table_GetPointerIndex;
        break;
    default:
        pTable->pfnIndex = __OSL_Table_GetByteArrayIndex;
        break;
    }
    if (pTable->pfnSort != __OSL_Table_CompareAlwaysTrue) {
        pTable->pfnSort = uiKeyType == TABLE_KEY_STRING    ? __OSL_Table_CompareKeySrting
                          : uiKeyType == TABLE_KEY_POINTER ? __OSL_Table_CompareKeyPointer
                                                           : __OSL_Table_CompareKeyByteArray;
    }
}

// Node operations ----------------------------------------------------------

uint32_t __OSL_Table_AddNode(void *hTable, uint32_t uiKeyType, const void *pKey, uint32_t uiKeyLength,
                             const void *pValue, uint32_t uiValueLength) {
    OSL_CHECK_TABLE(hTable);
    auto *pTable = static_cast<TableRec *>(hTable);
    if (TABLE_KEY_STRING == pTable->uiKeyType) OSL_ASSERT_ARG(NULL != pKey);
    if (pTable->uiIterCount != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "The target table is being iterated.");
        OSL_RETURN(OSL_ERR_SYSTEM_BUSY);
    }
    if (pTable->uiKeyType == TABLE_KEY_NONE && (uiKeyType < TABLE_KEY_STRING || uiKeyType > TABLE_KEY_BYTEARRAY)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Unknown key type: %d", static_cast<int>(uiKeyType));
        OSL_LOG(LOG_LEVEL_ERROR, "Set key type failed.");
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    if (pTable->uiKeyType != TABLE_KEY_NONE && pTable->uiKeyType != uiKeyType) {
        log_type_mismatch(uiKeyType, pTable->uiKeyType);
        OSL_LOG(LOG_LEVEL_ERROR, "Set key type failed.");
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    OSL_CHECK_KEY_ARG(uiKeyType);

    KeyRef key = make_key(uiKeyType, pKey, uiKeyLength);
    const uint32_t uiBucket = bucket_of(key.hash, pTable->uiRange, pTable->ullRangeFactor);
    NodeRec **slot = &pTable->ppBuckets[uiBucket];
    NodeRec *last = nullptr, *same = nullptr;
    if (pTable->ppIndex == nullptr) {
        for (NodeRec *n = *slot; n != nullptr; last = n, n = n->pBucketNext)
            if (key_matches(uiKeyType, n, key)) {
                same = n;
                break;
            }
    } else {
        same = find_node(pTable, key);
        last = pTable->ppTails[uiBucket];
    }
    if (same != nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Node with the same key existed.");
        OSL_RETURN(OSL_ERR_DUPLICATE_KEY);
    }
    NodeRec *node = __OSL_Table_CreateNode(uiKeyType, pKey, key.len, pValue, uiValueLength, pTable->uiStoreMode);
    if (node == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Create table node failed.");
        OSL_RETURN(OSL_ERR_NO_MEMORY);
    }
    node->uiHash = key.hash;
    // The key type is fixed only once the node exists, so a failed first add
    // leaves a new table as it was.
    if (pTable->uiKeyType == TABLE_KEY_NONE) __OSL_Table_SetKeyType(pTable, uiKeyType);
    if (last != nullptr) {
        last->pBucketNext = node;
        node->pBucketPrev = last;
    } else {
        *slot = node;
        node->ppBucketSlot = slot;
    }
    if (pTable->ppIndex != nullptr) {
        index_push(pTable->ppIndex, uiKeyType, pTable->uiIndexBits, node);
        pTable->ppTails[uiBucket] = node;
    }
    __OSL_Table_AddSortNode(pTable, node);
    ++pTable->uiCount;
    (void)__OSL_Table_RefreshTable(pTable, 0);
    if (pTable->ppIndex != nullptr || pTable->uiCount > uint64_t{kIndexFromChain} * pTable->uiRange) index_settle(pTable);
    OSL_RETURN(0);
}

uint32_t __OSL_Table_GetNode(void *hTable, uint32_t uiKeyType, const void *pKey, uint32_t uiKeyLength,
                             void **ppValue, uint32_t *puiValueLength) {
    OSL_CHECK_TABLE(hTable);
    auto *pTable = static_cast<TableRec *>(hTable);
    if (TABLE_KEY_STRING == pTable->uiKeyType) OSL_ASSERT_ARG(NULL != pKey);
    if (pTable->uiKeyType != TABLE_KEY_NONE && pTable->uiKeyType != uiKeyType) {
        log_type_mismatch(uiKeyType, pTable->uiKeyType);
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    NodeRec *node = nullptr;
    if (pTable->uiCount != 0) {
        OSL_CHECK_KEY_ARG(uiKeyType);
        node = find_node(pTable, make_key(uiKeyType, pKey, uiKeyLength));
    }
    if (node == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Node don't exist.");
        OSL_RETURN(OSL_ERR_NOT_FOUND);
    }
    if (ppValue != nullptr) *ppValue = node->pValue;
    if (puiValueLength != nullptr) *puiValueLength = node->uiValueLength;
    OSL_RETURN(0);
}

// Gives a node a new value. Reference mode, a null value or a zero length:
// the node keeps the pointer and length as given. Otherwise the bytes are
// copied over the node's own value bytes when they fit the current value
// length, or the node moves to a new block that takes all its places.
// *ppNode receives the node that holds the value afterwards.
uint32_t __OSL_Table_UpdateNodeValue(TableRec *pTable, NodeRec *pNode, const void *pValue, uint32_t uiValueLength,
                                     NodeRec **ppNode) {
    *ppNode = pNode;
    if (pTable->uiStoreMode == NODE_STORAGE_REFERENCE || pValue == nullptr || uiValueLength == 0) {
        // An owned buffer goes unless it stays the value.
        uint32_t uiKeep = 0;
        if ((pNode->uiFlags & kValueOwned) != 0) {
            if (pNode->pValue != pValue)
                free(pNode->pValue);
            else
                uiKeep = kValueOwned;
        }
        pNode->pValue = const_cast<void *>(pValue);
        pNode->uiValueLength = uiValueLength;
        pNode->uiFlags = uiKeep;
        return 0;
    }
    // A copy-mode node holding a caller's pointer (its value was null or
    // empty) has no bytes of its own to copy into.
    if (uiValueLength > pNode->uiValueLength || (pNode->uiFlags & kValueInline) == 0) {
        NodeRec *pNew = __OSL_Table_CreateNode(pTable->uiKeyType, pNode->pKey, pNode->uiKeyLength, pValue,
                                               uiValueLength, pTable->uiStoreMode);
        if (pNew == nullptr) {
            OSL_LOG(LOG_LEVEL_ERROR, "Create new table node failed.");
            return OSL_ERR_NO_MEMORY;
        }
        if (pNode->pBucketPrev == nullptr && pNode->ppBucketSlot == nullptr) {
            free(pNew);
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid table node data.");
            return OSL_ERR_INVALID_DATA;
        }
        pNew->uiHash = pNode->uiHash;
        pNew->pBucketPrev = pNode->pBucketPrev;
        pNew->pBucketNext = pNode->pBucketNext;
        if (pNew->pBucketPrev != nullptr) pNew->pBucketPrev->pBucketNext = pNew;
        if (pNew->pBucketNext != nullptr) pNew->pBucketNext->pBucketPrev = pNew;
        if (pNode->ppBucketSlot != nullptr) {
            *pNode->ppBucketSlot = pNew;
            pNew->ppBucketSlot = pNode->ppBucketSlot;
        }
        pNew->pSortPrev = pNode->pSortPrev;
        pNew->pSortNext = pNode->pSortNext;
        if (pNew->pSortPrev != nullptr) pNew->pSortPrev->pSortNext = pNew;
        if (pNew->pSortNext != nullptr) pNew->pSortNext->pSortPrev = pNew;
        if (pTable->pHead == pNode) pTable->pHead = pNew;
        if (pTable->pTail == pNode) pTable->pTail = pNew;
        if (pTable->ppIndex != nullptr) index_replace(pTable, pNode, pNew);
        retarget_iterators(pTable, pNode, pNew);
        free_node(pNode);
        *ppNode = pNew;
        return 0;
    }
    // The caller may pass bytes of this very value (read through a get).
    memmove(pNode->pValue, pValue, uiValueLength);
    pNode->uiValueLength = uiValueLength;
    return 0;
}

uint32_t __OSL_Table_UpdateNode(void *hTable, uint32_t uiKeyType, const void *pKey, uint32_t uiKeyLength,
                                const void *pValue, uint32_t uiValueLength) {
    OSL_CHECK_TABLE(hTable);
    auto *pTable = static_cast<TableRec *>(hTable);
    if (TABLE_KEY_STRING == pTable->uiKeyType) OSL_ASSERT_ARG(NULL != pKey);
    if (pTable->uiKeyType != TABLE_KEY_NONE && pTable->uiKeyType != uiKeyType) {
        log_type_mismatch(uiKeyType, pTable->uiKeyType);
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    if (pTable->uiIterCount != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "The target table is being iterated.");
        OSL_RETURN(OSL_ERR_SYSTEM_BUSY);
    }
    NodeRec *node = nullptr;
    if (pTable->uiCount != 0) {
        OSL_CHECK_KEY_ARG(uiKeyType);
        node = find_node(pTable, make_key(uiKeyType, pKey, uiKeyLength));
    }
    if (node == nullptr) {
        OSL_LOG(LOG_LEVEL_ERROR, "Node don't exist.");
        OSL_RETURN(OSL_ERR_NOT_FOUND);
    }
    NodeRec *now = nullptr;
    uint32_t rc = __OSL_Table_UpdateNodeValue(pTable, node, pValue, uiValueLength, &now);
    if (rc != 0) OSL_LOG(LOG_LEVEL_ERROR, "Update table node value failed.");
    OSL_RETURN(rc);
}

uint32_t __OSL_Table_DelNode(void *hTable, uint32_t uiKeyType, const void *pKey, uint32_t uiKeyLength) {
    OSL_CHECK_TABLE(hTable);
    auto *pTable = static_cast<TableRec *>(hTable);
    if (TABLE_KEY_STRING == pTable->uiKeyType) OSL_ASSERT_ARG(NULL != pKey);
    if (pTable->uiKeyType != TABLE_KEY_NONE && pTable->uiKeyType != uiKeyType) {
        log_type_mismatch(uiKeyType, pTable->uiKeyType);
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    if (pTable->uiIterCount != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "The target table is being iterated.");
        OSL_RETURN(OSL_ERR_SYSTEM_BUSY);
    }
    NodeRec *node = nullptr;
    if (pTable->uiCount != 0) {
        OSL_CHECK_KEY_ARG(uiKeyType);
        node = find_node(pTable, make_key(uiKeyType, pKey, uiKeyLength));
    }
    if (node == nullptr) OSL_RETURN(OSL_ERR_NOT_FOUND);
    unlink_node(pTable, node);
    --pTable->uiCount;
    free_node(node);
    if (pTable->ppIndex != nullptr) index_settle(pTable);
    OSL_RETURN(0);
}

// Iteration ----------------------------------------------------------------

// Carries out the iterator's pending action on its current node.
uint32_t __OSL_Table_ProcessIterateAction(IterRec *pItr) {
    NodeRec *node = pItr->pCurrent;
    TableRec *pTable = pItr->pTable;
    uint32_t rc = 0;
    if (node == nullptr) {
        drop_pending(pItr);
        pItr->uiAction = TABLE_ACTION_NONE;
        return 0;
    }
    if (pItr->uiAction == TABLE_ACTION_DELETE) {
        retarget_iterators(pTable, node, nullptr);
        unlink_node(pTable, node);
        --pTable->uiCount;
        free_node(node);
        if (pTable->ppIndex != nullptr) index_settle(pTable);
    } else if (pItr->uiAction == TABLE_ACTION_UPDATE) {
        bool bOwned = pItr->pPendingValue != nullptr && pItr->uiPendingLength != 0;
        NodeRec *now = nullptr;
        rc = __OSL_Table_UpdateNodeValue(pTable, node, pItr->pPendingValue, pItr->uiPendingLength, &now);
        if (rc != 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Update table node value failed.");
        } else if (bOwned && pTable->uiStoreMode == NODE_STORAGE_REFERENCE) {
            // The node points at the iterator's copy now: it owns it from here.
            now->uiFlags |= kValueOwned;
            pItr->pPendingValue = nullptr;
            pItr->uiPendingLength = 0;
        }
        drop_pending(pItr);
    }
    pItr->uiAction = TABLE_ACTION_NONE;
    return rc;
}

uint32_t __OSL_Table_Iterate(void *hItr, uint32_t uiKeyType, const void **ppKey, uint32_t *puiKeyLength,
                             void **ppValue, uint32_t *puiValueLength) {
    OSL_CHECK_ITER(hItr);
    OSL_ASSERT_ARG(NULL != ppKey);
    auto *pItr = static_cast<IterRec *>(hItr);
    const TableRec *pTable = pItr->pTable;
    if (pTable->uiKeyType != TABLE_KEY_NONE && pTable->uiKeyType != uiKeyType) {
        log_type_mismatch(uiKeyType, pTable->uiKeyType);
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    if (__OSL_Table_ProcessIterateAction(pItr) != 0) OSL_LOG(LOG_LEVEL_ERROR, "Process iterate action failed.");
    NodeRec *node = pItr->pNext;
    pItr->pCurrent = node;
    if (node == nullptr) {
        *ppKey = nullptr;
        OSL_RETURN(0);
    }
    *ppKey = node->pKey;
    if (puiKeyLength != nullptr) *puiKeyLength = node->uiKeyLength;
    if (ppValue != nullptr) *ppValue = node->pValue;
    if (puiValueLength != nullptr) *puiValueLength = node->uiValueLength;
    advance_past(pItr, node);
    OSL_RETURN(0);
}

// Walks every link of a table and checks that they agree: each chain both
// ways with its bucket slot, each node in the bucket its key's index names,
// the sorted list both ways with head and tail, and the count. (Neighbours
// are not compared: the byte-array and pointer orders are not transitive, so
// a sorted list can hold neighbours out of order after deletes.) Returns null
// when all holds, else what is wrong. Reports the range and the longest
// chain. Used by the tests.
const char *__OSL_Table_Verify(void *hTable, uint32_t *puiRange, uint32_t *puiLongestChain) {
    auto *t = static_cast<TableRec *>(hTable);
    if (!table_ok(t)) return "bad table handle";
    uint32_t uiChained = 0, uiLongest = 0;
    for (uint32_t b = 0; b < t->uiRange; ++b) {
        uint32_t uiLen = 0;
        const NodeRec *prev = nullptr;
        for (const NodeRec *n = t->ppBuckets[b]; n != nullptr; prev = n, n = n->pBucketNext) {
            if (n->pBucketPrev != prev) return "bucket previous link broken";
            if ((prev == nullptr) != (n->ppBucketSlot == &t->ppBuckets[b])) return "bucket slot wrong";
            if (prev != nullptr && n->ppBucketSlot != nullptr) return "slot kept by a node inside a chain";
            uint32_t uiIndex = static_cast<uint32_t>(t->pfnIndex(n->pKey, n->uiKeyLength));
            if (uiIndex != n->uiHash) return "kept hash differs from the key's index";
            if (uiIndex % t->uiRange != b) return "node in the wrong bucket";
            if (bucket_of(uiIndex, t->uiRange, t->ullRangeFactor) != b) return "remainder factor out of step with the range";
            if (++uiChained > t->uiCount) return "more nodes on chains than counted";
            ++uiLen;
        }
        if (uiLen > uiLongest) uiLongest = uiLen;
    }
    if (uiChained != t->uiCount) return "chains hold fewer nodes than counted";
    uint32_t uiSorted = 0;
    const NodeRec *prev = nullptr;
    for (const NodeRec *n = t->pHead; n != nullptr; prev = n, n = n->pSortNext) {
        if (n->pSortPrev != prev) return "sorted previous link broken";
        if (++uiSorted > t->uiCount) return "sorted list longer than the count";
    }
    if (uiSorted != t->uiCount) return "sorted list shorter than the count";
    if (t->pTail != prev) return "tail is not the last sorted node";
    if (t->ppIndex != nullptr) {
        // Every node once under its own head (the count bounds the walk), and
        // each chain's last node recorded.
        uint32_t uiIndexed = 0;
        for (size_t h = 0, slots = size_t{1} << t->uiIndexBits; h < slots; ++h)
            for (const NodeRec *n = t->ppIndex[h]; n != nullptr; n = n->pIndexNext) {
                if (index_slot_of(t, n) != &t->ppIndex[h]) return "node under the wrong index head";
                if (++uiIndexed > t->uiCount) return "index holds more nodes than counted";
            }
        if (uiIndexed != t->uiCount) return "index holds fewer nodes than counted";
        for (const NodeRec *n = t->pHead; n != nullptr; n = n->pSortNext) {
            const NodeRec *m = *index_slot_of(t, n);
            while (m != nullptr && m != n) m = m->pIndexNext;
            if (m == nullptr) return "node missing from the index";
        }
        for (uint32_t b = 0; b < t->uiRange; ++b) {
            const NodeRec *last = t->ppBuckets[b];
            while (last != nullptr && last->pBucketNext != nullptr) last = last->pBucketNext;
            if (t->ppTails[b] != last) return "recorded chain end is not the chain's last node";
        }
    }
    if (puiRange != nullptr) *puiRange = t->uiRange;
    if (puiLongestChain != nullptr) *puiLongestChain = uiLongest;
    return nullptr;
}

// Heads of the lookup index, 0 while the table has none. Used by the tests.
uint64_t __OSL_Table_IndexHeads(void *hTable) {
    const auto *t = static_cast<const TableRec *>(hTable);
    return t->ppIndex != nullptr ? uint64_t{1} << t->uiIndexBits : 0;
}

extern "C" {

OSTREL_API uint32_t Ostrel_Table_Create(OstrelTableHandle *phTable, uint32_t uiRange, int iStoreFlag) {
    OSL_ASSERT_ARG(NULL != phTable);
    OSL_ASSERT_ARG(0 != uiRange);
    OSL_ASSERT_ARG(uiRange <= TABLE_RANGE_MAX);
    OSL_ASSERT_ARG((NODE_STORAGE_REFERENCE == iStoreFlag) || (NODE_STORAGE_COPY == iStoreFlag));
    auto *pTable = static_cast<TableRec *>(calloc(1, sizeof(TableRec)));
    if (pTable == nullptr) OSL_ALLOC_FAILED(sizeof(TableRec));
    pTable->ppBuckets = static_cast<NodeRec **>(calloc(uiRange, sizeof(NodeRec *)));
    if (pTable->ppBuckets == nullptr) {
        free(pTable);
        OSL_RETURN(OSL_ERR_NO_MEMORY);
    }
    pTable->uiRange = uiRange;
    pTable->ullRangeFactor = range_factor(uiRange);
    pTable->pfnSort = __OSL_Table_CompareAlwaysTrue;
    pTable->pfnIndex = __OSL_Table_GetStringIndex; // until the first add fixes the key type
    pTable->uiKeyType = TABLE_KEY_NONE;
    pTable->uiStoreMode = static_cast<uint32_t>(iStoreFlag);
    pTable->uiThreshold = kDefaultThreshold;
    pTable->uiStep = uiRange;
    pTable->uiMagic = kTableMagic;
    *phTable = pTable;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Table_SetProperty(OstrelTableHandle hTable, int32_t iProperty, uintptr_t uiValue) {
    OSL_CHECK_TABLE(hTable);
    auto *pTable = static_cast<TableRec *>(hTable);
    switch (iProperty) {
    case TABLE_PROP_SORT_FUNCTION: {
        if (pTable->uiCount != 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "Can't change the sort function of a non-empty table.");
            OSL_RETURN(OSL_ERR_NOT_EMPTY);
        }
        auto pfn = reinterpret_cast<TableCompareFn>(uiValue);
        if (pfn != nullptr) {
            pTable->pfnSort = pfn;
            OSL_LOG(LOG_LEVEL_INFO, "Set table(%p) compare function to %p", hTable, reinterpret_cast<void *>(pfn));
        } else {
            // Key order; the first add replaces it with its key type's compare.
            pTable->pfnSort = __OSL_Table_CompareKeySrting;
            OSL_LOG(LOG_LEVEL_INFO, "Set table(%p) compare function to default", hTable);
        }
        OSL_RETURN(0);
    }
    case TABLE_PROP_RANGE: {
        if (uiValue < 1 || uiValue > TABLE_RANGE_MAX) {
            OSL_LOG(LOG_LEVEL_ERROR, "Table range must be 1 ~ %d.", TABLE_RANGE_MAX);
            OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
        }
        if (uiValue <= pTable->uiRange) OSL_RETURN(0); // the range never shrinks
        uint32_t uiOld = pTable->uiRange;
        pTable->uiRange = static_cast<uint32_t>(uiValue);
        uint32_t rc = __OSL_Table_RefreshTable(pTable, 1);
        if (rc != 0) {
            pTable->uiRange = uiOld;
            OSL_LOG(LOG_LEVEL_ERROR, "Refresh table failed.");
            OSL_RETURN(rc);
        }
        OSL_LOG(LOG_LEVEL_INFO, "Set table(%p) range to %d", hTable, static_cast<int>(uiValue));
        OSL_RETURN(0);
    }
    case TABLE_PROP_REFRESH_THRESHOLD:
        if (uiValue < 1 || uiValue > kThresholdMax) {
            OSL_LOG(LOG_LEVEL_ERROR, "Table refresh threshold must be 1 ~ %d.", static_cast<int>(kThresholdMax));
            OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
        }
        pTable->uiThreshold = static_cast<uint32_t>(uiValue);
        (void)__OSL_Table_RefreshTable(pTable, 0);
        OSL_LOG(LOG_LEVEL_INFO, "Set table(%p) refresh threshold to %d", hTable, static_cast<int>(uiValue));
        OSL_RETURN(0);
    case TABLE_PROP_REFRESH_STEP:
        if (uiValue > TABLE_RANGE_MAX) {
            OSL_LOG(LOG_LEVEL_ERROR, "Table refresh step must be 0 ~ %d.", TABLE_RANGE_MAX);
            OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
        }
        pTable->uiStep = static_cast<uint32_t>(uiValue);
        OSL_LOG(LOG_LEVEL_INFO, "Set table(%p) refresh step to %d", hTable, static_cast<int>(uiValue));
        OSL_RETURN(0);
    default:
        OSL_LOG(LOG_LEVEL_ERROR, "Unknown parameter type: %d.", static_cast<int>(iProperty));
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
}

OSTREL_API uint32_t Ostrel_Table_GetCount(OstrelTableHandle hTable, uint32_t *puiCount) {
    OSL_ASSERT_ARG(NULL != puiCount);
    OSL_CHECK_TABLE(hTable);
    *puiCount = static_cast<TableRec *>(hTable)->uiCount;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Table_Destroy(OstrelTableHandle hTable) {
    OSL_CHECK_TABLE(hTable);
    auto *pTable = static_cast<TableRec *>(hTable);
    if (pTable->uiIterCount != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "The target table is being iterated.");
        OSL_RETURN(OSL_ERR_SYSTEM_BUSY);
    }
    for (uint32_t b = 0; b < pTable->uiRange; ++b) {
        NodeRec *n = pTable->ppBuckets[b];
        while (n != nullptr) {
            NodeRec *next = n->pBucketNext;
            free_node(n);
            n = next;
        }
    }
    free(pTable->ppBuckets);
    index_drop(pTable);
    memset(pTable, 0, sizeof(TableRec));
    free(pTable);
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Table_String_AddNode(OstrelTableHandle hTable, const char *pKey, const void *pValue,
                                                uint32_t uiValueLength) {
    return __OSL_Table_AddNode(hTable, TABLE_KEY_STRING, pKey, 0, pValue, uiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_Pointer_AddNode(OstrelTableHandle hTable, const void *pKey, const void *pValue,
                                                 uint32_t uiValueLength) {
    return __OSL_Table_AddNode(hTable, TABLE_KEY_POINTER, pKey, 0, pValue, uiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_ByteArray_AddNode(OstrelTableHandle hTable, const void *pKey, uint32_t uiKeyLength,
                                                   const void *pValue, uint32_t uiValueLength) {
    return __OSL_Table_AddNode(hTable, TABLE_KEY_BYTEARRAY, pKey, uiKeyLength, pValue, uiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_String_GetNode(OstrelTableHandle hTable, const char *pKey, void **ppValue,
                                                uint32_t *puiValueLength) {
    return __OSL_Table_GetNode(hTable, TABLE_KEY_STRING, pKey, 0, ppValue, puiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_Pointer_GetNode(OstrelTableHandle hTable, const void *pKey, void **ppValue,
                                                 uint32_t *puiValueLength) {
    return __OSL_Table_GetNode(hTable, TABLE_KEY_POINTER, pKey, 0, ppValue, puiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_ByteArray_GetNode(OstrelTableHandle hTable, const void *pKey, uint32_t uiKeyLength,
                                                   void **ppValue, uint32_t *puiValueLength) {
    return __OSL_Table_GetNode(hTable, TABLE_KEY_BYTEARRAY, pKey, uiKeyLength, ppValue, puiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_String_UpdateNode(OstrelTableHandle hTable, const char *pKey, const void *pValue,
                                                   uint32_t uiValueLength) {
    return __OSL_Table_UpdateNode(hTable, TABLE_KEY_STRING, pKey, 0, pValue, uiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_Pointer_UpdateNode(OstrelTableHandle hTable, const void *pKey, const void *pValue,
                                                    uint32_t uiValueLength) {
    return __OSL_Table_UpdateNode(hTable, TABLE_KEY_POINTER, pKey, 0, pValue, uiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_ByteArray_UpdateNode(OstrelTableHandle hTable, const void *pKey,
                                                      uint32_t uiKeyLength, const void *pValue,
                                                      uint32_t uiValueLength) {
    return __OSL_Table_UpdateNode(hTable, TABLE_KEY_BYTEARRAY, pKey, uiKeyLength, pValue, uiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_String_DelNode(OstrelTableHandle hTable, const char *pKey) {
    return __OSL_Table_DelNode(hTable, TABLE_KEY_STRING, pKey, 0);
}

OSTREL_API uint32_t Ostrel_Table_Pointer_DelNode(OstrelTableHandle hTable, const void *pKey) {
    return __OSL_Table_DelNode(hTable, TABLE_KEY_POINTER, pKey, 0);
}

OSTREL_API uint32_t Ostrel_Table_ByteArray_DelNode(OstrelTableHandle hTable, const void *pKey, uint32_t uiKeyLength) {
    return __OSL_Table_DelNode(hTable, TABLE_KEY_BYTEARRAY, pKey, uiKeyLength);
}

OSTREL_API uint32_t Ostrel_Table_BeginIterate(OstrelTableHandle hTable, OstrelTableIterHandle *phItr, uint32_t uiMode) {
    OSL_ASSERT_ARG(NULL != phItr);
    OSL_CHECK_TABLE(hTable);
    auto *pTable = static_cast<TableRec *>(hTable);
    if (uiMode > TABLE_ITERATE_BACKWARD) OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    auto *pItr = static_cast<IterRec *>(calloc(1, sizeof(IterRec)));
    if (pItr == nullptr) OSL_ALLOC_FAILED(sizeof(IterRec));
    pItr->pTable = pTable;
    pItr->uiMode = uiMode;
    pItr->uiAction = TABLE_ACTION_NONE;
    if (uiMode == TABLE_ITERATE_FORWARD)
        pItr->pNext = pTable->pHead;
    else if (uiMode == TABLE_ITERATE_BACKWARD)
        pItr->pNext = pTable->pTail;
    else
        seek_bucket(pItr, 0);
    pItr->pNextOpen = pTable->pOpenIters;
    if (pTable->pOpenIters != nullptr) pTable->pOpenIters->pPrevOpen = pItr;
    pTable->pOpenIters = pItr;
    ++pTable->uiIterCount;
    pItr->uiMagic = kIterMagic;
    *phItr = pItr;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Table_String_Iterate(OstrelTableIterHandle hItr, const char **ppKey, void **ppValue,
                                                uint32_t *puiValueLength) {
    const void *pKey = nullptr;
    uint32_t rc = __OSL_Table_Iterate(hItr, TABLE_KEY_STRING, ppKey != nullptr ? &pKey : nullptr, nullptr, ppValue,
                                      puiValueLength);
    if (rc == 0) *ppKey = static_cast<const char *>(pKey);
    return rc;
}

OSTREL_API uint32_t Ostrel_Table_Pointer_Iterate(OstrelTableIterHandle hItr, const void **ppKey, void **ppValue,
                                                 uint32_t *puiValueLength) {
    return __OSL_Table_Iterate(hItr, TABLE_KEY_POINTER, ppKey, nullptr, ppValue, puiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_ByteArray_Iterate(OstrelTableIterHandle hItr, const void **ppKey,
                                                   uint32_t *puiKeyLength, void **ppValue, uint32_t *puiValueLength) {
    return __OSL_Table_Iterate(hItr, TABLE_KEY_BYTEARRAY, ppKey, puiKeyLength, ppValue, puiValueLength);
}

OSTREL_API uint32_t Ostrel_Table_IterateDel(OstrelTableIterHandle hItr) {
    OSL_CHECK_ITER(hItr);
    auto *pItr = static_cast<IterRec *>(hItr);
    if (pItr->pCurrent == nullptr) OSL_RETURN(OSL_ERR_NOT_FOUND);
    drop_pending(pItr);
    pItr->uiAction = TABLE_ACTION_DELETE;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Table_IterateUpdate(OstrelTableIterHandle hItr, const void *pValue, uint32_t uiValueLength) {
    OSL_CHECK_ITER(hItr);
    auto *pItr = static_cast<IterRec *>(hItr);
    if (pItr->pCurrent == nullptr) OSL_RETURN(OSL_ERR_NOT_FOUND);
    void *pPending = const_cast<void *>(pValue);
    if (pValue != nullptr && uiValueLength != 0) {
        if (uiValueLength > kLargeMalloc)
            OSL_LOG(LOG_LEVEL_WARN, "Large malloc in %s, size=%d.", __func__, static_cast<int>(uiValueLength));
        pPending = malloc(uiValueLength);
        if (pPending == nullptr) OSL_ALLOC_FAILED(uiValueLength);
        memcpy(pPending, pValue, uiValueLength);
    }
    // Released only now, so a failed allocation keeps the earlier mark.
    drop_pending(pItr);
    pItr->pPendingValue = pPending;
    pItr->uiPendingLength = uiValueLength;
    pItr->uiAction = TABLE_ACTION_UPDATE;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_Table_EndIterate(OstrelTableIterHandle hItr) {
    OSL_CHECK_ITER(hItr);
    auto *pItr = static_cast<IterRec *>(hItr);
    TableRec *pTable = pItr->pTable;
    if (__OSL_Table_ProcessIterateAction(pItr) != 0) OSL_LOG(LOG_LEVEL_ERROR, "Process iterate action failed.");
    --pTable->uiIterCount;
    if (pItr->pPrevOpen != nullptr)
        pItr->pPrevOpen->pNextOpen = pItr->pNextOpen;
    else
        pTable->pOpenIters = pItr->pNextOpen;
    if (pItr->pNextOpen != nullptr) pItr->pNextOpen->pPrevOpen = pItr->pPrevOpen;
    memset(pItr, 0, sizeof(IterRec));
    free(pItr);
    OSL_RETURN(0);
}

} // extern "C"
