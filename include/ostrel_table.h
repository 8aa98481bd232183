/**
 * @file ostrel_table.h
 *
 * Ostrel: a keyed table.
 *
 * A table maps keys to values. Its key type is fixed by the first node ever
 * added and kept for the table's life (also when it becomes empty again):
 * NUL-terminated strings, pointer values (a null pointer is a valid key) or
 * byte arrays with an explicit length. Each operation exists in one form per
 * key type; a form that does not match the table's key type is refused with
 * 0x9000F.
 *
 * Nodes are found through hash buckets (CRC-32 of the key bytes for strings
 * and byte arrays, the pointer value itself for pointer keys) and are also
 * kept on one sorted list, so that they can be visited in bucket order or in
 * sorted order either way. A new table keeps insertion order (the newest node
 * first); TABLE_PROP_SORT_FUNCTION switches an empty table to key order. In
 * key order byte-array keys compare over the shorter of the two lengths, so a
 * key that is a prefix of another sorts as equal to it (equal keys: the newer
 * one goes first); as lookup keys they stay distinct. Pointer keys sort by
 * the low 32 bits of their value.
 *
 * The bucket array grows by itself: after an add, when count * 100 / range
 * passes the refresh threshold (default 75), the range grows by the refresh
 * step (default: the range given at creation) up to TABLE_RANGE_MAX buckets.
 * Past that cap the chains lengthen; lookups then go through a private index
 * kept beside them, so that they cost about the same at any size.
 *
 * Keys of string and byte-array type are always copied into the node. Values
 * are copied only in NODE_STORAGE_COPY mode, and only when the pointer is not
 * null and the length is not 0; otherwise the node keeps the caller's pointer
 * and length. A value pointer obtained through a get or an iteration step is
 * the node's own storage in copy mode: it stays valid until the node is
 * updated or deleted (an update with a longer value moves the node to a new
 * block).
 *
 * While an iterator is open on a table, the table refuses adds, updates,
 * deletes and destruction with 0x90026 (System busy); lookups and property
 * changes stay allowed. Deletes and value updates during a walk go through
 * the iterator: they are recorded and carried out at the next step or at
 * Ostrel_Table_EndIterate, so the walk never loses its place.
 *
 * A table takes no lock: one thread uses a table and its iterators at a time.
 *
 * Every function returns 0 or an error code and leaves it as the last error,
 * except failed argument checks (0x9000F), which are returned but not stored.
 * Codes: 0x90010 bad handle, 0x9000F bad argument or key type, 0x90006 out of
 * memory, 0x90008 sort function change on a non-empty table, 0x90018 key not
 * found, 0x9002A duplicate key, 0x90026 table being iterated, 0x90012 corrupt
 * node links.
 */
#ifndef OSTREL_TABLE_H
#define OSTREL_TABLE_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

/** Largest number of buckets. */
#define TABLE_RANGE_MAX 8192

/** Key types; a table has TABLE_KEY_NONE until its first add. */
#define TABLE_KEY_NONE 0
#define TABLE_KEY_STRING 1
#define TABLE_KEY_POINTER 2
#define TABLE_KEY_BYTEARRAY 3

/** Property codes of Ostrel_Table_SetProperty. */
#define TABLE_PROP_SORT_FUNCTION 1     /**< a TableCompareFn, or 0 for key order */
#define TABLE_PROP_RANGE 2             /**< bucket count, 1 .. TABLE_RANGE_MAX; never shrinks */
#define TABLE_PROP_REFRESH_THRESHOLD 3 /**< load in percent that triggers growth, 1 .. 1000 */
#define TABLE_PROP_REFRESH_STEP 4      /**< buckets added per growth, 0 .. TABLE_RANGE_MAX; 0: no growth */

/** Visiting orders of an iterator. */
#define TABLE_ITERATE_BUCKET 0   /**< bucket 0 upwards, each chain from its first node */
#define TABLE_ITERATE_FORWARD 1  /**< sorted list from head to tail */
#define TABLE_ITERATE_BACKWARD 2 /**< sorted list from tail to head */

/** Actions an iterator keeps pending for the node it returned last. */
#define TABLE_ACTION_NONE 0
#define TABLE_ACTION_DELETE 1
#define TABLE_ACTION_UPDATE 2

