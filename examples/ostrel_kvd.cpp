// ostrel-kvd: an in-memory key-value service built the way the library
// intends a service to be built.
//
//   ostrel-kvd [--host ADDR] [--port PORT] [--pid-dir DIR] [--log-dir DIR] [--help]
//
// Defaults: 127.0.0.1, port 27800, pid file in the current directory
// ("<dir>/qmv_ns_ostrel-kvd.pid"), no log files. Port 0 lets the system
// choose; the port in use is printed on standard output as
// "ostrel-kvd: listening on ADDR:PORT". The soft limit on open descriptors is
// raised to the hard limit, since every connection holds a few.
//
// main() hands over to the non-service wrapper, which locks the pid file and
// calls start(). start() makes the listen and serves it on a netbase worker
// thread; every accepted connection runs on a thread of one thread group:
// handshake, then request after request until the peer goes. State lives in a
// string-keyed copy-mode table kept in key order, under the service's mutex.
// SIGTERM or SIGINT stops the service: the listen is closed, the thread group
// cancelled and destroyed (every connection closed), and the process exits 0.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kv_protocol.h"
#include "tool_log.h"
#include "ostrel_service.h"
#include "ostrel_table.h"
#include "ostrel_threadgroup.h"
#include "zurn_general.h"

namespace {

struct Service {
    std::string host = "127.0.0.1";
    int port = kv::kDefaultPort;
    std::string pid_dir = ".";
    std::mutex mu; // tables take no lock of their own
    OstrelTableHandle table = nullptr;
    OstrelThreadGroupHandle group = nullptr;
    NetbaseCtx *listen = nullptr;
    uint64_t log = 0;
    std::atomic<bool> stopping{false};
    std::mutex why_mu;
    std::string why_not_started; // the first error logged while starting
    bool started = false;
};

Service g_service;

#define KV_LOG(level, ...) \
    ZurnGeneral_RecordAppLogToFileEx2_V(g_service.log, (level), "examples/ostrel_kvd", __LINE__, __VA_ARGS__)

void open_log() {
    LogFileSettings s{};
    s.iBackupCount = 3;
    s.szModuleName = "ostrel-kvd";
    s.iEnabled = 1;
    s.iMaxLineLength = 2048;
    s.iMaxFileSize = 8388608;
    s.iShowThreadId = 1;
    s.iShowMilliseconds = 1;
    ZurnGeneral_IsNeedLogFile(&s, &g_service.log, 1);
}

// Keeps the first error line logged before the service is up: the reason
// printed when it cannot start (e.g. "PID file ... is locked.").
void keep_start_error(void *, const char *, int level, const char *, int, const char *text) {
    std::lock_guard<std::mutex> lk(g_service.why_mu);
    if (level >= LOG_LEVEL_ERROR && !g_service.started && g_service.why_not_started.empty())
        g_service.why_not_started = text;
}

// The reason of the calling thread's last failed socket call, or "".
std::string socket_reason() {
    const char *why = NetWork_GetErrorText();
    return strcmp(why, "Success") != 0 ? std::string(" (") + why + ")" : std::string();
}

// Builds and sends one reply: code and text first, then what the caller adds.
class ReplyBuilder {
public:
    ReplyBuilder() {
        Ostrel_SerializerConfig cfg = kv::packet_config();
        rc_ = Ostrel_Serializer_SerializeInit(&cfg, &h_);
    }
    ~ReplyBuilder() {
        if (h_ != nullptr) Ostrel_Serializer_Destroy(h_);
    }
    ReplyBuilder(const ReplyBuilder &) = delete;
    ReplyBuilder &operator=(const ReplyBuilder &) = delete;

    void result(uint32_t code) {
        if (rc_ == 0)
            rc_ = Ostrel_Serializer_Serialize(h_, OSL_SLZ_MODE_APPEND, "%1.d %2.s", static_cast<int32_t>(code),
                                              code != 0 ? Ostrel_GetErrorText(code) : nullptr);
    }
    Ostrel_Serializer *handle() { return h_; }
    uint32_t &status() { return rc_; }

