/** @file ostrel_ervix.h
 *
 * Ostrel: the process-wide error-info registry, in which modules store the
 * English and Chinese texts of their own error codes.
 *
 * A module registers once, under its id (0..1023), with a callback that fills
 * a zero-filled ErvixErrInfoBlock. Any code of that module can then be turned
 * into its text. A code's entry is bits 7..0 of the code, plus 256 when bit 15
 * (module-specific code) is set; bits 14..8 play no part. Texts may start with
 * a tag in square brackets ("[mod]Bad value"): the plain lookups strip it, the
 * Ex lookups return the text as stored.
 *
 * Lookups return a pointer into the module's block, or the constant
 * "[ERVIX]Unregisted errno." when the module or the entry is unknown; never
 * null, never to be freed, valid for the life of the process (blocks are never
 * released). None of these functions logs or changes the last error. */
#ifndef OSTREL_ERVIX_H
#define OSTREL_ERVIX_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

#define ERVIX_MODULE_NAME_SIZE 32 /**< name field, NUL included */
#define ERVIX_TEXT_SIZE 60        /**< each text field, NUL included */
#define ERVIX_ENTRY_COUNT 512
#define ERVIX_LANGUAGE_EN 0 /**< any other language value selects Chinese */
#define ERVIX_LANGUAGE_CN 1

/** The entry of a code within its module's block. */
#define ERVIX_ENTRY_INDEX(code) \
    ((uint32_t)(((uint32_t)(code) & 0xFFu) | ((((uint32_t)(code) >> 15) & 1u) << 8)))

/** One code's texts: 128 bytes. */
typedef struct ErvixErrInfoEntry {
    uint32_t uiPresent;                     /**< nonzero: the entry holds texts */
    uint32_t uiReserved;                    /**< not used by the registry (a module may keep the code here) */
    char szTextEN[ERVIX_TEXT_SIZE];         /**< English, NUL-terminated */
    char szTextCN[ERVIX_TEXT_SIZE];         /**< Chinese (UTF-8), NUL-terminated */
} ErvixErrInfoEntry;

/** A module's block: 65568 bytes, laid out byte for byte as written here
 * (name at 0, entry n at 32 + 128 * n; in an entry the flag at 0, the English
 * text at 8 and the Chinese text at 68). */
typedef struct ErvixErrInfoBlock {
    char szModuleName[ERVIX_MODULE_NAME_SIZE]; /**< filled by the registry */
    ErvixErrInfoEntry stEntries[ERVIX_ENTRY_COUNT];
} ErvixErrInfoBlock;

/** Fills a new module's block. Gets the name as passed to Ervix_Register, the
 * module id, the zero-filled block (its name already copied) and the length of
 * the copied name. Texts are cut to 59 bytes if the callback leaves one
 * without its NUL. The result is ignored. */
typedef int (*ErvixFillCallback)(const char *szModuleName, uint32_t uiModuleId, ErvixErrInfoBlock *pBlock,
                                 uint32_t uiNameLen);

/** Creates the registry's lock; run by the library's load-time initialiser.
 * Returns the result of the mutex creation (0 on success); later calls
 * return the same result and create nothing. */
OSTREL_API int Ervix_Init(void);

/** Registers a module: allocates its block, copies at most 31 characters of
 * the name into it, runs the callback (outside the registry's lock) and
 * stores the block. Does nothing if the callback or the name is null, the id
 * is above 1023, the id already has a block, or memory runs out. Safe from
 * many threads at once: when two registrations of one id race, both
 * callbacks run, the first block stored is kept and the other is freed. */
OSTREL_API void Ervix_Register(const char *szModuleName, uint32_t uiModuleId, ErvixFillCallback pfnFill);

/** Text of a code, tag stripped: English for language 0, Chinese for any other
 * value. */
OSTREL_API const char *Ervix_GetErrInfo(uint32_t uiCode, int32_t iLanguage);
/** Same as Ervix_GetErrInfo: the text of a code in the given language, tag
 * stripped. */
OSTREL_API const char *Ervix_GetErrInfoEx(uint32_t uiCode, int32_t iLanguage);
/** English text of a code, tag stripped. */
OSTREL_API const char *Ervix_GetErrInfoEN(uint32_t uiCode);
/** Chinese (UTF-8) text of a code, tag stripped. */
OSTREL_API const char *Ervix_GetErrInfoCN(uint32_t uiCode);
/** English text of a code as stored, tag included. */
OSTREL_API const char *Ervix_GetErrInfoExEN(uint32_t uiCode);
/** Chinese (UTF-8) text of a code as stored, tag included. */
OSTREL_API const char *Ervix_GetErrInfoExCN(uint32_t uiCode);
/** Registered name of the code's module (bits 31..16). */
OSTREL_API const char *Ervix_GetErrModule(uint32_t uiCode);

OSTREL_EXTERN_C_END

#endif /* OSTREL_ERVIX_H */
