// Thread groups: detached threads started in groups and cancelled together.
//
// Each thread owns a node with a Unix-domain socket pair. The thread waits
// only through Select and Sleep, which always watch end 1 of the pair;
// CancelAll writes one byte into end 0 of every node. Nobody reads that byte,
// so a cancelled thread keeps seeing "to close" in every later wait. The
// thread's wrapper unlinks and frees the node when the thread function
// returns, and wakes a waiting Destroy when it leaves the group empty.
//
// Select and Sleep wait through poll(2), so any descriptor number the process
// can open can be watched, with the results select(2) gives for a read set:
// the same ready count, ready descriptors and failures, and the same traces.
//
// Every thread also has its group's wake-up descriptor of the moment it
// started (an eventfd, shared by the group's threads of one cancel
// generation), and its waits watch that in place of end 1 of the control
// pair. CancelAll makes it readable with one write before it sends the bytes,
// so all waiting threads wake at once, as a condition variable's broadcast
// wakes its waiters, and the bytes that follow wake nobody. The write is
// never read either, so the wake-up is as sticky as the byte; threads started
// after a CancelAll get the next generation's descriptor. It stands for end 1
// only while end 1 is in the node's set, the only case in which the byte
// would be seen; a thread without one (no eventfd to be had) watches end 1.
#define OSL_SRC_PATH "src/tdctl"
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <type_traits>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "osl_frame.h"
#include "ostrel_threadgroup.h"

namespace {

// Descriptor-list entries a node holds in place; more move to the heap.
constexpr int kInlineSocks = 64;

// What a wait asks poll for, and the results select(2) counts as "readable":
// data or a connection to accept, end of file or hang-up, a pending error.
constexpr short kReadEvents = POLLIN | POLLRDNORM | POLLRDBAND;
constexpr short kReadReady = kReadEvents | POLLHUP | POLLERR;

// The texts the waits are traced under, those of their select(2) form.
#define TG_SELECT_TEXT "select(node->sock_max+1,&sock_sets,0,0,&timeout)"
#define TG_SLEEP_TEXT "select(node->control_unit[1]+1,&sock_sets,0,0,&timeout)"

// A cancel generation's wake-up descriptor, held by the group while it is the
// one new threads get, by every node that got it, and by a CancelAll while
// it writes; the last holder closes it.
struct TGWake {
    int fd;
    int refs; // under the group's lock
};

struct TGNode {
    TGNode *next;
    TGNode *prev;
    int control_unit[2]; // [0] written by CancelAll, [1] watched by the thread
    // The descriptor set: end 1 of control_unit and every descriptor added
    // and not cleared since, each once, as poll takes them. It never holds
    // more than sock_capacity + 1 entries: apart from end 1, each member is
    // also in the descriptor list. The slot just before it is the wake-up
    // descriptor's, so that one poll takes both.
    pollfd *sock_sets;
    int sock_set_count;
    pthread_t tid;
    int *sock_list;  // the added descriptors in the order of addition
    int *sock_ready; // parallel to sock_list, set by Select
    int sock_capacity;
    int sock_count; // written by the owning thread, read by OutputStatus
    // ENOMEM once SetAdd could not make room for a descriptor: the set misses
    // it, so every later Select of the node fails with this errno.
    int set_errno;
    TGWake *wake; // the generation the thread started in, or null
    void *spill; // heap block holding the three arrays once they outgrow the node
    pollfd sets_inline[kInlineSocks + 2];
    int list_inline[kInlineSocks];
    int ready_inline[kInlineSocks];
};

struct TGGroup {
    pthread_mutex_t lock; // guards every field and is the mutex of `emptied`
    TGNode *first;
    pthread_cond_t emptied; // signalled when the list empties or sending ends
    // CancelAll calls sending outside the lock. While one is, a leaving
    // thread's node keeps end 0 of its pair open on `kept` (through next),
    // since the byte may still be on its way there; the last of them closes
    // and frees those nodes.
    int senders;
    TGNode *kept;
    TGWake *wake; // the generation new threads join, or null (no eventfd to be had)
};

struct TGThreadParam {
    TGGroup *group;
    TGNode *node;
    void *param;
    OstrelThreadFunc func;
};

// The byte CancelAll sends; only its first character goes out.
const char kStopText[] = "stop";

// Destroy looks at the group at least this often, woken or not.
constexpr long kDestroyLookNs = 50L * 1000 * 1000;

int node_sock_count(TGNode *node) { return __atomic_load_n(&node->sock_count, __ATOMIC_RELAXED); }
void set_node_sock_count(TGNode *node, int n) { __atomic_store_n(&node->sock_count, n, __ATOMIC_RELAXED); }

// A thread id as the log lines show it: its low 32 bits (pthread_t is an
// integer in some C libraries and a pointer in others).
template <class T> unsigned tid_bits(T tid) {
    if constexpr (std::is_pointer_v<T>)
        return static_cast<unsigned>(reinterpret_cast<uintptr_t>(tid));
    else
        return static_cast<unsigned>(tid);
}

// Makes the node's control socket pair and starts its descriptor set with
// end 1, in the arrays the node holds in place.
uint32_t _control_unit_init(TGNode *node) {
    int rc;
    OSL_TRACED_CALL(rc, socketpair(AF_UNIX,SOCK_STREAM,0,node->control_unit));
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_TRACE, "socketpair failed! errno=%d", errno);
        OSL_LOG_ERRNO(OSL_ERR_UNKNOWN);
        return OSL_ERR_UNKNOWN;
    }
    node->sock_sets = node->sets_inline + 1;
    node->sock_list = node->list_inline;
    node->sock_ready = node->ready_inline;
    node->sock_capacity = kInlineSocks;
    node->sock_sets[0] = {node->control_unit[1], kReadEvents, 0};
    node->sock_set_count = 1;
    return 0;
}