/** Orders two keys: negative if the first sorts before the second, 0 if they
 * are equal, positive if after. Pointer keys arrive as the pointer value
 * with length 0; string keys with their length including the NUL. */
typedef int32_t (*TableCompareFn)(const void *pKey1, uint32_t uiKeyLength1, const void *pKey2, uint32_t uiKeyLength2);

/** Hashes a key; only the low 32 bits are used (bucket = value % range). */
typedef uintptr_t (*TableIndexFn)(const void *pKey, uint32_t uiKeyLength);

typedef void *OstrelTableHandle;
typedef void *OstrelTableIterHandle;

/** Creates an empty table of uiRange (1 .. TABLE_RANGE_MAX) buckets whose
 * values are kept in the given storage mode. */
OSTREL_API uint32_t Ostrel_Table_Create(OstrelTableHandle *phTable, uint32_t uiRange, int iStoreFlag);

/** Sets one property (TABLE_PROP_*). uiValue is a sort function for
 * TABLE_PROP_SORT_FUNCTION, passed as (uintptr_t)fn, or 0 for the key order
 * of the table's key type; a number for the other codes. A caller's own sort
 * function takes effect only on a table whose key type is already fixed (one
 * that had nodes and was emptied): the first add of a new table replaces any
 * sort function other than insertion order with its key type's compare. */
OSTREL_API uint32_t Ostrel_Table_SetProperty(OstrelTableHandle hTable, int32_t iProperty, uintptr_t uiValue);

/** Stores the number of nodes. */
OSTREL_API uint32_t Ostrel_Table_GetCount(OstrelTableHandle hTable, uint32_t *puiCount);

/** Frees every node and the table; refused while an iterator is open. */
OSTREL_API uint32_t Ostrel_Table_Destroy(OstrelTableHandle hTable);

/** Add: refused with 0x9002A when the key exists. */
OSTREL_API uint32_t Ostrel_Table_String_AddNode(OstrelTableHandle hTable, const char *pKey, const void *pValue,
                                                uint32_t uiValueLength);
/** Adds a node under a pointer key (the pointer value is the key; null is a
 * valid key); 0x9002A when the key exists. */
OSTREL_API uint32_t Ostrel_Table_Pointer_AddNode(OstrelTableHandle hTable, const void *pKey, const void *pValue,
                                                 uint32_t uiValueLength);
/** Adds a node under a byte-array key of uiKeyLength bytes (copied into the
 * node); 0x9002A when the key exists. */
OSTREL_API uint32_t Ostrel_Table_ByteArray_AddNode(OstrelTableHandle hTable, const void *pKey, uint32_t uiKeyLength,
                                                   const void *pValue, uint32_t uiValueLength);

/** Get: stores the value pointer and length through the outputs that are not
 * null; 0x90018 when the key is missing. */
OSTREL_API uint32_t Ostrel_Table_String_GetNode(OstrelTableHandle hTable, const char *pKey, void **ppValue,
                                                uint32_t *puiValueLength);
/** Looks up a pointer key; stores the value pointer and length through the
 * outputs that are not null; 0x90018 when the key is missing. */
OSTREL_API uint32_t Ostrel_Table_Pointer_GetNode(OstrelTableHandle hTable, const void *pKey, void **ppValue,
                                                 uint32_t *puiValueLength);
/** Looks up a byte-array key of uiKeyLength bytes; stores the value pointer
 * and length through the outputs that are not null; 0x90018 when missing. */
OSTREL_API uint32_t Ostrel_Table_ByteArray_GetNode(OstrelTableHandle hTable, const void *pKey, uint32_t uiKeyLength,
                                                   void **ppValue, uint32_t *puiValueLength);

/** Update: replaces the value of an existing key. In copy mode a value that
 * fits the current value length is copied in place; a longer one moves the
 * node to a new block, keeping its places in its chain and the sorted list. */
OSTREL_API uint32_t Ostrel_Table_String_UpdateNode(OstrelTableHandle hTable, const char *pKey, const void *pValue,
                                                   uint32_t uiValueLength);
/** Replaces the value of an existing pointer key, as
 * Ostrel_Table_String_UpdateNode does for a string key. */
OSTREL_API uint32_t Ostrel_Table_Pointer_UpdateNode(OstrelTableHandle hTable, const void *pKey, const void *pValue,
                                                    uint32_t uiValueLength);
