// libZurn_general sockets: IPv4 TCP. Listening descriptors are non-blocking
// and waited on with poll(); connected ones block, with the time-out kept as
// a socket option, so a transfer that can go ahead is one system call and a
// wait costs no extra call.
#include "zurn_general.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <type_traits>

static_assert(sizeof(ZurnSocket) == 48, "the socket record is 48 bytes");
static_assert(offsetof(ZurnSocket, iFd) == 0, "the descriptor comes first");
static_assert(std::is_same<decltype(ZurnSocket::iFd), int>::value, "the descriptor is the system's int");

namespace {

thread_local char t_error_text[256] = "Success";

void set_error_text(const char *call, const char *reason) {
    // A text longer than the buffer is cut short on purpose.
    (void)snprintf(t_error_text, sizeof t_error_text, "%s: %s", call, reason);
}

// strerror_r comes in two forms, and which one a C library declares depends
// on its feature macros: the GNU form returns the text (which may or may not
// live in buf), the XSI form returns 0 after filling buf. Overloads on the
// return type take either.
[[maybe_unused]] const char *strerror_r_text(const char *text, char *, size_t, int) { return text; }
[[maybe_unused]] const char *strerror_r_text(int rc, char *buf, size_t size, int err) {
    if (rc != 0) (void)snprintf(buf, size, "Unknown error %d", err);
    return buf;
}

// The text for errno value `err`, thread-safe; buf holds it when needed.
const char *errno_text(int err, char *buf, size_t size) {
    return strerror_r_text(strerror_r(err, buf, size), buf, size, err);
}

void set_errno_text(const char *call, int err) {
    char buf[128];
    set_error_text(call, errno_text(err, buf, sizeof buf));
}

using Clock = std::chrono::steady_clock;

// The end of a time-out; a time-out of 0 never ends.
struct Deadline {
    explicit Deadline(uint32_t ms)
        : limited(ms != 0), end(limited ? Clock::now() + std::chrono::milliseconds(ms) : Clock::time_point{}) {}
    // Milliseconds left for poll(): -1 without a limit, 0 once passed.
    int remaining() const {
        if (!limited) return -1;
        // Rounded up, so a sub-millisecond remainder still waits.
        auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return 0;
        return left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left);
    }
    bool limited;
    Clock::time_point end;
};

// Waits until fd is ready for `events` or the deadline passes. On a time-out
// or a poll failure the error text names `call`.
bool wait_ready(int fd, short events, const Deadline &dl, uint32_t timeout_ms, const char *call) {
    for (;;) {
        int left = dl.remaining();
        if (left == 0) {
            char reason[64];
            (void)snprintf(reason, sizeof reason, "Timed out after %u ms", timeout_ms);
            set_error_text(call, reason);
            return false;
        }
        struct pollfd p {};
        p.fd = fd;
        p.events = events;
        int n = poll(&p, 1, left);
        if (n > 0) {
            if (p.revents & POLLNVAL) {
                set_errno_text(call, EBADF);
                return false;
            }
            // Readiness, an error or a hang-up: the next call reports which.
            return true;
        }
        if (n < 0 && errno != EINTR) {
            set_errno_text("poll", errno);
            return false;
        }
        // n == 0 (slice over) or EINTR: look at the clock again.
    }
}

bool check_record(const ZurnSocket *s, const char *call) {
    if (s == nullptr || s->iState == ZURN_SOCKET_CLOSED || s->iFd < 0) {
        set_errno_text(call, s == nullptr ? EINVAL : EBADF);
        return false;
    }
    return true;
}