void close_control_unit(TGNode *node) {
    close(node->control_unit[0]);
    close(node->control_unit[1]);
}

void free_node(TGNode *node) {
    free(node->spill);
    free(node);
}

// Doubles the room of the node's list, ready flags and set. The slots past
// the list's end stay 0, as SetClr expects. False when memory runs out.
bool grow_node(TGNode *node) {
    int capacity = node->sock_capacity * 2;
    size_t sets_bytes = sizeof(pollfd) * static_cast<size_t>(capacity + 2);
    size_t ints_bytes = sizeof(int) * static_cast<size_t>(capacity);
    auto *block = static_cast<unsigned char *>(calloc(1, sets_bytes + 2 * ints_bytes));
    if (block == nullptr) return false;
    auto *sets = reinterpret_cast<pollfd *>(block) + 1;
    auto *list = reinterpret_cast<int *>(block + sets_bytes);
    auto *ready = reinterpret_cast<int *>(block + sets_bytes + ints_bytes);
    memcpy(sets - 1, node->sock_sets - 1, sizeof(pollfd) * static_cast<size_t>(node->sock_set_count + 1));
    memcpy(list, node->sock_list, sizeof(int) * static_cast<size_t>(node->sock_capacity));
    memcpy(ready, node->sock_ready, sizeof(int) * static_cast<size_t>(node->sock_capacity));
    free(node->spill);
    node->spill = block;
    node->sock_sets = sets;
    node->sock_list = list;
    node->sock_ready = ready;
    node->sock_capacity = capacity;
    return true;
}

// The index of a descriptor in the node's set, or -1.
int set_index(const TGNode *node, int iSock);

// A full list drops the entries that no call can see any more before it
// grows: a repeated value behind its first entry (SetIsSet answers from the
// first), and a first entry that is in no set and has no ready flag (SetIsSet
// answers 0 for it either way). Every SetIsSet answer stays the same, and a
// thread that adds and clears descriptors for ever keeps a bounded list.
void compact_node(TGNode *node) {
    int count = node->sock_count, kept = 0;
    // First pass: a dropped entry is marked as -1 - value (descriptors in the
    // list are never negative), so later entries still compare with it.
    auto value = [node](int i) { return node->sock_list[i] < 0 ? -1 - node->sock_list[i] : node->sock_list[i]; };
    for (int i = 0; i < count; ++i) {
        int v = node->sock_list[i];
        bool first = true;
        for (int j = 0; j < i && first; ++j) first = value(j) != v;
        if (!first || (set_index(node, v) < 0 && node->sock_ready[i] == 0)) node->sock_list[i] = -1 - v;
    }
    for (int i = 0; i < count; ++i) {
        if (node->sock_list[i] < 0) continue;
        node->sock_list[kept] = node->sock_list[i];
        node->sock_ready[kept++] = node->sock_ready[i];
    }
    for (int i = kept; i < count; ++i) node->sock_list[i] = node->sock_ready[i] = 0;
    set_node_sock_count(node, kept);
}

int set_index(const TGNode *node, int iSock) {
    for (int i = 0; i < node->sock_set_count; ++i)
        if (node->sock_sets[i].fd == iSock) return i;
    return -1;
}

// Whether the last wait found a member of the set readable.
bool set_ready(const TGNode *node, int iSock) {
    int i = set_index(node, iSock);
    return i >= 0 && (node->sock_sets[i].revents & kReadReady) != 0;
}

// Waits as select(2) does with these descriptors as its read set and a
// timeout of iTimeout milliseconds: returns the number of readable ones, 0
// on time-out, or -1 with errno: EINVAL for a negative timeout (select
// refuses a negative time), EBADF when a descriptor is not open (poll marks
// it POLLNVAL and select fails on it), or the errno of poll itself.
int wait_readable(pollfd *fds, int n, int32_t iTimeout) {
    if (iTimeout < 0) {
        errno = EINVAL;
        return -1;
    }
    int rc = poll(fds, static_cast<nfds_t>(n), iTimeout);
    if (rc <= 0) return rc;
    int ready = 0;
    for (int i = 0; i < n; ++i) {
        if (fds[i].revents & POLLNVAL) {
            errno = EBADF;
            return -1;
        }
        if (fds[i].revents & kReadReady) ++ready;
    }
    return ready;
}

