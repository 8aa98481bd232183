// Error-text, module-name and error-info registry lookups of arbitrary codes,
// with a module registered under an id from the input (ids past 1023 must be
// refused) whose block is filled with the input's bytes as they are: present
// flags, texts with or without their NUL, tags opened and never closed.
//
// Input: bytes 0 and 1 the module id, the next 240 bytes the fill, the rest
// the codes looked up, 4 bytes each.
#include <cstdint>
#include <cstring>

#include "fuzz_check.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_ervix.h"

namespace {

const uint8_t *g_fill = nullptr;
size_t g_fill_len = 0;

int fill(const char *, uint32_t, ErvixErrInfoBlock *b, uint32_t) {
    auto *bytes = reinterpret_cast<unsigned char *>(b->stEntries);
    for (size_t i = 0; i < sizeof b->stEntries; ++i) bytes[i] = g_fill[(i * 7 + i / 128) % g_fill_len]; // skewed
    return 0;
}

void check_code(uint32_t code) {
    const uint32_t other_bits = code ^ 0x7F00u; // bits 14..8 flipped: they never count
    const char *t = Ostrel_GetErrorText(code);
    check(t != nullptr && (Ostrel_GetErrorText(other_bits) == t || (code & 0x8000u) != 0));
    check((code >> 16) > OSL_MODULE_MAX ? strcmp(t, "Unregisted errno.") == 0
                                        : (code & 0x8000u) != 0 || Ostrel_GetErrorText((code & 0xFFFFu) | 0x90000u) == t);
    check(Local_GetErrModule(code) != nullptr && Local_GetErrModule(code) == Local_GetErrModule(code & 0xFFFF0000u));
    for (int32_t lang = 0; lang < 2; ++lang) { // a plain lookup is the stored text or its tail after a ']'
        const char *ex = lang ? Ervix_GetErrInfoExCN(code) : Ervix_GetErrInfoExEN(code);
        const char *plain = lang ? Ervix_GetErrInfoCN(code) : Ervix_GetErrInfoEN(code);
        const size_t len = strnlen(ex, ERVIX_TEXT_SIZE);
        check(len < ERVIX_TEXT_SIZE || strcmp(ex, "[ERVIX]Unregisted errno.") == 0);
        check(plain == ex || (plain > ex && plain <= ex + len && plain[-1] == ']'));
        check(Ervix_GetErrInfo(code, lang ? int32_t(code) | 1 : 0) == plain && Ervix_GetErrInfoEx(code, lang) == plain);
        check((lang ? Ervix_GetErrInfoCN(other_bits) : Ervix_GetErrInfoEN(other_bits)) == plain);
    }
    check(strnlen(Ervix_GetErrModule(code), ERVIX_MODULE_NAME_SIZE) < ERVIX_MODULE_NAME_SIZE);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3) return 0;
    const uint32_t id = (uint32_t(data[0]) << 8 | data[1]) & 0x7FFu;
    g_fill = data + 2;
    g_fill_len = size - 2 < 240 ? size - 2 : 240;
    g_OSL_errno = 0x9ABCDu;
    Ervix_Register("fuzz-module-with-a-name-longer-than-kept", id, fill);
    check((id > OSL_MODULE_MAX) == (strcmp(Ervix_GetErrModule(id << 16), "[ERVIX]Unregisted errno.") == 0));
    for (size_t off = 2 + g_fill_len; off + 4 <= size; off += 4) {
        const uint32_t code = uint32_t(data[off]) << 24 | uint32_t(data[off + 1]) << 16 | data[off + 2] << 8 | data[off + 3];
        check_code(code);
        check_code(code & 0x03FF80FFu); // the same code within the valid ids
    }
    check(Ostrel_GetLastError() == 0x9ABCDu);
    return 0;
}
