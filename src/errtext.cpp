// Error codes: the last error, the generic and module-specific texts, and the
// module names.
#define OSL_SRC_PATH "src/errtext"
#include "osl_frame.h"
#include "ostrel_error.h"

OslLastError g_OSL_errno;

namespace {

const char kUnregistered[] = "Unregisted errno.";

// Generic texts, indexed by bits 7..0 of a code (0 has none).
const char *const kGenericTexts[] = {
    nullptr,
    "Unknown error.",
    "Unimplemented function.",
    "Unexpected internal flow.",
    "Buffer too small.",
    "Assert failed.",
    "Not enough memory.",
    "Incompatible version.",
    "Not empty.",
    "File already exists.",
    "Access denied.",
    "User canceled.",
    "Has not logged in.",
    "Dll load failed.",
    "Can not find specified func in dll.",
    "Invalid parameter.",
    "Invalid handle.",
    "Invalid length.",
    "Invalid data content.",
    "Invalid format.",
    "Invalid status.",
    "Invalid type.",
    "Invalid command.",
    "Can not find specified file.",
    "Can not find specified item(node,element).",
    "Can not find specified device.",
    "Can not find specified certificate.",
    "Can not find specified algorithm.",
    "Can not find specified algorithm mode.",
    "Password wrong.",
    "Password locked.",
    "Password too simple.",
    "Signature verification failed.",
    "CRC verification failed.",
    "Data comparation failed.",
    "Create process failed.",
    "Create thread failed.",
    "System full.",
    "System busy.",
    "Network timeout.",
    "Network unreachable.",
    "Connection closed by peer.",
    "Duplicate key.",
    "Async worker is busy, can not start more task.",
    "Async task is pending.",
    "Async task is canceled.",
    "Async task is processing.",
    "Invalid ticket.",
    "Ticket already expired.",
    "Is empty.",
    "Unexpected system error.",
    "Create object failed.",
    "Invalid serial no.",
};
constexpr unsigned kGenericCount = sizeof(kGenericTexts) / sizeof(kGenericTexts[0]) - 1;
static_assert(kGenericCount == 52, "the generic texts run from 1 to 52");

struct CodeText {
    uint32_t code;
    const char *text;
};

// Module-specific texts, keyed by the whole code (bit 15 set), sorted.
const CodeText kModuleTexts[] = {
    {0x3FF8001u, "[demo]TEST1."},
    {0x3FF8002u, "[demo]TEST2."},
    {0x3FF8003u, "[demo]TEST3."},
};

struct ModuleName {
    uint32_t id;
    const char *name;
};

const ModuleName kModuleNames[] = {
    {0, "base"},
    {9, "ostrel"},
    {10, "netbase"},
    {1023, "demo"},
};

} // namespace

const char *Local_GetErrModule(uint32_t uiCode) {
    uint32_t id = uiCode >> 16;
    for (const auto &m : kModuleNames)
        if (m.id == id) return m.name;
    return "???";
}

extern "C" {

OSTREL_API uint32_t Ostrel_GetLastError(void) { return g_OSL_errno; }

OSTREL_API const char *Ostrel_GetErrorText(uint32_t uiCode) {
    if ((uiCode >> 16) > OSL_MODULE_MAX) return kUnregistered;
    if (uiCode & 0x8000u) {
        for (const auto &row : kModuleTexts)
            if (row.code == uiCode) return row.text;
        return kUnregistered;
    }
    uint32_t num = uiCode & 0xFFu;
    if (num == 0 || num > kGenericCount) return kUnregistered;
    return kGenericTexts[num];
}

OSTREL_API const char *Ostrel_GetLastErrorText(void) { return Ostrel_GetErrorText(g_OSL_errno); }

} // extern "C"