// A wait with a wake-up descriptor watches it in place of end 1 of the
// control pair: CancelAll makes it readable before any byte goes out, so end
// 1 holds no byte the wake-up has not announced, and the bytes wake nobody.
// Without one (or with end 1 cleared from the set) the set is as it is.
// Fills the wake-up slot in front of a set whose end 1 is *control (null:
// not in the set) and takes end 1 out of the wait (poll passes over a
// negative descriptor); returns whether it did.
bool watch_wake(const TGNode *node, pollfd *wake, pollfd *control) {
    const bool used = node->wake != nullptr && control != nullptr;
    *wake = {used ? node->wake->fd : -1, POLLIN, 0};
    if (used) control->fd = -1 - control->fd;
    return used;
}

// After the wait: end 1 back in the set, readable when the wake-up is. The
// count is select's, the wake-up having stood for end 1.
int unwatch_wake(const pollfd *wake, pollfd *control, bool used, int rc) {
    if (!used) return rc;
    control->fd = -1 - control->fd;
    control->revents = rc > 0 && (wake->revents & kReadReady) != 0 ? POLLIN : 0;
    return rc;
}

// Select's wait: the node's whole set, unless SetAdd had to leave a
// descriptor out of it, with the wake-up slot in front of it.
int wait_node(TGNode *node, int32_t iTimeout) {
    if (node->set_errno != 0) {
        errno = node->set_errno;
        return -1;
    }
    const int at = set_index(node, node->control_unit[1]);
    pollfd *control = at >= 0 ? &node->sock_sets[at] : nullptr;
    pollfd *wake = node->sock_sets - 1;
    const bool used = watch_wake(node, wake, control);
    const int rc = wait_readable(wake, node->sock_set_count + 1, iTimeout);
    return unwatch_wake(wake, control, used, rc);
}

// Runs a wait, traced under the text of its select(2) form; errno is what
// the wait left.
#define TG_TRACED_WAIT(rc, text, call)            \
    do {                                          \
        OSL_TRACE_CALL(text);                     \
        (rc) = (call);                            \
        int tg_wait_errno_ = errno;               \
        OSL_TRACE_CALL_RESULT(text, (rc));        \
        errno = tg_wait_errno_;                   \
    } while (0)

// Unlinks a node from its group; the caller holds the group's lock.
void unlink_node(TGGroup *group, TGNode *node) {
    if (node->prev != nullptr) node->prev->next = node->next;
    if (node->next != nullptr) node->next->prev = node->prev;
    if (group->first == node) group->first = node->next;
    node->next = nullptr;
    node->prev = nullptr;
}

// A new generation's wake-up descriptor, or null when none can be made (the
// threads are then woken by their bytes alone).
TGWake *new_wake() {
    auto *wake = static_cast<TGWake *>(malloc(sizeof(TGWake)));
    if (wake == nullptr) return nullptr;
    wake->fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    wake->refs = 1;
    if (wake->fd >= 0) return wake;
    free(wake);
    return nullptr;
}

// Drops one hold (under the group's lock); returns the wake-up to close
// after the unlock when that was the last, else null.
TGWake *drop_wake(TGWake *wake) { return wake != nullptr && --wake->refs == 0 ? wake : nullptr; }

void free_wake(TGWake *wake) {
    if (wake == nullptr) return;
    close(wake->fd);
    free(wake);
}

void *_thread_function_wrapper(void *pArg) {
    auto *start = static_cast<TGThreadParam *>(pArg);
    TGGroup *group = start->group;
    TGNode *node = start->node;
    void *param = start->param;
    OstrelThreadFunc func = start->func;
    free(start);

    // Under the lock: CancelAll and OutputStatus read the id while walking.
    pthread_mutex_lock(&group->lock);
    node->tid = pthread_self();
    pthread_mutex_unlock(&group->lock);
    OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:New");

    (void)func(param, node);

    pthread_mutex_lock(&group->lock);
    unlink_node(group, node);
    TGWake *wake = drop_wake(node->wake);
    const int own_end = node->control_unit[1];
    const bool kept = group->senders > 0;
    if (kept) {
        node->next = group->kept;
        group->kept = node;
    }
    // Signalled under the lock: a Destroy that sees the list empty cannot
    // free the group while this thread still uses the condition.
    if (group->first == nullptr) pthread_cond_broadcast(&group->emptied);
    pthread_mutex_unlock(&group->lock);

    if (kept) {
        close(own_end); // the node now belongs to the sending CancelAll
    } else {
        close_control_unit(node);
        free_node(node);
    }
    free_wake(wake);
    OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:Exit");
    return nullptr;
}

// Starts one detached thread running func(param).
uint32_t _create_thread(void *(*func)(void *), void *param) {
    pthread_t tid;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int rc;
    OSL_TRACED_CALL(rc, pthread_create(&tid,&attr,func,param));
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        OSL_LOG_ERRNO(OSL_ERR_UNKNOWN);
        return OSL_ERR_UNKNOWN;
    }
    return 0;
}