// Resolves a dotted address or a host name to an IPv4 address.
bool resolve(const char *addr, bool passive, struct in_addr *out, const char *call) {
    if (addr == nullptr || *addr == '\0') {
        set_errno_text(call, EINVAL);
        return false;
    }
    if (inet_pton(AF_INET, addr, out) == 1) return true;
    struct addrinfo hints {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    if (passive) hints.ai_flags = AI_PASSIVE;
    struct addrinfo *res = nullptr;
    int rc = getaddrinfo(addr, nullptr, &hints, &res);
    if (rc != 0 || res == nullptr) {
        const int err = errno;
        char buf[128];
        set_error_text("getaddrinfo", rc == EAI_SYSTEM ? errno_text(err, buf, sizeof buf) : gai_strerror(rc));
        if (res) freeaddrinfo(res);
        return false;
    }
    *out = reinterpret_cast<struct sockaddr_in *>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
    return true;
}

bool make_address(const char *addr, int port, bool passive, struct sockaddr_in *sa, const char *call) {
    if (port < 0 || port > 65535) {
        set_errno_text(call, EINVAL);
        return false;
    }
    memset(sa, 0, sizeof *sa);
    sa->sin_family = AF_INET;
    sa->sin_port = htons(static_cast<uint16_t>(port));
    return resolve(addr, passive, &sa->sin_addr, call);
}

uint16_t local_port(int fd) {
    struct sockaddr_in sa {};
    socklen_t len = sizeof sa;
    if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&sa), &len) != 0) return 0;
    return ntohs(sa.sin_port);
}

void set_nodelay(int fd) {
    int one = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Sets the descriptor's wait limit for one direction unless it is already
// in force (*cached), so a run of calls with one time-out pays nothing.
bool set_wait_limit(int fd, int option, uint32_t *cached, uint32_t ms) {
    if (*cached == ms) return true;
    struct timeval tv {};
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    if (setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv) != 0) return false;
    *cached = ms;
    return true;
}

// Moves exactly `length` bytes. Connected descriptors block, so a transfer
// that can go ahead costs one system call; the descriptor's wait limit
// bounds each call and is tightened as the whole time-out runs down. A
// descriptor found non-blocking is waited on with poll() instead.
int transfer(ZurnSocket *s, void *buffer, uint32_t length, uint32_t timeout_ms, bool sending) {
    const char *call = sending ? "send" : "recv";
    int option = sending ? SO_SNDTIMEO : SO_RCVTIMEO;
    uint32_t *cached = sending ? &s->uiSendWaitMs : &s->uiRecvWaitMs;
    Deadline dl(timeout_ms);
    if (!set_wait_limit(s->iFd, option, cached, timeout_ms)) {
        set_errno_text("setsockopt", errno);
        return 0;
    }
    char *p = static_cast<char *>(buffer);
    size_t left = length;
    while (left > 0) {
        ssize_t n = sending ? send(s->iFd, p, left, MSG_NOSIGNAL) : recv(s->iFd, p, left, 0);
        if (n > 0) {
            p += n;
            left -= static_cast<size_t>(n);
        } else if (n == 0 && !sending) {
            set_error_text(call, "Connection closed by peer");
            return 0;
        } else if (n < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            set_errno_text(call, errno);
            return 0;
        } else if (n < 0 && errno != EINTR) {
            // The wait limit ran out, or the descriptor does not block.
            if (!wait_ready(s->iFd, sending ? POLLOUT : POLLIN, dl, timeout_ms, call)) return 0;
            continue;
        }
        if (left > 0 && dl.limited) {
            int remaining = dl.remaining();
            if (remaining == 0) {
                char reason[64];
                (void)snprintf(reason, sizeof reason, "Timed out after %u ms", timeout_ms);
                set_error_text(call, reason);
                return 0;
            }
            if (static_cast<uint32_t>(remaining) < *cached &&
                !set_wait_limit(s->iFd, option, cached, static_cast<uint32_t>(remaining))) {
                set_errno_text("setsockopt", errno);
                return 0;
            }
        }
    }
    return 1;
}

// Connected sockets block; their waits are bounded by socket options.
bool make_blocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

} // namespace

