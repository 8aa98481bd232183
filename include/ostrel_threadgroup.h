/**
 * @file ostrel_threadgroup.h
 *
 * Ostrel: thread groups, detached threads that are started in groups and
 * cancelled together.
 *
 * Every thread of a group gets a thread node with a control socket pair of
 * its own and a set of descriptors to wait on. A thread waits only through
 * Ostrel_ThreadGroup_Select and Ostrel_ThreadGroup_Sleep, which always watch
 * the control socket too. Ostrel_ThreadGroup_CancelAll writes one byte into
 * every thread's control socket; the byte is never read, so once cancelled a
 * thread sees "to close" at once in every later Select or Sleep. When the
 * thread function returns, the library unlinks and frees the node.
 * Ostrel_ThreadGroup_Destroy waits, without limit, until no thread of the
 * group is left: the thread that leaves the group empty wakes it, and it also
 * looks every 50 ms. It does not cancel by itself.
 *
 * Select and Sleep wait through poll(2): any descriptor number the process
 * can open may be watched, the control sockets included, and the results
 * are those of select(2) with the node's descriptors as its read set.
 *
 * A node belongs to its own thread: only that thread may call SetAdd, SetClr,
 * SetIsSet, Select and Sleep with it. Group handles carry no magic number and
 * are not validated beyond a null check.
 */
#ifndef OSTREL_THREADGROUP_H
#define OSTREL_THREADGROUP_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

typedef void *OstrelThreadGroupHandle;
typedef void *OstrelThreadNodeHandle;

/** A thread function: receives the caller's parameter and its thread node.
 * Its result is ignored. */
typedef uint32_t (*OstrelThreadFunc)(void *pParam, OstrelThreadNodeHandle hNode);

/** Creates an empty group. */
OSTREL_API uint32_t Ostrel_ThreadGroup_Create(OstrelThreadGroupHandle *phGroup);

/** Starts one detached thread running pfnThread(pParam, node). The node is in
 * the group (and reachable by CancelAll) before the thread runs. Returns
 * 0x90001 when the control socket pair or the thread cannot be made, 0x90006
 * when memory runs out; the group is then unchanged. */
OSTREL_API uint32_t Ostrel_ThreadGroup_NewThread(OstrelThreadGroupHandle hGroup, OstrelThreadFunc pfnThread,
                                                 void *pParam);

/** Asks every thread of the group to close. */
OSTREL_API uint32_t Ostrel_ThreadGroup_CancelAll(OstrelThreadGroupHandle hGroup);

/** Waits until every thread of the group has left it, then frees the group.
 * The last thread to leave wakes it, so it returns as soon as that thread
 * is out of the group. */
OSTREL_API uint32_t Ostrel_ThreadGroup_Destroy(OstrelThreadGroupHandle hGroup);

/** The node's descriptor list and set. SetAdd takes any descriptor number
 * (a negative one is refused: nothing changes) and any number of them; past
 * 64 entries the list moves to the heap, and should that allocation fail the
 * descriptor is left out and every later Select fails (0x90001, errno
 * ENOMEM). SetAdd of a descriptor already present changes nothing. SetClr
 * takes the descriptor out of the set and closes the gap in the list, but
 * keeps the list's length: the last entry takes the value of the first unused
 * slot (0). The length does not shrink on SetClr, so a SetAdd after a SetClr
 * adds an entry; when the list is full, SetAdd first drops the entries no
 * call can see any more (repeats of a value behind its first entry, values in
 * no set and without a ready flag), so the list stays as long as the set. */
OSTREL_API void Ostrel_ThreadGroup_SetAdd(OstrelThreadNodeHandle hNode, int iSock);
/** Takes a descriptor out of the node's set; the list keeps its length (see
 * Ostrel_ThreadGroup_SetAdd). */
OSTREL_API void Ostrel_ThreadGroup_SetClr(OstrelThreadNodeHandle hNode, int iSock);
/** 1 if the descriptor was ready in the last Select, 0 otherwise or when it is
 * not in the list. */
OSTREL_API int Ostrel_ThreadGroup_SetIsSet(OstrelThreadNodeHandle hNode, int iSock);

/** Waits up to iTimeout milliseconds for a descriptor of the node to become
 * readable (data, a connection to accept, end of file or hang-up, a pending
 * error) or for cancellation. On cancellation *piToClose is 1 and *piCount
 * 0; on a time-out both are 0; otherwise *piToClose is 0, *piCount the number
 * of ready descriptors, and SetIsSet tells which. Returns 0x90001, logging
 * "select=-1,errno=N", where select(2) would fail: errno EINVAL for a
 * negative timeout, EBADF when a descriptor of the set is not open (one that
 * was closed without SetClr), EINTR when a signal handler ran. */
OSTREL_API uint32_t Ostrel_ThreadGroup_Select(OstrelThreadNodeHandle hNode, int32_t iTimeout, int *piToClose,
                                              int *piCount);

/** Waits up to iTimeout milliseconds for cancellation alone; *piToClose
 * tells whether it came. Fails as Select does (a negative timeout, a
 * signal). */
OSTREL_API uint32_t Ostrel_ThreadGroup_Sleep(OstrelThreadNodeHandle hNode, int32_t iTimeout, int *piToClose);

/** Logs one line per thread of the group, newest first. */
OSTREL_API uint32_t Ostrel_ThreadGroup_OutputStatus(OstrelThreadGroupHandle hGroup);

/** Self-test: runs a TCP echo server on port 27778 and a client opening a
 * connection every 200 ms, all on thread groups, for uiSeconds seconds, then
 * cancels everything in cascade. Writes "count=N" lines and "terminate" to
 * standard output. Returns 0, or the code of a failing group operation. */
OSTREL_API uint32_t Ostrel_ThreadGroup_RandomTest(uint32_t uiSeconds);

OSTREL_EXTERN_C_END

#endif /* OSTREL_THREADGROUP_H */
