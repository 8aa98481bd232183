// Thread groups: detached threads started in groups and cancelled together.
//
// Each thread owns a node with a Unix-domain socket pair. The thread waits
// only through Select and Sleep, which always watch end 1 of the pair;
// CancelAll writes one byte into end 0 of every node. Nobody reads that byte,
// so a cancelled thread keeps seeing "to close" in every later wait. The
// thread's wrapper unlinks and frees the node when the thread function
// returns; Destroy polls until the group's list is empty.
#define OSL_SRC_PATH "src/tdctl"
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <type_traits>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "osl_frame.h"
#include "ostrel_threadgroup.h"

namespace {

constexpr int kMaxNodeSocks = 64;

struct TGNode {
    TGNode *next;
    TGNode *prev;
    int control_unit[2]; // [0] written by CancelAll, [1] watched by the thread
    fd_set sock_sets;
    int sock_max;
    pthread_t tid;
    int sock_list[kMaxNodeSocks];
    int sock_ready[kMaxNodeSocks];
    int sock_count; // written by the owning thread, read by OutputStatus
};

struct TGGroup {
    pthread_mutex_t lock;
    TGNode *first; // Destroy polls it without the lock: atomic accesses only
};

struct TGThreadParam {
    TGGroup *group;
    TGNode *node;
    void *param;
    OstrelThreadFunc func;
};

// The byte CancelAll sends; only its first character goes out.
const char kStopText[] = "stop";

TGNode *group_first(TGGroup *group) { return __atomic_load_n(&group->first, __ATOMIC_ACQUIRE); }
void set_group_first(TGGroup *group, TGNode *node) { __atomic_store_n(&group->first, node, __ATOMIC_RELEASE); }

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

bool fits_fd_set(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

// Makes the node's control socket pair and starts its descriptor set with
// end 1. A pair whose end does not fit a select set is refused like a failed
// socketpair (EMFILE), since the thread could never wait on it.
uint32_t _control_unit_init(TGNode *node) {
    int rc;
    OSL_TRACED_CALL(rc, socketpair(AF_UNIX,SOCK_STREAM,0,node->control_unit));
    if (rc == 0 && !fits_fd_set(node->control_unit[1])) {
        close(node->control_unit[0]);
        close(node->control_unit[1]);
        errno = EMFILE;
        rc = -1;
    }
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_TRACE, "socketpair failed! errno=%d", errno);
        OSL_LOG_ERRNO(OSL_ERR_UNKNOWN);
        return OSL_ERR_UNKNOWN;
    }
    FD_ZERO(&node->sock_sets);
    FD_SET(node->control_unit[1], &node->sock_sets);
    node->sock_max = node->control_unit[1];
    return 0;
}

void close_control_unit(TGNode *node) {
    close(node->control_unit[0]);
    close(node->control_unit[1]);
}

