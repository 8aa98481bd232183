// Error-info registry: per-module blocks of English and Chinese error texts.
// A block is filled completely before it is published with a release store;
// lookups read the slot once with an acquire load and take no lock, so they
// never see a half-filled block. Blocks are never released.
#define OSL_SRC_PATH "src/registry"
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "osl_frame.h"
#include "ostrel_ervix.h"

static_assert(sizeof(ErvixErrInfoEntry) == 128, "entry is 128 bytes");
static_assert(offsetof(ErvixErrInfoEntry, uiPresent) == 0, "present flag at 0");
static_assert(offsetof(ErvixErrInfoEntry, uiReserved) == 4, "unused word at 4");
static_assert(offsetof(ErvixErrInfoEntry, szTextEN) == 8, "English text at 8");
static_assert(offsetof(ErvixErrInfoEntry, szTextCN) == 68, "Chinese text at 68");
static_assert(sizeof(ErvixErrInfoBlock) == 65568, "block is 65568 bytes");
static_assert(offsetof(ErvixErrInfoBlock, szModuleName) == 0, "name at 0");
static_assert(offsetof(ErvixErrInfoBlock, stEntries) == 32, "entries at 32");
static_assert(ERVIX_ENTRY_INDEX(0x5810Fu) == 256 + 0x0F, "bit 15 selects the upper half, bits 14..8 ignored");

namespace {

constexpr uint32_t kModuleCount = OSL_MODULE_MAX + 1;
constexpr char kUnregistered[] = "[ERVIX]Unregisted errno.";

pthread_mutex_t l_registry_lock;
pthread_once_t l_registry_once = PTHREAD_ONCE_INIT;
int l_registry_init_result = 0;

std::atomic<ErvixErrInfoBlock *> l_modules[kModuleCount];

void create_lock() { l_registry_init_result = pthread_mutex_init(&l_registry_lock, nullptr); }

const ErvixErrInfoBlock *block_of_code(uint32_t uiCode) {
    uint32_t module = uiCode >> 16;
    if (module > OSL_MODULE_MAX) return nullptr;
    return l_modules[module].load(std::memory_order_acquire);
}

// The entry's text in the language asked for, or null when there is none.
const char *entry_text(uint32_t uiCode, int32_t iLanguage) {
    const ErvixErrInfoBlock *block = block_of_code(uiCode);
    if (block == nullptr) return nullptr;
    const ErvixErrInfoEntry &e = block->stEntries[ERVIX_ENTRY_INDEX(uiCode)];
    if (e.uiPresent == 0) return nullptr;
    return iLanguage == ERVIX_LANGUAGE_EN ? e.szTextEN : e.szTextCN;
}

// Drops a leading "[tag]": returns what follows the first ']', or the whole
// text when it has none (an empty text stays empty).
const char *strip_tag(const char *szText) {
    const char *close = strchr(szText, ']');
    return close != nullptr ? close + 1 : szText;
}

const char *lookup(uint32_t uiCode, int32_t iLanguage, bool bStripTag) {
    const char *text = entry_text(uiCode, iLanguage);
    if (text == nullptr) return kUnregistered;
    return bStripTag ? strip_tag(text) : text;
}

// Every text must end inside its field, whatever the callback wrote, so that
// no lookup reads past it.
void terminate_texts(ErvixErrInfoBlock *block) {
    block->szModuleName[ERVIX_MODULE_NAME_SIZE - 1] = '\0';
    for (ErvixErrInfoEntry &e : block->stEntries) {
        e.szTextEN[ERVIX_TEXT_SIZE - 1] = '\0';
        e.szTextCN[ERVIX_TEXT_SIZE - 1] = '\0';
    }
}

} // namespace

extern "C" {

OSTREL_API int Ervix_Init(void) {
    pthread_once(&l_registry_once, create_lock);
    return l_registry_init_result;
}

OSTREL_API void Ervix_Register(const char *szModuleName, uint32_t uiModuleId, ErvixFillCallback pfnFill) {
    if (pfnFill == nullptr || uiModuleId > OSL_MODULE_MAX || szModuleName == nullptr) return;
    if (l_modules[uiModuleId].load(std::memory_order_acquire) != nullptr) return;
    auto *block = static_cast<ErvixErrInfoBlock *>(calloc(1, sizeof(ErvixErrInfoBlock)));
    if (block == nullptr) return;
    size_t len = strnlen(szModuleName, ERVIX_MODULE_NAME_SIZE - 1);
    memcpy(block->szModuleName, szModuleName, len);
    block->szModuleName[len] = '\0';
    (void)pfnFill(szModuleName, uiModuleId, block, static_cast<uint32_t>(len));
    terminate_texts(block);

    pthread_mutex_lock(&l_registry_lock);
    ErvixErrInfoBlock *expected = nullptr;
    // Release: the filled block is visible to any thread that loads the slot.
    bool stored = l_modules[uiModuleId].compare_exchange_strong(expected, block, std::memory_order_release,
                                                                std::memory_order_relaxed);
    pthread_mutex_unlock(&l_registry_lock);
    if (!stored) free(block);
}

OSTREL_API const char *Ervix_GetErrInfo(uint32_t uiCode, int32_t iLanguage) { return lookup(uiCode, iLanguage, true); }

OSTREL_API const char *Ervix_GetErrInfoEx(uint32_t uiCode, int32_t iLanguage) {
    return lookup(uiCode, iLanguage, true);
}

OSTREL_API const char *Ervix_GetErrInfoEN(uint32_t uiCode) { return lookup(uiCode, ERVIX_LANGUAGE_EN, true); }

OSTREL_API const char *Ervix_GetErrInfoCN(uint32_t uiCode) { return lookup(uiCode, ERVIX_LANGUAGE_CN, true); }

OSTREL_API const char *Ervix_GetErrInfoExEN(uint32_t uiCode) { return lookup(uiCode, ERVIX_LANGUAGE_EN, false); }

OSTREL_API const char *Ervix_GetErrInfoExCN(uint32_t uiCode) { return lookup(uiCode, ERVIX_LANGUAGE_CN, false); }

OSTREL_API const char *Ervix_GetErrModule(uint32_t uiCode) {
    const ErvixErrInfoBlock *block = block_of_code(uiCode);
    return block != nullptr ? block->szModuleName : kUnregistered;
}

} // extern "C"