/** Replaces the value of an existing byte-array key, as
 * Ostrel_Table_String_UpdateNode does for a string key. */
OSTREL_API uint32_t Ostrel_Table_ByteArray_UpdateNode(OstrelTableHandle hTable, const void *pKey,
                                                      uint32_t uiKeyLength, const void *pValue,
                                                      uint32_t uiValueLength);

/** Delete: 0x90018 (not logged) when the key is missing. */
OSTREL_API uint32_t Ostrel_Table_String_DelNode(OstrelTableHandle hTable, const char *pKey);
/** Deletes the node of a pointer key; 0x90018 (not logged) when missing. */
OSTREL_API uint32_t Ostrel_Table_Pointer_DelNode(OstrelTableHandle hTable, const void *pKey);
/** Deletes the node of a byte-array key of uiKeyLength bytes; 0x90018 (not
 * logged) when missing. */
OSTREL_API uint32_t Ostrel_Table_ByteArray_DelNode(OstrelTableHandle hTable, const void *pKey, uint32_t uiKeyLength);

/** Opens an iterator in one of the TABLE_ITERATE_* orders. Several iterators
 * may be open on one table; the table accepts changes again when the last is
 * closed. Every iterator must be closed with Ostrel_Table_EndIterate.
 * A node deleted or moved through one iterator is followed by the others.
 * A growth of the bucket array during a walk (TABLE_PROP_RANGE, or a lower
 * TABLE_PROP_REFRESH_THRESHOLD) does not affect sorted walks; a walk in bucket
 * order goes on safely but may then return some nodes again or pass some
 * over. */
OSTREL_API uint32_t Ostrel_Table_BeginIterate(OstrelTableHandle hTable, OstrelTableIterHandle *phItr, uint32_t uiMode);

/** One step: carries out the pending action, then stores the next node's key
 * (null when the walk is over; every further step does the same) and, through
 * the outputs that are not null, its value and lengths. ppKey is required.
 * On a pointer table that holds the null key, a null key alone does not mean
 * the end: step as many times as Ostrel_Table_GetCount reports instead. */
OSTREL_API uint32_t Ostrel_Table_String_Iterate(OstrelTableIterHandle hItr, const char **ppKey, void **ppValue,
                                                uint32_t *puiValueLength);
/** One step of a walk over a pointer-key table, as
 * Ostrel_Table_String_Iterate; the key is stored as the pointer value. */
OSTREL_API uint32_t Ostrel_Table_Pointer_Iterate(OstrelTableIterHandle hItr, const void **ppKey, void **ppValue,
                                                 uint32_t *puiValueLength);
/** One step of a walk over a byte-array table, as
 * Ostrel_Table_String_Iterate, also storing the key's length. */
OSTREL_API uint32_t Ostrel_Table_ByteArray_Iterate(OstrelTableIterHandle hItr, const void **ppKey,
                                                   uint32_t *puiKeyLength, void **ppValue, uint32_t *puiValueLength);

/** Marks the node returned by the last step for deletion; 0x90018 when no
 * step has returned a node. A later mark replaces an earlier one. */
OSTREL_API uint32_t Ostrel_Table_IterateDel(OstrelTableIterHandle hItr);

/** Marks the node returned by the last step for a new value; 0x90018 when no
 * step has returned a node. A later mark replaces an earlier one.
 *
 * A non-null value with a non-zero length is copied at once into a buffer of
 * the iterator, so the caller's bytes need not outlive this call. In copy
 * mode the node copies that buffer when the update is carried out and the
 * buffer is released. In reference mode the node takes the buffer over: it
 * then points at this copy (not at the caller's pointer) and frees it itself
 * when the node is deleted, destroyed with its table, or given another value.
 * The caller must not free a pointer obtained from such a node. */
OSTREL_API uint32_t Ostrel_Table_IterateUpdate(OstrelTableIterHandle hItr, const void *pValue, uint32_t uiValueLength);

/** Carries out the pending action and closes the iterator. */
OSTREL_API uint32_t Ostrel_Table_EndIterate(OstrelTableIterHandle hItr);

OSTREL_EXTERN_C_END

#endif /* OSTREL_TABLE_H */
