// ostrel-kvd: an in-memory key-value service built the way the library
// intends a service to be built, on its C++ layer.
//
//   ostrel-kvd [--host ADDR] [--port PORT] [--pid-dir DIR] [--log-dir DIR] [--help]
//
// Defaults: 127.0.0.1, port 27800, pid file in the current directory
// ("<dir>/qmv_ns_ostrel-kvd.pid"), no log files. Port 0 lets the system
// choose; the port in use is printed on standard output as
// "ostrel-kvd: listening on ADDR:PORT". The soft limit on open descriptors is
// raised to the hard limit, since every connection holds a few.
//
// main() hands over to the foreground wrapper, which locks the pid file and
// calls start(). start() makes the listen and serves it on a thread of the
// listener; every accepted connection runs on a thread of one thread group:
// handshake, then request after request until the peer goes. State lives in a
// string-keyed copy-mode table kept in key order, under the service's mutex.
// SIGTERM or SIGINT stops the service: the listen is stopped, the thread group
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
#include "ostrel.hpp"
#include "tool_log.h"
#include "zurn_general.h"

namespace {

using ostrel::at;
using Table = ostrel::table<ostrel::string_key>;
constexpr std::chrono::milliseconds kTimeout{kv::kTimeoutMs};

struct Service {
    std::string host = "127.0.0.1";
    int port = kv::kDefaultPort;
    std::string pid_dir = ".";
    std::mutex mu; // tables take no lock of their own
    Table table;
    ostrel::thread_group group;
    ostrel::listener listen;
    uint64_t log = 0;
    std::atomic<bool> stopping{false};
    std::mutex why_mu;
    std::string why_not_started; // the first error logged while starting
    bool started = false;
};

Service g_service;

#define KV_LOG(level, ...) \
    ZurnGeneral_RecordAppLogToFileEx2_V(g_service.log, (level), "examples/ostrel_kvd", __LINE__, __VA_ARGS__)

uint32_t code(std::error_code e) { return ostrel::to_code(e); }

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

// One reply: the code and its text (none for success), then what the
// operation adds. A failure to write the reply is kept for send().
class Reply {
public:
    void result(uint32_t rc) {
        add(at(1, int32_t(rc)), at(2, rc != 0 ? Ostrel_GetErrorText(rc) : static_cast<const char *>(nullptr)));
    }
    template <class... V>
    void add(const V &...items) {
        if (!e_) e_ = w_.write(items...);
    }
    uint32_t send(ostrel::connection &conn) {
        if (!e_) {
            auto buf = w_.buffer();
            e_ = buf ? conn.send(*buf, kTimeout) : buf.error();
        }
        return code(e_);
    }

private:
    // Adopted from the C call: when creation fails the writer is empty and every write is refused.
    ostrel::writer w_{[] {
        Ostrel_Serializer *h = nullptr;
        const Ostrel_SerializerConfig c = kv::packet_config();
        return Ostrel_Serializer_SerializeInit(&c, &h) == 0 ? h : nullptr;
    }()};
    std::error_code e_;
};

// A string item of the request; a missing one (a NULL string) is refused.
uint32_t need(const std::string_view &s, std::error_code read) {
    return read ? code(read) : s.data() == nullptr ? OSL_ERR_INVALID_PARAMETER : 0;
}

uint32_t do_op(int32_t op, ostrel::reader &req, Reply &reply) {
    std::string_view key, value;
    uint32_t rc = 0;
    std::lock_guard<std::mutex> lk(g_service.mu); // a value stays the table's while it is copied out
    switch (op) {
    case kv::KV_OP_PUT:
        rc = need(key, req.read(at(2, key), at(3, value)));
        if (rc == 0) rc = need(value, {});
        if (rc == 0) rc = code(g_service.table.put(key.data(), ostrel::byte_view(value.data(), value.size() + 1)));
        reply.result(rc);
        return rc;
    case kv::KV_OP_GET: {
        if ((rc = need(key, req.read(at(2, key)))) != 0) break;
        auto v = g_service.table.get(key.data());
        reply.result(rc = code(v.error()));
        if (v) reply.add(at(3, static_cast<const char *>(v->data())));
        return rc;
    }
    case kv::KV_OP_DEL:
        if ((rc = need(key, req.read(at(2, key)))) == 0) rc = code(g_service.table.erase(key.data()));
        break;
    case kv::KV_OP_COUNT: {
        auto n = g_service.table.size();
        reply.result(rc = code(n.error()));
        if (n) reply.add(at(4, int32_t(*n)));
        return rc;
    }
    case kv::KV_OP_LIST: { // every entry in key order, one nested packet per entry
        std::vector<ostrel::writer> entries;
        auto walk = g_service.table.walk(ostrel::order::forward);
        for (const auto &e : walk) {
            auto w = ostrel::writer::create(kv::packet_config());
            if (!w) return reply.result(rc = code(w.error())), rc;
            entries.push_back(std::move(*w));
            if ((rc = code(entries.back().write(at(1, e.key), at(2, static_cast<const char *>(e.value.data())))))) break;
        }
        if (rc == 0) rc = code(walk.error());
        reply.result(rc);
        if (rc == 0) reply.add(at(4, int32_t(entries.size())), at(5, entries));
        return rc;
    }
    default:
        rc = OSL_ERR_INVALID_COMMAND;
        KV_LOG(LOG_LEVEL_WARN, "Unknown request operation %d", op);
    }
    reply.result(rc);
    return rc;
}

// Answers one request. A packet the reader refuses, an unknown operation or a
// missing item is answered with its code and text; only a failure to send the
// reply ends the connection.
uint32_t serve_request(ostrel::connection &conn, ostrel::byte_view pkt) {
    Reply reply;
    int32_t op = 0;
    auto req = ostrel::reader::open(pkt);
    uint32_t rc = code(req ? req->read(at(1, op)) : req.error());
    if (rc != 0) {
        KV_LOG(LOG_LEVEL_WARN, "Malformed request (%d bytes): 0x%x %s", int(pkt.size()), rc, Ostrel_GetErrorText(rc));
        reply.result(rc);
    } else if ((rc = do_op(op, *req, reply)) != 0) {
        KV_LOG(LOG_LEVEL_INFO, "Request %d answered with 0x%x %s", op, rc, Ostrel_GetErrorText(rc));
    }
    return reply.send(conn);
}

// One connection, on a thread of the service's thread group. It waits
// through the group's select, so cancelling the group ends it at once.
void serve_connection(ostrel::connection conn, ostrel::thread_node node) {
    uint32_t rc = code(conn.handshake(kTimeout));
    auto fd = conn.socket();
    if (rc != 0 || !fd) {
        KV_LOG(LOG_LEVEL_WARN, "Handshake failed: 0x%x %s%s", rc, Ostrel_GetErrorText(rc), socket_reason().c_str());
        return;
    }
    KV_LOG(LOG_LEVEL_INFO, "Client connected on socket %d", *fd);
    node.add(*fd);
    for (;;) {
        auto wait = node.select(std::chrono::milliseconds(1000));
        if (!wait || wait->to_close || g_service.stopping.load()) break;
        if (wait->ready == 0) continue;
        auto pkt = conn.receive(kTimeout);
        if (!pkt) {
            // The peer went away or sent something that is not a netbase packet.
            rc = code(pkt.error());
            if (strcmp(NetWork_GetErrorText(), "recv: Connection closed by peer") == 0)
                KV_LOG(LOG_LEVEL_INFO, "Connection on socket %d closed by the peer", *fd);
            else
                KV_LOG(LOG_LEVEL_INFO, "Connection on socket %d ends: 0x%x %s%s", *fd, rc, Ostrel_GetErrorText(rc),
                       socket_reason().c_str());
            break;
        }
        if ((rc = serve_request(conn, *pkt)) != 0) {
            KV_LOG(LOG_LEVEL_WARN, "Reply on socket %d failed: 0x%x %s", *fd, rc, Ostrel_GetErrorText(rc));
            break;
        }
    }
}

void on_connect(ostrel::connection conn) {
    if (g_service.stopping.load()) return; // closed as it goes
    std::error_code e = g_service.group.spawn(
        [c = std::move(conn)](ostrel::thread_node node) mutable { serve_connection(std::move(c), node); });
    if (e) KV_LOG(LOG_LEVEL_ERROR, "No thread for a new connection: 0x%x %s", code(e), Ostrel_GetErrorText(code(e)));
}

// Waits for SIGTERM or SIGINT (blocked in every other thread) and stops the
// service: no new connections, every connection cancelled and closed.
void stop_on_signal(sigset_t signals) {
    int sig = 0;
    sigwait(&signals, &sig);
    KV_LOG(LOG_LEVEL_INFO, "Signal %d: stopping", sig);
    g_service.stopping.store(true);
    { ostrel::listener ending = std::move(g_service.listen); } // stops serving and waits for its thread
    g_service.group.close();
    {
        std::lock_guard<std::mutex> lk(g_service.mu);
        g_service.table = Table();
    }
    KV_LOG(LOG_LEVEL_INFO, "Stopped");
    printf("ostrel-kvd: stopped\n");
    fflush(stdout);
    _exit(0);
}

uint32_t start() {
    auto table = Table::create(1024, ostrel::storage::copy);
    if (!table) return code(table.error());
    g_service.table = std::move(*table);
    if (uint32_t rc = code(g_service.table.sort_by_key())) return rc;
    auto group = ostrel::thread_group::create();
    if (!group) return code(group.error());
    g_service.group = std::move(*group);
    auto listen = ostrel::listener::establish(g_service.host, g_service.port);
    if (!listen) return code(listen.error());
    g_service.listen = std::move(*listen);

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (uint32_t rc = code(g_service.listen.serve_in_background(on_connect))) return rc;
    {
        std::lock_guard<std::mutex> lk(g_service.why_mu);
        g_service.started = true;
    }
    const std::string addr = g_service.listen.address();
    KV_LOG(LOG_LEVEL_INFO, "Serving on %s:%u", addr.c_str(), g_service.listen.port());
    printf("ostrel-kvd: listening on %s:%u (pid %ld)\n", addr.c_str(), g_service.listen.port(),
           static_cast<long>(getpid()));
    fflush(stdout);
    // Started last: what this thread did with the service happens before the
    // signal thread takes it apart.
    std::thread(stop_on_signal, signals).detach();
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

    auto starter = [] { return start(); }; // run_foreground takes a callable object, not a plain function
    const uint32_t rc = code(ostrel::run_foreground("ostrel-kvd", g_service.pid_dir, starter));
    // The wrapper returns only when the service could not start.
    std::lock_guard<std::mutex> lk(g_service.why_mu);
    if (g_service.why_not_started.empty())
        fprintf(stderr, "ostrel-kvd: cannot start: 0x%x %s\n", rc, Ostrel_GetErrorText(rc));
    else
        fprintf(stderr, "ostrel-kvd: cannot start: %s (0x%x %s)\n", g_service.why_not_started.c_str(), rc,
                Ostrel_GetErrorText(rc));
    return 1;
}