// Unlinks a node from its group; the caller holds the group's lock.
void unlink_node(TGGroup *group, TGNode *node) {
    if (node->prev != nullptr) node->prev->next = node->next;
    if (node->next != nullptr) node->next->prev = node->prev;
    if (group_first(group) == node) set_group_first(group, node->next);
    node->next = nullptr;
    node->prev = nullptr;
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
    pthread_mutex_unlock(&group->lock);

    close_control_unit(node);
    free(node);
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

// A timeout in milliseconds as select wants it.
timeval to_timeval(int32_t iTimeout) {
    timeval timeout;
    timeout.tv_sec = iTimeout / 1000;
    timeout.tv_usec = static_cast<suseconds_t>(iTimeout % 1000) * 1000;
    return timeout;
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
    set_group_first(group, nullptr);
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
    node->next = group_first(group);
    if (node->next != nullptr) node->next->prev = node;
    set_group_first(group, node);

    OSL_TRACED_CALL(rc, _create_thread(_thread_function_wrapper,thread_param));
    if (rc != 0) {
        unlink_node(group, node);
        close_control_unit(node);
        free(node);
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
    pthread_mutex_lock(&group->lock);
    for (TGNode *node = group_first(group); node != nullptr; node = node->next) {
        // Never blocks: a full control socket already holds unread bytes, so
        // its thread is signalled whether or not this byte fits.
        (void)send(node->control_unit[0], kStopText, 1, MSG_DONTWAIT | MSG_NOSIGNAL);
        OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:Cancel(%X)", tid_bits(node->tid));
    }
    pthread_mutex_unlock(&group->lock);
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t Ostrel_ThreadGroup_Destroy(OstrelThreadGroupHandle hGroup) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hGroup);
    auto *group = static_cast<TGGroup *>(hGroup);
    while (group_first(group) != nullptr) {
        timespec pause = {0, 50L * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    // The last thread may still be leaving the lock it unlinked under: taking
    // it once more orders its unlock before the mutex is destroyed.
    pthread_mutex_lock(&group->lock);
    pthread_mutex_unlock(&group->lock);
    pthread_mutex_destroy(&group->lock);
    free(group);
    OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:Destroy");
    OSL_TRACED_RETURN(0);
}

OSTREL_API void Ostrel_ThreadGroup_SetAdd(OstrelThreadNodeHandle hNode, int iSock) {
    auto *node = static_cast<TGNode *>(hNode);
    if (node == nullptr || !fits_fd_set(iSock)) return;
    int count = node->sock_count;
    if (count <= 0) {
        node->sock_list[0] = iSock;
        set_node_sock_count(node, 1);
    } else {
        int i = 0;
        while (i < count && node->sock_list[i] != iSock) ++i;
        if (i == count) {
            if (count >= kMaxNodeSocks) return; // the list is full: not watched
            node->sock_list[count] = iSock;
            set_node_sock_count(node, count + 1);
        }
    }
    FD_SET(iSock, &node->sock_sets);
    if (iSock > node->sock_max) node->sock_max = iSock;
}

OSTREL_API void Ostrel_ThreadGroup_SetClr(OstrelThreadNodeHandle hNode, int iSock) {
    auto *node = static_cast<TGNode *>(hNode);
    if (node == nullptr || !fits_fd_set(iSock)) return;
    int count = node->sock_count;
    for (int i = 0; i < count; ++i) {
        if (node->sock_list[i] != iSock) continue;
        // Entries i+1 .. count (the first unused slot included) move one place
        // to the front; the count stays as it is.
        for (int j = i; j < count; ++j)
            node->sock_list[j] = (j + 1 < kMaxNodeSocks) ? node->sock_list[j + 1] : 0;
        break;
    }
    FD_CLR(iSock, &node->sock_sets);
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
    fd_set sock_sets = node->sock_sets;
    timeval timeout = to_timeval(iTimeout);
    int rc;
    OSL_TRACED_CALL(rc, select(node->sock_max+1,&sock_sets,0,0,&timeout));
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
    if (FD_ISSET(node->control_unit[1], &sock_sets)) {
        OSL_LOG(LOG_LEVEL_INFO, "ThreadGroup:GotClose");
        *piToClose = 1;
        *piCount = 0;
        OSL_TRACED_RETURN(0);
    }
    for (int i = 0; i < node->sock_count; ++i)
        node->sock_ready[i] = FD_ISSET(node->sock_list[i], &sock_sets) ? 1 : 0;
    *piToClose = 0;
    *piCount = rc;
    OSL_TRACED_RETURN(0);
}

OSTREL_API uint32_t Ostrel_ThreadGroup_Sleep(OstrelThreadNodeHandle hNode, int32_t iTimeout, int *piToClose) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != hNode);
    OSL_ASSERT_ARG(NULL != piToClose);
    auto *node = static_cast<TGNode *>(hNode);
    fd_set sock_sets;
    FD_ZERO(&sock_sets);
    FD_SET(node->control_unit[1], &sock_sets);
    timeval timeout = to_timeval(iTimeout);
    int rc;
    OSL_TRACED_CALL(rc, select(node->control_unit[1]+1,&sock_sets,0,0,&timeout));
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
    for (TGNode *node = group_first(group); node != nullptr; node = node->next)
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