    uint32_t send(NetbaseCtx *conn) {
        unsigned char *buf = nullptr;
        int len = 0;
        if (rc_ == 0) rc_ = Ostrel_Serializer_GetBuffer(h_, &buf, &len);
        if (rc_ == 0) rc_ = netbase_send_packet(conn, buf, len, kv::kTimeoutMs);
        return rc_;
    }

private:
    Ostrel_Serializer *h_ = nullptr;
    uint32_t rc_ = 0;
};

uint32_t do_put(Ostrel_Serializer *req, ReplyBuilder &reply) {
    char *key = nullptr, *value = nullptr;
    uint32_t rc = Ostrel_Serializer_Deserialize(req, "@2.s @3.s", &key, &value);
    if (rc == 0 && (key == nullptr || value == nullptr)) rc = OSL_ERR_INVALID_PARAMETER;
    if (rc == 0) {
        uint32_t len = static_cast<uint32_t>(strlen(value) + 1);
        std::lock_guard<std::mutex> lk(g_service.mu);
        rc = Ostrel_Table_String_AddNode(g_service.table, key, value, len);
        if (rc == OSL_ERR_DUPLICATE_KEY) rc = Ostrel_Table_String_UpdateNode(g_service.table, key, value, len);
    }
    reply.result(rc);
    return rc;
}

uint32_t do_get(Ostrel_Serializer *req, ReplyBuilder &reply) {
    char *key = nullptr;
    uint32_t rc = Ostrel_Serializer_Deserialize(req, "@2.s", &key);
    if (rc == 0 && key == nullptr) rc = OSL_ERR_INVALID_PARAMETER;
    if (rc != 0) {
        reply.result(rc);
        return rc;
    }
    std::lock_guard<std::mutex> lk(g_service.mu); // the value stays the table's while it is copied out
    void *value = nullptr;
    uint32_t len = 0;
    rc = Ostrel_Table_String_GetNode(g_service.table, key, &value, &len);
    reply.result(rc);
    if (rc == 0 && reply.status() == 0)
        reply.status() = Ostrel_Serializer_Serialize(reply.handle(), OSL_SLZ_MODE_APPEND, "%3.s",
                                                     static_cast<const char *>(value));
    return rc;
}

uint32_t do_del(Ostrel_Serializer *req, ReplyBuilder &reply) {
    char *key = nullptr;
    uint32_t rc = Ostrel_Serializer_Deserialize(req, "@2.s", &key);
    if (rc == 0 && key == nullptr) rc = OSL_ERR_INVALID_PARAMETER;
    if (rc == 0) {
        std::lock_guard<std::mutex> lk(g_service.mu);
        rc = Ostrel_Table_String_DelNode(g_service.table, key);
    }
    reply.result(rc);
    return rc;
}

uint32_t do_count(ReplyBuilder &reply) {
    uint32_t count = 0;
    uint32_t rc;
    {
        std::lock_guard<std::mutex> lk(g_service.mu);
        rc = Ostrel_Table_GetCount(g_service.table, &count);
    }
    reply.result(rc);
    if (rc == 0 && reply.status() == 0)
        reply.status() = Ostrel_Serializer_Serialize(reply.handle(), OSL_SLZ_MODE_APPEND, "%4.d",
                                                     static_cast<int32_t>(count));
    return rc;
}

// Answers with every entry in key order, one nested packet per entry.
uint32_t do_list(ReplyBuilder &reply) {
    std::vector<Ostrel_Serializer *> entries;
    Ostrel_SerializerConfig cfg = kv::packet_config();
    uint32_t rc;
    {
        std::lock_guard<std::mutex> lk(g_service.mu);
        OstrelTableIterHandle it = nullptr;
        rc = Ostrel_Table_BeginIterate(g_service.table, &it, TABLE_ITERATE_FORWARD);
        while (rc == 0) {
            const char *key = nullptr;
            void *value = nullptr;
            rc = Ostrel_Table_String_Iterate(it, &key, &value, nullptr);
            if (rc != 0 || key == nullptr) break;
            Ostrel_Serializer *e = nullptr;
            rc = Ostrel_Serializer_SerializeInit(&cfg, &e);
            if (rc != 0) break;
            entries.push_back(e);
            rc = Ostrel_Serializer_Serialize(e, OSL_SLZ_MODE_APPEND, "%1.s %2.s", key, static_cast<const char *>(value));
        }
        if (it != nullptr) Ostrel_Table_EndIterate(it);
    }
    reply.result(rc);
    if (rc == 0 && reply.status() == 0)
        reply.status() = Ostrel_Serializer_Serialize(reply.handle(), OSL_SLZ_MODE_APPEND, "%4.d %5.ab",
                                                     static_cast<int32_t>(entries.size()), entries.data(),
                                                     static_cast<int>(entries.size()));
    for (Ostrel_Serializer *e : entries) Ostrel_Serializer_Destroy(e);
    return rc;
}

// Answers one request. A packet the reader refuses, an unknown operation or a
// missing item is answered with its code and text; only a failure to send the
// reply ends the connection.
uint32_t serve_request(NetbaseCtx *conn, unsigned char *pkt, int32_t len) {
    ReplyBuilder reply;
    Ostrel_Serializer *req = nullptr;
    int32_t op = 0;
    uint32_t rc = Ostrel_Serializer_DeserializeInit(pkt, len, &req);
    if (rc == 0) rc = Ostrel_Serializer_Deserialize(req, "%1.d", &op);
    if (rc != 0) {
        KV_LOG(LOG_LEVEL_WARN, "Malformed request (%d bytes): 0x%x %s", len, rc, Ostrel_GetErrorText(rc));
        reply.result(rc);
    } else {
        switch (op) {
        case kv::KV_OP_PUT: rc = do_put(req, reply); break;
        case kv::KV_OP_GET: rc = do_get(req, reply); break;
        case kv::KV_OP_DEL: rc = do_del(req, reply); break;
        case kv::KV_OP_COUNT: rc = do_count(reply); break;
        case kv::KV_OP_LIST: rc = do_list(reply); break;
        default:
            rc = OSL_ERR_INVALID_COMMAND;
            KV_LOG(LOG_LEVEL_WARN, "Unknown request operation %d", op);
            reply.result(rc);
        }
        if (rc != 0) KV_LOG(LOG_LEVEL_INFO, "Request %d answered with 0x%x %s", op, rc, Ostrel_GetErrorText(rc));
    }
    if (req != nullptr) Ostrel_Serializer_Destroy(req);
    return reply.send(conn);
}

int socket_of(NetbaseCtx *conn) {
    unsigned char record[NETBASE_SOCKET_INFO_SIZE];
    if (netbase_get_info(conn, NETBASE_INFO_SOCKET, record) != 0) return -1;
    int fd;
    memcpy(&fd, record, sizeof fd); // the record starts with the descriptor
    return fd;
}

// One connection, on a thread of the service's thread group. It waits
// through the group's select, so cancelling the group ends it at once.
uint32_t connection_thread(void *param, OstrelThreadNodeHandle node) {
    auto *conn = static_cast<NetbaseCtx *>(param);
    uint32_t rc = netbase_server_handshake(conn, kv::kTimeoutMs);
    int fd = socket_of(conn);
    if (rc != 0 || fd < 0) {
        KV_LOG(LOG_LEVEL_WARN, "Handshake failed: 0x%x %s%s", rc, Ostrel_GetErrorText(rc), socket_reason().c_str());
        netbase_close(conn);
        return rc;
    }
    KV_LOG(LOG_LEVEL_INFO, "Client connected on socket %d", fd);
    Ostrel_ThreadGroup_SetAdd(node, fd);
    for (;;) {
        int to_close = 0, ready = 0;
        rc = Ostrel_ThreadGroup_Select(node, 1000, &to_close, &ready);
        if (rc != 0 || to_close || g_service.stopping.load()) break;
        if (ready == 0) continue;
        void *pkt = nullptr;
        int32_t len = 0;
        rc = netbase_receive_packet(conn, &pkt, &len, kv::kTimeoutMs);
        if (rc != 0) {
            // The peer went away or sent something that is not a netbase packet.
            if (strcmp(NetWork_GetErrorText(), "recv: Connection closed by peer") == 0)
                KV_LOG(LOG_LEVEL_INFO, "Connection on socket %d closed by the peer", fd);
            else
                KV_LOG(LOG_LEVEL_INFO, "Connection on socket %d ends: 0x%x %s%s", fd, rc, Ostrel_GetErrorText(rc),
                       socket_reason().c_str());
            break;
        }
        rc = serve_request(conn, static_cast<unsigned char *>(pkt), len);
        if (rc != 0) {
            KV_LOG(LOG_LEVEL_WARN, "Reply on socket %d failed: 0x%x %s", fd, rc, Ostrel_GetErrorText(rc));
            break;
        }
    }
    netbase_close(conn);
    return 0;
}

uint32_t on_connect(NetbaseCtx *conn, void *) {
    if (g_service.stopping.load()) {
        netbase_close(conn);
        return 0;
    }
    uint32_t rc = Ostrel_ThreadGroup_NewThread(g_service.group, connection_thread, conn);
    if (rc != 0) {
        KV_LOG(LOG_LEVEL_ERROR, "No thread for a new connection: 0x%x %s", rc, Ostrel_GetErrorText(rc));
        netbase_close(conn);
    }
    return 0; // keep accepting whatever happened to this one connection
}

// Waits for SIGTERM or SIGINT (blocked in every other thread) and stops the
// service: no new connections, every connection cancelled and closed.
void stop_on_signal(sigset_t signals) {
    int sig = 0;
    sigwait(&signals, &sig);
    KV_LOG(LOG_LEVEL_INFO, "Signal %d: stopping", sig);
    g_service.stopping.store(true);
    netbase_close(g_service.listen);
    Ostrel_ThreadGroup_CancelAll(g_service.group);
    Ostrel_ThreadGroup_Destroy(g_service.group);
    {
        std::lock_guard<std::mutex> lk(g_service.mu);
        Ostrel_Table_Destroy(g_service.table);
        g_service.table = nullptr;
    }
    KV_LOG(LOG_LEVEL_INFO, "Stopped");
    printf("ostrel-kvd: stopped\n");
    fflush(stdout);
    _exit(0);
}

uint32_t start(void *) {
    uint32_t rc = Ostrel_Table_Create(&g_service.table, 1024, NODE_STORAGE_COPY);
    if (rc == 0) rc = Ostrel_Table_SetProperty(g_service.table, TABLE_PROP_SORT_FUNCTION, 0);
    if (rc == 0) rc = Ostrel_ThreadGroup_Create(&g_service.group);
    if (rc == 0) rc = netbase_tcp_establish_listen(g_service.host.c_str(), g_service.port, &g_service.listen);
    if (rc != 0) return rc;
    // Copied now: once the worker serves the listen, the handle (and the
    // address text inside it) belongs to the worker until it is released.
    const char *listen_addr = nullptr;
    uint32_t port = 0;
    netbase_get_listening_info(g_service.listen, &listen_addr, &port);
    const std::string addr = listen_addr != nullptr ? listen_addr : "?";

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    std::thread(stop_on_signal, signals).detach();

    rc = netbase_wait_connection(g_service.listen, on_connect, nullptr, 1);
    if (rc != 0) return rc;
    {
        std::lock_guard<std::mutex> lk(g_service.why_mu);
        g_service.started = true;
    }
    KV_LOG(LOG_LEVEL_INFO, "Serving on %s:%u", addr.c_str(), port);
    printf("ostrel-kvd: listening on %s:%u (pid %ld)\n", addr.c_str(), port, static_cast<long>(getpid()));
    fflush(stdout);
    return 0;
}

int usage(FILE *out) {
    fprintf(out,
            "usage: ostrel-kvd [--host ADDR] [--port PORT] [--pid-dir DIR] [--log-dir DIR] [--help]\n"
            "  --host ADDR    address to listen on (default 127.0.0.1)\n"
            "  --port PORT    port to listen on (default %d; 0: any free port)\n"
            "  --pid-dir DIR  directory of the pid file qmv_ns_ostrel-kvd.pid (default .)\n"
            "  --log-dir DIR  write ostrel-kvd.log and ostrel.log in DIR (default: no log files)\n",
            kv::kDefaultPort);
    return out == stdout ? 0 : 2;
}

} // namespace