extern "C" {

int S_Open(ZurnSocket *pSocket, int iReserved1, int iReserved2, int iReserved3) {
    if (pSocket == nullptr || iReserved1 != 0 || iReserved2 != 0 || iReserved3 != 0) {
        set_errno_text("socket", EINVAL);
        return 0;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        set_errno_text("socket", errno);
        return 0;
    }
    memset(pSocket, 0, sizeof *pSocket);
    pSocket->iFd = fd;
    pSocket->iState = ZURN_SOCKET_OPEN;
    return 1;
}

int S_Bind(ZurnSocket *pSocket, const char *szAddr, int iPort) {
    if (!check_record(pSocket, "bind")) return 0;
    struct sockaddr_in sa;
    if (!make_address(szAddr, iPort, true, &sa, "bind")) return 0;
    int one = 1;
    (void)setsockopt(pSocket->iFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(pSocket->iFd, reinterpret_cast<struct sockaddr *>(&sa), sizeof sa) != 0) {
        set_errno_text("bind", errno);
        return 0;
    }
    pSocket->usLocalPort = local_port(pSocket->iFd);
    return 1;
}

int S_Listen(ZurnSocket *pSocket, int iBacklog) {
    if (!check_record(pSocket, "listen")) return 0;
    if (listen(pSocket->iFd, iBacklog) != 0) {
        set_errno_text("listen", errno);
        return 0;
    }
    pSocket->iState = ZURN_SOCKET_LISTENING;
    pSocket->usLocalPort = local_port(pSocket->iFd);
    return 1;
}

int S_CanAccept(ZurnSocket *pSocket, int iWait) {
    if (!check_record(pSocket, "poll")) return 0;
    if (iWait < 0) {
        set_errno_text("poll", EINVAL);
        return 0;
    }
    struct pollfd p {};
    p.fd = pSocket->iFd;
    p.events = POLLIN;
    int n = poll(&p, 1, iWait * 100);
    if (n < 0) {
        if (errno == EINTR) return ZURN_ACCEPT_IDLE;
        set_errno_text("poll", errno);
        return 0;
    }
    if (n == 0) return ZURN_ACCEPT_IDLE;
    if (p.revents & POLLNVAL) {
        set_errno_text("poll", EBADF);
        return 0;
    }
    if (p.revents & POLLIN) return ZURN_ACCEPT_READY;
    // POLLERR / POLLHUP without a connection: the listen itself is broken
    // (e.g. shut down).
    set_errno_text("poll", EINVAL);
    return 0;
}

int S_Accept(ZurnSocket stListen, ZurnSocket *pNew, uint32_t uiTimeoutMs) {
    if (!check_record(&stListen, "accept")) return 0;
    if (pNew == nullptr) {
        set_errno_text("accept", EINVAL);
        return 0;
    }
    Deadline dl(uiTimeoutMs);
    for (;;) {
        struct sockaddr_in peer {};
        socklen_t len = sizeof peer;
        int fd = accept4(stListen.iFd, reinterpret_cast<struct sockaddr *>(&peer), &len, SOCK_CLOEXEC);
        if (fd >= 0) {
            set_nodelay(fd);
            memset(pNew, 0, sizeof *pNew);
            pNew->iFd = fd;
            pNew->iState = ZURN_SOCKET_CONNECTED;
            pNew->uiPeerAddr = peer.sin_addr.s_addr;
            pNew->usPeerPort = peer.sin_port;
            pNew->usLocalPort = local_port(fd);
            return 1;
        }
        int err = errno;
        // A connection that died in the queue is skipped like Linux advises.
        if (err == EINTR || err == ECONNABORTED || err == EPROTO) continue;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            set_errno_text("accept", err);
            return 0;
        }
        if (!wait_ready(stListen.iFd, POLLIN, dl, uiTimeoutMs, "accept")) return 0;
    }
}