// Sends the cancelling byte. Never blocks: a full control socket already
// holds unread bytes, so its thread is signalled whether or not this byte
// fits. A thread that has left already closed the other end: the send fails
// quietly.
void send_stop(int iEnd) { (void)send(iEnd, kStopText, 1, MSG_DONTWAIT | MSG_NOSIGNAL); }

// Makes a generation's wake-up descriptor readable for good.
void wake_all(const TGWake *wake) {
    if (wake == nullptr) return;
    const uint64_t one = 1;
    (void)!write(wake->fd, &one, sizeof one);
}

// Makes the condition a waiting Destroy sleeps on, timed by the monotonic
// clock so that a change of the wall clock cannot stretch a wait.
bool init_emptied(pthread_cond_t *cond) {
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) return false;
    bool ok = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0 && pthread_cond_init(cond, &attr) == 0;
    pthread_condattr_destroy(&attr);
    return ok;
}

} // namespace

extern "C" {

OSTREL_API uint32_t Ostrel_ThreadGroup_Create(OstrelThreadGroupHandle *phGroup) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != phGroup);
    auto *group = static_cast<TGGroup *>(calloc(1, sizeof(TGGroup)));
    if (group == nullptr) OSL_ALLOC_FAILED(sizeof(TGGroup));
    if (pthread_mutex_init(&group->lock, nullptr) != 0) {
        free(group);
        OSL_LOG_CALL_FAILED("pthread_mutex_init(&group->lock,NULL)", OSL_ERR_UNKNOWN);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (!init_emptied(&group->emptied)) {
        pthread_mutex_destroy(&group->lock);
        free(group);
        OSL_LOG_CALL_FAILED("pthread_cond_init(&group->emptied,&attr)", OSL_ERR_UNKNOWN);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    group->first = nullptr;
    group->wake = new_wake();
    *phGroup = group;
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t Ostrel_ThreadGroup_NewThread(OstrelThreadGroupHandle hGroup, OstrelThreadFunc pfnThread,
                                                 void *pParam) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hGroup);
    OSL_ASSERT_ARG(NULL != pfnThread);
    auto *group = static_cast<TGGroup *>(hGroup);
    auto *node = static_cast<TGNode *>(calloc(1, sizeof(TGNode)));
    if (node == nullptr) OSL_ALLOC_FAILED(sizeof(TGNode));
    auto *thread_param = static_cast<TGThreadParam *>(calloc(1, sizeof(TGThreadParam)));
    if (thread_param == nullptr) {
        free(node);
        OSL_ALLOC_FAILED(sizeof(TGThreadParam));
    }
    thread_param->group = group;
    thread_param->node = node;
    thread_param->param = pParam;
    thread_param->func = pfnThread;

    uint32_t rc;
    OSL_TRACED_CALL(rc, _control_unit_init(node));
    if (rc != 0) {
        OSL_LOG_CALL_FAILED("_control_unit_init(node)", rc);
        free(thread_param);
        free(node);
        OSL_TRACED_RETURN(rc);
    }

    pthread_mutex_lock(&group->lock);
    node->next = group->first;
    if (node->next != nullptr) node->next->prev = node;
    group->first = node;
    node->wake = group->wake;
    if (node->wake != nullptr) ++node->wake->refs;

    OSL_TRACED_CALL(rc, _create_thread(_thread_function_wrapper,thread_param));
    if (rc != 0) {
        unlink_node(group, node);
        (void)drop_wake(node->wake); // the group still holds it
        close_control_unit(node);
        free_node(node);
        // The thread never ran, so the start record is still ours to free.
        free(thread_param);
        pthread_mutex_unlock(&group->lock);
        OSL_LOG_ERRNO(OSL_ERR_UNKNOWN);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    pthread_mutex_unlock(&group->lock);
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t Ostrel_ThreadGroup_CancelAll(OstrelThreadGroupHandle hGroup) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hGroup);
    auto *group = static_cast<TGGroup *>(hGroup);
    // The walk notes end 0 of every node under the lock; the bytes go out
    // after it is released. Threads woken by the first bytes can then leave
    // the group at once instead of queueing on the lock one behind the other
    // until the last byte has gone. Without memory for the note, the bytes go
    // out during the walk.
    pthread_mutex_lock(&group->lock);
    size_t n = 0;
    for (TGNode *node = group->first; node != nullptr; node = node->next) ++n;
    int *ends = n > 0 ? static_cast<int *>(malloc(n * sizeof(int))) : nullptr;
    // This generation's threads are woken through its wake-up descriptor,
    // always before their bytes go out; threads started from now on join a
    // new one. The group's hold passes to this call, which drops it once it
    // has written.
    TGWake *wake = n > 0 ? group->wake : nullptr;
    if (wake != nullptr) group->wake = new_wake();
    if (ends == nullptr) wake_all(wake);
    size_t noted = 0;
    const TGWake *older = nullptr;
    for (TGNode *node = group->first; node != nullptr; node = node->next) {
        // A thread of an older generation was reached by an earlier CancelAll,
        // which may still be on its way to writing; written again now, so that
        // no byte of this call goes out unannounced. (Threads join the list at
        // its front, so each older generation is met as one run of nodes.)
        if (node->wake != nullptr && node->wake != wake && node->wake != older) wake_all(older = node->wake);
        if (ends != nullptr)
            ends[noted++] = node->control_unit[0];
        else
            send_stop(node->control_unit[0]);
        OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:Cancel(%X)", tid_bits(node->tid));
    }
    if (ends == nullptr && wake == nullptr) {
        pthread_mutex_unlock(&group->lock);
        OSL_TRACED_RETURN(0);
    }
    ++group->senders;
    pthread_mutex_unlock(&group->lock);

    if (ends != nullptr) wake_all(wake);
    for (size_t i = 0; i < noted; ++i) send_stop(ends[i]);
    free(ends);

    pthread_mutex_lock(&group->lock);
    wake = drop_wake(wake);
    TGNode *kept = nullptr;
    if (--group->senders == 0) {
        kept = group->kept;
        group->kept = nullptr;
        if (group->first == nullptr) pthread_cond_broadcast(&group->emptied);
    }
    pthread_mutex_unlock(&group->lock);
    free_wake(wake);
    while (kept != nullptr) {
        TGNode *next = kept->next;
        close(kept->control_unit[0]);
        free_node(kept);
        kept = next;
    }
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t Ostrel_ThreadGroup_Destroy(OstrelThreadGroupHandle hGroup) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hGroup);
    auto *group = static_cast<TGGroup *>(hGroup);
    // The thread that empties the list, or the CancelAll that ends the
    // sending, wakes this wait; each wait also ends after 50 ms to look
    // again. The lock is held only while looking, so a leaving thread never
    // waits on it for long. Leaving the loop with the lock held also orders
    // the last thread's unlock before the mutex and the condition are
    // destroyed.
    pthread_mutex_lock(&group->lock);
    while (group->first != nullptr || group->senders > 0) {
        timespec until;
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_nsec += kDestroyLookNs;
        if (until.tv_nsec >= 1000L * 1000 * 1000) {
            until.tv_nsec -= 1000L * 1000 * 1000;
            ++until.tv_sec;
        }
        (void)pthread_cond_timedwait(&group->emptied, &group->lock, &until);
    }
    pthread_mutex_unlock(&group->lock);
    pthread_cond_destroy(&group->emptied);
    pthread_mutex_destroy(&group->lock);
    free_wake(group->wake);
    free(group);
    OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:Destroy");
    OSL_TRACED_RETURN(0);
}