int main(int argc, char **argv) {
    const char *log_dir = nullptr;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") return usage(stdout);
        if (i + 1 >= argc) return usage(stderr);
        if (a == "--host") {
            g_service.host = argv[++i];
        } else if (a == "--port") {
            char *end = nullptr;
            long p = strtol(argv[++i], &end, 10);
            if (*end != '\0' || p < 0 || p > 65535) return usage(stderr);
            g_service.port = static_cast<int>(p);
        } else if (a == "--pid-dir") {
            g_service.pid_dir = argv[++i];
        } else if (a == "--log-dir") {
            log_dir = argv[++i];
        } else {
            return usage(stderr);
        }
    }
    if (g_service.pid_dir.size() > 200) {
        fprintf(stderr, "ostrel-kvd: pid directory name too long\n");
        return 2;
    }
    if (access(g_service.pid_dir.c_str(), W_OK | X_OK) != 0) {
        fprintf(stderr, "ostrel-kvd: cannot write the pid file in %s: %s\n", g_service.pid_dir.c_str(), strerror(errno));
        return 2;
    }
    if (int st = tool_log::start("ostrel-kvd", log_dir, argv)) return st;
    // Without a log directory only errors are kept, in memory, for the message below.
    if (log_dir == nullptr) ZurnGeneral_SetLogLevel(LOG_LEVEL_ERROR);
    ZurnGeneral_SetLogSink(keep_start_error, nullptr, log_dir != nullptr ? ZURN_LOG_SINK_AND_FILE : ZURN_LOG_SINK_ONLY);
    // Each connection holds a socket and its thread's control descriptors.
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    // Every thread inherits this mask; only the stopping thread takes the signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    open_log();

    uint32_t rc = Ostrel_NonService_Wrapper_CustomPath_Ex("ostrel-kvd", g_service.pid_dir.c_str(), start, nullptr);
    // The wrapper returns only when the service could not start.
    std::lock_guard<std::mutex> lk(g_service.why_mu);
    if (g_service.why_not_started.empty())
        fprintf(stderr, "ostrel-kvd: cannot start: 0x%x %s\n", rc, Ostrel_GetErrorText(rc));
    else
        fprintf(stderr, "ostrel-kvd: cannot start: %s (0x%x %s)\n", g_service.why_not_started.c_str(), rc,
                Ostrel_GetErrorText(rc));
    return 1;
}