int S_Client(ZurnSocket *pSocket, const char *szAddr, int iPort, uint32_t uiTimeoutMs) {
    if (!check_record(pSocket, "connect")) return 0;
    Deadline dl(uiTimeoutMs);
    struct sockaddr_in sa;
    if (!make_address(szAddr, iPort, false, &sa, "connect")) return 0;
    int fd = pSocket->iFd;
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&sa), sizeof sa) != 0) {
        int err = errno;
        if (err != EINPROGRESS && err != EINTR) {
            set_errno_text("connect", err);
            return 0;
        }
        // The connection completes in the background; wait for its outcome.
        if (!wait_ready(fd, POLLOUT, dl, uiTimeoutMs, "connect")) return 0;
        int soerr = 0;
        socklen_t len = sizeof soerr;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &soerr, &len) != 0) soerr = errno;
        if (soerr != 0) {
            set_errno_text("connect", soerr);
            return 0;
        }
    }
    if (!make_blocking(fd)) {
        set_errno_text("fcntl", errno);
        return 0;
    }
    set_nodelay(fd);
    pSocket->iState = ZURN_SOCKET_CONNECTED;
    pSocket->uiPeerAddr = sa.sin_addr.s_addr;
    pSocket->usPeerPort = sa.sin_port;
    pSocket->usLocalPort = local_port(fd);
    return 1;
}

int S_SendEx(ZurnSocket *pSocket, const void *pBuffer, uint32_t uiLength, uint32_t uiTimeoutMs) {
    if (uiLength == 0) return 1;
    if (!check_record(pSocket, "send")) return 0;
    if (pBuffer == nullptr) {
        set_errno_text("send", EFAULT);
        return 0;
    }
    return transfer(pSocket, const_cast<void *>(pBuffer), uiLength, uiTimeoutMs, true);
}

int S_ReceiveEx(ZurnSocket *pSocket, void *pBuffer, uint32_t uiLength, uint32_t uiTimeoutMs) {
    if (uiLength == 0) return 1;
    if (!check_record(pSocket, "recv")) return 0;
    if (pBuffer == nullptr) {
        set_errno_text("recv", EFAULT);
        return 0;
    }
    return transfer(pSocket, pBuffer, uiLength, uiTimeoutMs, false);
}

int S_Close(ZurnSocket *pSocket, int iFlag) {
    if (pSocket == nullptr) {
        set_errno_text("close", EINVAL);
        return 0;
    }
    if (pSocket->iState == ZURN_SOCKET_CLOSED || pSocket->iFd < 0) {
        pSocket->iState = ZURN_SOCKET_CLOSED;
        pSocket->iFd = -1;
        return 1;
    }
    int fd = pSocket->iFd;
    if (iFlag != 0) (void)shutdown(fd, SHUT_RDWR);
    pSocket->iFd = -1;
    pSocket->iState = ZURN_SOCKET_CLOSED;
    // close() releases the descriptor even when it reports EINTR; retrying
    // could close a descriptor another thread has just been given.
    if (close(fd) != 0 && errno != EINTR) {
        set_errno_text("close", errno);
        return 0;
    }
    return 1;
}

int S_GetSocketInfo(ZurnSocket stSocket, struct sockaddr_in *pAddr) {
    if (!check_record(&stSocket, "getsockname")) return 0;
    if (pAddr == nullptr) {
        set_errno_text("getsockname", EINVAL);
        return 0;
    }
    struct sockaddr_in sa {};
    socklen_t len = sizeof sa;
    if (getsockname(stSocket.iFd, reinterpret_cast<struct sockaddr *>(&sa), &len) != 0) {
        set_errno_text("getsockname", errno);
        return 0;
    }
    if (sa.sin_family != AF_INET) {
        set_errno_text("getsockname", EAFNOSUPPORT);
        return 0;
    }
    *pAddr = sa;
    return 1;
}

const char *NetWork_GetErrorText(void) { return t_error_text; }

} // extern "C"