// A negative descriptor is refused like a null node: nothing changes. Any
// other number is taken, however high; past the room the node holds in
// place the list moves to the heap.
OSTREL_API void Ostrel_ThreadGroup_SetAdd(OstrelThreadNodeHandle hNode, int iSock) {
    auto *node = static_cast<TGNode *>(hNode);
    if (node == nullptr || iSock < 0) return;
    int count = node->sock_count;
    if (count <= 0) {
        node->sock_list[0] = iSock;
        set_node_sock_count(node, 1);
    } else {
        int i = 0;
        while (i < count && node->sock_list[i] != iSock) ++i;
        if (i == count) {
            if (count == node->sock_capacity) {
                compact_node(node);
                count = node->sock_count;
            }
            if (count == node->sock_capacity && !grow_node(node)) {
                node->set_errno = ENOMEM;
                return;
            }
            node->sock_list[count] = iSock;
            set_node_sock_count(node, count + 1);
        }
    }
    if (set_index(node, iSock) < 0) node->sock_sets[node->sock_set_count++] = {iSock, kReadEvents, 0};
}

OSTREL_API void Ostrel_ThreadGroup_SetClr(OstrelThreadNodeHandle hNode, int iSock) {
    auto *node = static_cast<TGNode *>(hNode);
    if (node == nullptr || iSock < 0) return;
    int count = node->sock_count;
    for (int i = 0; i < count; ++i) {
        if (node->sock_list[i] != iSock) continue;
        // Entries i+1 .. count (the first unused slot included) move one place
        // to the front; the count stays as it is.
        for (int j = i; j < count; ++j)
            node->sock_list[j] = (j + 1 < node->sock_capacity) ? node->sock_list[j + 1] : 0;
        break;
    }
    int at = set_index(node, iSock);
    if (at >= 0) node->sock_sets[at] = node->sock_sets[--node->sock_set_count];
}

OSTREL_API int Ostrel_ThreadGroup_SetIsSet(OstrelThreadNodeHandle hNode, int iSock) {
    auto *node = static_cast<TGNode *>(hNode);
    if (node == nullptr) return 0;
    for (int i = 0; i < node->sock_count; ++i)
        if (node->sock_list[i] == iSock) return node->sock_ready[i];
    return 0;
}

