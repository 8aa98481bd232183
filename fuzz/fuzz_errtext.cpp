// Error-text, module-name and error-info registry lookups over arbitrary
// codes, with registry blocks filled from the input itself (texts of any
// bytes, with or without their NUL, tags opened and never closed).
//
// Input: byte 0 and 1 pick a module id to register (ids past 1023 must be
// refused); the next 240 bytes are cut into texts for that module's entries;
// the rest, in 4-byte words, are the codes looked up.
//
// Checked for every code: no lookup returns null or changes the last error;
// registry texts are at most 59 bytes; the plain lookups return a tail of the
// text the Ex lookups return; bits 14..8 never change a lookup's result; the
// language-taking forms agree with the EN/CN forms; the generic table ignores
// the module id.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_ervix.h"
#include "fuzz_check.h"


namespace {

constexpr char kFallback[] = "[ERVIX]Unregisted errno.";
constexpr size_t kTextBytes = 240;

const uint8_t *g_fill_bytes = nullptr;
size_t g_fill_len = 0;


// Fills entries from the input: every 24 bytes become one entry's English
// and Chinese texts, copied raw (up to 60 bytes each, NUL not guaranteed), in
// both the generic (0..255) and module-specific (256..511) halves.
int fill(const char *, uint32_t, ErvixErrInfoBlock *pBlock, uint32_t) {
    for (size_t off = 0, n = 0; off < g_fill_len; off += 24, ++n) {
        const size_t len = g_fill_len - off < 24 ? g_fill_len - off : 24;
        const uint8_t *src = g_fill_bytes + off;
        const uint32_t entry = (static_cast<uint32_t>(src[0]) + static_cast<uint32_t>(n) * 37u) % ERVIX_ENTRY_COUNT;
        ErvixErrInfoEntry &e = pBlock->stEntries[entry];
        e.uiPresent = src[0] & 1u ? 1u : 0u;
        // Repeating the bytes fills the whole field, so some texts lack a NUL.
        for (size_t i = 0; i < ERVIX_TEXT_SIZE; ++i) {
            e.szTextEN[i] = static_cast<char>(src[(i + 1) % len]);
            e.szTextCN[i] = static_cast<char>(src[(len - 1 - i % len)]);
        }
        if (src[0] & 2u) e.szTextEN[src[1 % len] % ERVIX_TEXT_SIZE] = '\0';
        if (src[0] & 4u) e.szTextCN[src[2 % len] % ERVIX_TEXT_SIZE] = '\0';
    }
    return 0;
}

// The plain lookup is the Ex text itself or a tail of it.
void check_plain_vs_ex(const char *plain, const char *ex) {
    check(plain != nullptr && ex != nullptr);
    const size_t ex_len = strnlen(ex, ERVIX_TEXT_SIZE);
    check(ex_len < ERVIX_TEXT_SIZE || strcmp(ex, kFallback) == 0);
    if (ex == plain) return;
    check(plain > ex && plain <= ex + ex_len);
}

void check_code(uint32_t code) {
    const uint32_t other_bits = code ^ 0x7F00u; // bits 14..8 flipped
    const bool valid_module = (code >> 16) <= OSL_MODULE_MAX;

    const char *t = Ostrel_GetErrorText(code);
    check(t != nullptr && strlen(t) < 256);
    check(Ostrel_GetErrorText(other_bits) == t || (code & 0x8000u) != 0);
    if (valid_module && (code & 0x8000u) == 0)
        check(Ostrel_GetErrorText((code & 0xFFFFu) | 0x90000u) == t); // module id plays no part
    if (!valid_module) check(strcmp(t, "Unregisted errno.") == 0);
    const char *m = Local_GetErrModule(code);
    check(m != nullptr && m == Local_GetErrModule(code & 0xFFFF0000u));

    const char *en = Ervix_GetErrInfoEN(code);
    const char *cn = Ervix_GetErrInfoCN(code);
    const char *ex_en = Ervix_GetErrInfoExEN(code);
    const char *ex_cn = Ervix_GetErrInfoExCN(code);
    check_plain_vs_ex(en, ex_en);
    check_plain_vs_ex(cn, ex_cn);
    check(Ervix_GetErrInfo(code, 0) == en && Ervix_GetErrInfoEx(code, 0) == en);
    check(Ervix_GetErrInfo(code, static_cast<int32_t>(code)) == (code == 0 ? en : cn));
    check(Ervix_GetErrInfoEN(other_bits) == en && Ervix_GetErrInfoExCN(other_bits) == ex_cn);
    const char *mod = Ervix_GetErrModule(code);
    check(mod != nullptr && strnlen(mod, ERVIX_MODULE_NAME_SIZE) < ERVIX_MODULE_NAME_SIZE);
    if (!valid_module) check(strcmp(en, kFallback) == 0 && strcmp(mod, kFallback) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const uint32_t id = (static_cast<uint32_t>(data[0]) << 8 | data[1]) & 0x7FFu; // up to 2047
    data += 2;
    size -= 2;
    g_fill_bytes = data;
    g_fill_len = size < kTextBytes ? size : kTextBytes;
    g_OSL_errno = 0x9ABCDu;
    char name[40];
    memset(name, 'm', sizeof name - 1);
    name[sizeof name - 1] = '\0';
    name[id % (sizeof name - 1)] = '\0'; // names of 0..38 characters, some past the 31 kept
    if (g_fill_len > 0) Ervix_Register(name, id, fill);
    if (id > OSL_MODULE_MAX) check(strcmp(Ervix_GetErrModule(id << 16), kFallback) == 0);
    data += g_fill_len;
    size -= g_fill_len;

    check_code(id << 16 | 0x8001u);
    for (size_t off = 0; off + 4 <= size; off += 4) {
        uint32_t code;
        memcpy(&code, data + off, sizeof code);
        check_code(code);
        check_code(code & 0x03FF80FFu); // the same code within the valid ids
    }
    check(Ostrel_GetLastError() == 0x9ABCDu);
    return 0;
}
