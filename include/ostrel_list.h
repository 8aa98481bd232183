/**
 * @file ostrel_list.h
 *
 * Ostrel: a circular doubly linked list of opaque values.
 *
 * A list keeps either the caller's pointers (NODE_STORAGE_REFERENCE) or its
 * own copies of the caller's bytes (NODE_STORAGE_COPY, zeroed before they are
 * freed); the mode is fixed at creation. Lists, nodes and iterators are
 * handles checked by a magic number on every call. The list takes no lock:
 * one thread uses a list and its iterators at a time.
 *
 * Every function returns 0 or an error code: 0x90010 for a bad handle,
 * 0x9000F for a failed argument check (not stored as the last error; use the
 * returned code), 0x90006 for memory, 0x90018 for an index out of range.
 */
#ifndef OSTREL_LIST_H
#define OSTREL_LIST_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

typedef void *OstrelListHandle;
typedef void *OstrelNodeHandle;
typedef void *OstrelIterHandle;

/** Creates an empty list in the given storage mode. */
OSTREL_API uint32_t Ostrel_List_Create(OstrelListHandle *phList, int iStoreFlag);

/** Appends a node at the tail. In copy mode iLength must be at least 1; in
 * reference mode any length is kept as given. phNode is optional. */
OSTREL_API uint32_t Ostrel_List_AddNode(OstrelListHandle hList, const void *pValue, int32_t iLength,
                                        OstrelNodeHandle *phNode);

/** Counts the nodes; when phNodes is given it receives every node handle from
 * first to last (the caller provides room for all of them). */
OSTREL_API uint32_t Ostrel_List_GetCount(OstrelListHandle hList, OstrelNodeHandle *phNodes, uint32_t *piCount);

/** Reads a node's data pointer and length (both optional). */
OSTREL_API uint32_t Ostrel_List_GetNodeData(OstrelNodeHandle hNode, void **ppValue, int32_t *piLength);

/** Unlinks and frees one node (no list handle needed). The handle is dead
 * afterwards; an iterator whose cursor stands on it must not be stepped. */
OSTREL_API uint32_t Ostrel_List_DelNode(OstrelNodeHandle hNode);

/** Reads the node at a 0-based position. */
OSTREL_API uint32_t Ostrel_List_GetNode(OstrelListHandle hList, int32_t iIndex, void **ppValue, int32_t *piLength);
/** Reads the node at a 0-based position like Ostrel_List_GetNode, and also
 * stores the node's handle through phNode. */
OSTREL_API uint32_t Ostrel_List_GetNodeEx(OstrelListHandle hList, int32_t iIndex, OstrelNodeHandle *phNode,
                                          void **ppValue, int32_t *piLength);

/** Frees every node and the list. Iterators are not freed by it. */
OSTREL_API uint32_t Ostrel_List_Destroy(OstrelListHandle hList);

/** Starts an iteration at the first node. */
OSTREL_API uint32_t Ostrel_List_BeginIterate(OstrelListHandle hList, OstrelIterHandle *phItr);

/** Returns the node under the cursor and advances; *piFlag becomes 1 (and
 * nothing else is written) once the end is reached, and stays 1. */
OSTREL_API uint32_t Ostrel_List_Iterate(OstrelIterHandle hItr, void **ppValue, int32_t *piLength, uint32_t *piFlag);
/** One iteration step like Ostrel_List_Iterate, also storing the handle of
 * the returned node through phNode. */
OSTREL_API uint32_t Ostrel_List_IterateEx(OstrelIterHandle hItr, OstrelNodeHandle *phNode, void **ppValue,
                                          int32_t *piLength, uint32_t *piFlag);

/** Frees the iterator. */
OSTREL_API uint32_t Ostrel_List_EndIterate(OstrelIterHandle hItr);

OSTREL_EXTERN_C_END

#endif /* OSTREL_LIST_H */