OSTREL_API uint32_t Ostrel_ThreadGroup_Select(OstrelThreadNodeHandle hNode, int32_t iTimeout, int *piToClose,
                                              int *piCount) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hNode);
    OSL_ASSERT_ARG(NULL != piToClose);
    OSL_ASSERT_ARG(NULL != piCount);
    auto *node = static_cast<TGNode *>(hNode);
    int rc;
    TG_TRACED_WAIT(rc, TG_SELECT_TEXT, wait_node(node, iTimeout));
    if (rc < 0) {
        OSL_LOG(LOG_LEVEL_TRACE, "select=%d,errno=%d", rc, errno);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (rc == 0) {
        OSL_LOG(LOG_LEVEL_TRACE, "select=0");
        *piToClose = 0;
        *piCount = 0;
        OSL_TRACED_RETURN(0);
    }
    if (set_ready(node, node->control_unit[1])) {
        OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:GotClose");
        *piToClose = 1;
        *piCount = 0;
        OSL_TRACED_RETURN(0);
    }
    for (int i = 0; i < node->sock_count; ++i) node->sock_ready[i] = set_ready(node, node->sock_list[i]) ? 1 : 0;
    *piToClose = 0;
    *piCount = rc;
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t Ostrel_ThreadGroup_Sleep(OstrelThreadNodeHandle hNode, int32_t iTimeout, int *piToClose) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hNode);
    OSL_ASSERT_ARG(NULL != piToClose);
    auto *node = static_cast<TGNode *>(hNode);
    // The wake-up, when the thread has one, stands for end 1 (see wait_node).
    pollfd wait = {node->wake != nullptr ? node->wake->fd : node->control_unit[1], kReadEvents, 0};
    int rc;
    TG_TRACED_WAIT(rc, TG_SLEEP_TEXT, wait_readable(&wait, 1, iTimeout));
    if (rc < 0) {
        OSL_LOG(LOG_LEVEL_TRACE, "select=%d,errno=%d", rc, errno);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (rc > 0) {
        OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:GotClose");
        *piToClose = 1;
    } else {
        OSL_LOG(LOG_LEVEL_TRACE, "select=0");
        *piToClose = 0;
    }
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t Ostrel_ThreadGroup_OutputStatus(OstrelThreadGroupHandle hGroup) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hGroup);
    auto *group = static_cast<TGGroup *>(hGroup);
    pthread_mutex_lock(&group->lock);
    for (TGNode *node = group->first; node != nullptr; node = node->next)
        OSL_LOG(LOG_LEVEL_TRACE, "[TID:%x]socket(%d)", tid_bits(node->tid), node_sock_count(node));
    pthread_mutex_unlock(&group->lock);
    OSL_TRACED_RETURN(0);
}

} // extern "C"

// Self-test: an echo server and a client on thread groups, over TCP on the
// loopback interface, cancelled in cascade.
namespace {

constexpr uint16_t kTestPort = 27778;

// Runs a group operation of the self-test, traced; a failure is logged.
#define TG_TEST_STEP(rc, call)                                  \
    do {                                                        \
        OSL_TRACED_CALL(rc, call);                              \
        if ((rc) != 0) OSL_LOG_CALL_FAILED(#call, (rc));        \
    } while (0)

// Receives exactly len bytes; returns len, or -1 when the peer fails or
// closes first.
int _socket_recv(int sock, unsigned char *pucBuf, int len, int flags) {
    int got = 0;
    while (got < len) {
        ssize_t n = recv(sock, pucBuf + got, static_cast<size_t>(len - got), flags);
        if (n < 0) {
            int err = errno;
            OSL_LOG(LOG_LEVEL_WARN, "recv==%d", static_cast<int>(n));
            OSL_LOG(LOG_LEVEL_WARN, "Last error=%d", err);
            return -1;
        }
        if (n == 0) {
            OSL_LOG(LOG_LEVEL_WARN, "recv==0, peer orderly shutdown.");
            return -1;
        }
        got += static_cast<int>(n);
    }
    return got;
}

// Sends exactly len bytes; returns len, or -1. A send that moves nothing is
// retried after 10 ms, up to 100 times. A closed peer makes the send fail
// (no SIGPIPE for the hosting process).
int _socket_send(int sock, const unsigned char *pucBuf, int len, int flags) {
    int sent = 0;
    int zeros = 0;
    while (sent < len) {
        ssize_t n = send(sock, pucBuf + sent, static_cast<size_t>(len - sent), flags | MSG_NOSIGNAL);
        if (n < 0) {
            int err = errno;
            OSL_LOG(LOG_LEVEL_WARN, "send==%d", static_cast<int>(n));
            OSL_LOG(LOG_LEVEL_WARN, "Last error=%d", err);
            return -1;
        }
        if (n == 0) {
            OSL_LOG(LOG_LEVEL_WARN, "send==0(%d)", zeros);
            if (++zeros >= 100) {
                OSL_LOG(LOG_LEVEL_WARN, "send==0, too many times.");
                return -1;
            }
            timespec pause = {0, 10L * 1000 * 1000};
            nanosleep(&pause, nullptr);
            continue;
        }
        sent += static_cast<int>(n);
    }
    return sent;
}

sockaddr_in test_address(const char *szIp) {
    sockaddr_in addr_in;
    memset(&addr_in, 0, sizeof addr_in);
    addr_in.sin_family = AF_INET;
    addr_in.sin_port = htons(kTestPort);
    addr_in.sin_addr.s_addr = inet_addr(szIp);
    return addr_in;
}

// The datum grows by one on each side; unsigned arithmetic keeps a very long
// run from overflowing.
void bump(int *data) { *data = static_cast<int>(static_cast<unsigned>(*data) + 1u); }

// Ends a main's own group on its way out: its threads are cancelled and
// waited for, so a failing main leaves nothing running behind it.
void end_group(OstrelThreadGroupHandle group) {
    Ostrel_ThreadGroup_CancelAll(group);
    Ostrel_ThreadGroup_Destroy(group);
}

uint32_t _test_server_thread(void *param, OstrelThreadNodeHandle control_set) {
    OSL_TRACE_ENTER();
    int sock = static_cast<int>(reinterpret_cast<intptr_t>(param));
    Ostrel_ThreadGroup_SetAdd(control_set, sock);
    int data = 0;
    for (;;) {
        int to_close = 0, count = 0;
        uint32_t ret;
        TG_TEST_STEP(ret, Ostrel_ThreadGroup_Select(control_set,10000,&to_close,&count));
        if (ret != 0) {
            close(sock);
            OSL_TRACED_RETURN(ret);
        }
        if (to_close) {
            OSL_LOG(LOG_LEVEL_INFO, "data_s=%d", data);
            close(sock);
            OSL_TRACED_RETURN(0);
        }
        if (count < 1 || !Ostrel_ThreadGroup_SetIsSet(control_set, sock)) continue;
        int rc;
        OSL_TRACED_CALL(rc, _socket_recv(sock,(unsigned char *)&data,4,0));
        if (rc < 0) {
            close(sock);
            OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
        }
        bump(&data);
        OSL_TRACED_CALL(rc, _socket_send(sock,(unsigned char *)&data,4,0));
        if (rc != 4) {
            close(sock);
            OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
        }
    }
}

uint32_t _test_server_main(void *param, OstrelThreadNodeHandle control_set) {
    OSL_TRACE_ENTER();
    (void)param;
    int sock;
    OSL_TRACED_CALL(sock, socket(PF_INET,SOCK_STREAM,0));
    if (sock < 0) OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    int reuseaddr = 1;
    int rc;
    OSL_TRACED_CALL(rc, setsockopt(sock,SOL_SOCKET,SO_REUSEADDR,(char *)&reuseaddr,sizeof(reuseaddr)));
    if (rc != 0) {
        close(sock);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    sockaddr_in addr_in = test_address("0.0.0.0");
    OSL_TRACED_CALL(rc, bind(sock,(struct sockaddr *)&addr_in,sizeof(addr_in)));
    if (rc != 0) {
        close(sock);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    OSL_TRACED_CALL(rc, listen(sock,512));
    if (rc != 0) {
        close(sock);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    Ostrel_ThreadGroup_SetAdd(control_set, sock);
    OstrelThreadGroupHandle group = nullptr;
    uint32_t ret;
    TG_TEST_STEP(ret, Ostrel_ThreadGroup_Create(&group));
    if (ret != 0) {
        close(sock);
        OSL_TRACED_RETURN(ret);
    }
    for (;;) {
        int to_close = 0, count = 0;
        TG_TEST_STEP(ret, Ostrel_ThreadGroup_Select(control_set,10000,&to_close,&count));
        if (ret != 0) break;
        if (to_close) {
            TG_TEST_STEP(ret, Ostrel_ThreadGroup_CancelAll(group));
            if (ret != 0) break;
            TG_TEST_STEP(ret, Ostrel_ThreadGroup_Destroy(group));
            if (ret != 0) break;
            close(sock);
            OSL_TRACED_RETURN(0);
        }
        if (count < 1 || !Ostrel_ThreadGroup_SetIsSet(control_set, sock)) continue;
        socklen_t len = sizeof(addr_in);
        intptr_t sock_new;
        OSL_TRACED_CALL(sock_new, accept(sock,(struct sockaddr *)&addr_in,&len));
        if (sock_new < 0) {
            OSL_LOG(LOG_LEVEL_ERROR, "accept=%d", errno);
            ret = OSL_ERR_UNKNOWN;
            break;
        }
        // The call is traced by its source text, so it keeps its C form.
        // cppcheck-suppress cstyleCast
        TG_TEST_STEP(ret, Ostrel_ThreadGroup_NewThread(group,_test_server_thread,(void *)sock_new));
        if (ret != 0) {
            close(static_cast<int>(sock_new));
            break;
        }
    }
    end_group(group);
    close(sock);
    OSL_TRACED_RETURN(ret);
}

uint32_t _test_client_thread(void *param, OstrelThreadNodeHandle control_set) {
    OSL_TRACE_ENTER();
    int sock = static_cast<int>(reinterpret_cast<intptr_t>(param));
    Ostrel_ThreadGroup_SetAdd(control_set, sock);
    int data = 0;
    int rc;
    OSL_TRACED_CALL(rc, _socket_send(sock,(unsigned char *)&data,4,0));
    if (rc != 4) {
        close(sock);
        OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
    }
    for (;;) {
        int to_close = 0, count = 0;
        uint32_t ret;
        TG_TEST_STEP(ret, Ostrel_ThreadGroup_Select(control_set,10000,&to_close,&count));
        if (ret != 0) {
            close(sock);
            OSL_TRACED_RETURN(ret);
        }
        if (to_close) {
            OSL_LOG(LOG_LEVEL_INFO, "data_c=%d", data);
            close(sock);
            OSL_TRACED_RETURN(0);
        }
        if (count < 1 || !Ostrel_ThreadGroup_SetIsSet(control_set, sock)) continue;
        OSL_TRACED_CALL(rc, _socket_recv(sock,(unsigned char *)&data,4,0));
        if (rc < 0) {
            close(sock);
            OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
        }
        bump(&data);
        timespec pause = {0, 5L * 1000 * 1000};
        nanosleep(&pause, nullptr);
        OSL_TRACED_CALL(rc, _socket_send(sock,(unsigned char *)&data,4,0));
        if (rc != 4) {
            close(sock);
            OSL_TRACED_RETURN(OSL_ERR_INVALID_STATUS);
        }
    }
}

uint32_t _test_client_main(void *param, OstrelThreadNodeHandle control_set) {
    OSL_TRACE_ENTER();
    (void)param;
    OstrelThreadGroupHandle group = nullptr;
    uint32_t ret;
    TG_TEST_STEP(ret, Ostrel_ThreadGroup_Create(&group));
    if (ret != 0) OSL_TRACED_RETURN(ret);
    for (int counter = 0;; ++counter) {
        intptr_t sock;
        OSL_TRACED_CALL(sock, socket(PF_INET,SOCK_STREAM,0));
        if (sock < 0) {
            ret = OSL_ERR_UNKNOWN;
            break;
        }
        sockaddr_in addr_in = test_address("127.0.0.1");
        int rc;
        OSL_TRACED_CALL(rc, connect(sock,(struct sockaddr *)&addr_in,sizeof(addr_in)));
        if (rc != 0) {
            close(static_cast<int>(sock));
            ret = OSL_ERR_UNKNOWN;
            break;
        }
        // cppcheck-suppress cstyleCast
        TG_TEST_STEP(ret, Ostrel_ThreadGroup_NewThread(group,_test_client_thread,(void *)sock));
        if (ret != 0) {
            close(static_cast<int>(sock));
            break;
        }
        (void)printf("count=%d\n", counter);
        (void)fflush(stdout);
        int to_close = 0;
        TG_TEST_STEP(ret, Ostrel_ThreadGroup_Sleep(control_set,200,&to_close));
        if (ret != 0) break;
        if (to_close) {
            TG_TEST_STEP(ret, Ostrel_ThreadGroup_CancelAll(group));
            if (ret != 0) break;
            TG_TEST_STEP(ret, Ostrel_ThreadGroup_Destroy(group));
            if (ret != 0) break;
            OSL_TRACED_RETURN(0);
        }
        TG_TEST_STEP(ret, Ostrel_ThreadGroup_OutputStatus(group));
        if (ret != 0) break;
    }
    end_group(group);
    OSL_TRACED_RETURN(ret);
}

} // namespace

extern "C" OSTREL_API uint32_t Ostrel_ThreadGroup_RandomTest(uint32_t uiSeconds) {
    OSL_TRACE_ENTER();
    OSL_LOG(LOG_LEVEL_TRACE, "timeout=%d", static_cast<int>(uiSeconds * 1000u));
    OstrelThreadGroupHandle group_main = nullptr;
    uint32_t rc;
    TG_TEST_STEP(rc, Ostrel_ThreadGroup_Create(&group_main));
    if (rc != 0) OSL_TRACED_RETURN(rc);
    TG_TEST_STEP(rc, Ostrel_ThreadGroup_NewThread(group_main,_test_server_main,0));
    if (rc == 0) TG_TEST_STEP(rc, Ostrel_ThreadGroup_NewThread(group_main,_test_client_main,0));
    if (rc != 0) {
        end_group(group_main);
        OSL_TRACED_RETURN(rc);
    }

    timespec left = {static_cast<time_t>(uiSeconds), 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    (void)printf("terminate\n");
    (void)fflush(stdout);

    TG_TEST_STEP(rc, Ostrel_ThreadGroup_CancelAll(group_main));
    if (rc != 0) OSL_TRACED_RETURN(rc);
    TG_TEST_STEP(rc, Ostrel_ThreadGroup_Destroy(group_main));
    if (rc != 0) OSL_TRACED_RETURN(rc);
    OSL_TRACED_RETURN(0);
}

// The thread-group subsystem needs no load-time work.
void _Ostrel_ThreadGroup_Init(void) {}
