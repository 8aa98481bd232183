// Netbase against a raw TCP program doing the same length-prefixed framing
// with plain blocking send/recv, side by side in one run over loopback:
// round trips of 64-byte packets (latency) and one-way streams of 64 KiB and
// 1 MiB packets (throughput). Both use TCP_NODELAY; the raw sender puts a
// small packet's prefix and data in one send and corks the prefix of a large
// one (MSG_MORE), which is what a careful hand-written program does.
// Logging stays at its default level. Two more figures: the CPU an idle
// worker-served listen costs, and how long a stop takes to be noticed.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "ostrel_netbase.h"

namespace {

constexpr uint32_t kTimeout = 30000;
constexpr size_t kMaxPacket = 1 << 20;
enum class Mode { Echo, Sink };
const char kStop = '!';

// --- netbase ---------------------------------------------------------------

struct NetbasePeer {
    NetbaseCtx *listen = nullptr, *client = nullptr;
    std::thread server;
    explicit NetbasePeer(Mode mode) {
        netbase_tcp_establish_listen("127.0.0.1", 0, &listen);
        uint32_t port = 0;
        netbase_get_listening_info(listen, nullptr, &port);
        server = std::thread([this, mode] {
            NetbaseCtx *s = nullptr;
            if (netbase_accept(listen, &s, kTimeout) != 0 || netbase_server_handshake(s, kTimeout) != 0) return;
            std::vector<char> buf(kMaxPacket);
            for (;;) {
                int32_t size = static_cast<int32_t>(buf.size());
                if (netbase_receive_packet_buf(s, buf.data(), &size, 0) != 0) break;
                if (size == 1 && buf[0] == kStop) {
                    netbase_send_packet(s, &kStop, 1, kTimeout);
                    break;
                }
                if (mode == Mode::Echo && netbase_send_packet(s, buf.data(), size, kTimeout) != 0) break;
            }
            netbase_close(s);
        });
        netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTimeout, &client);
    }
    bool send(const void *p, int32_t n) { return netbase_send_packet(client, p, n, kTimeout) == 0; }
    bool receive(void *p, int32_t cap) { return netbase_receive_packet_buf(client, p, &cap, kTimeout) == 0; }
    ~NetbasePeer() {
        char ack = 0;
        send(&kStop, 1);
        receive(&ack, 1);
        server.join();
        netbase_close(client);
        netbase_close(listen);
    }
};

// --- raw send/recv -----------------------------------------------------------

bool send_all(int fd, const void *p, size_t n, int flags) {
    const char *c = static_cast<const char *>(p);
    while (n > 0) {
        ssize_t k = send(fd, c, n, flags | MSG_NOSIGNAL);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        c += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool recv_all(int fd, void *p, size_t n) {
    char *c = static_cast<char *>(p);
    while (n > 0) {
        ssize_t k = recv(fd, c, n, 0);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        c += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool raw_send_packet(int fd, const void *p, uint32_t n) {
    uint32_t prefix = htonl(n);
    if (n <= 1436) {
        char buf[1440];
        memcpy(buf, &prefix, 4);
        memcpy(buf + 4, p, n);
        return send_all(fd, buf, n + 4, 0);
    }
    return send_all(fd, &prefix, 4, MSG_MORE) && send_all(fd, p, n, 0);
}

bool raw_recv_packet(int fd, void *p, uint32_t cap, uint32_t *n) {
    uint32_t prefix = 0;
    if (!recv_all(fd, &prefix, 4)) return false;
    *n = ntohl(prefix);
    return *n <= cap && recv_all(fd, p, *n);
}

void nodelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

struct RawPeer {
    int client = -1;
    std::thread server;
    explicit RawPeer(Mode mode) {
        int lfd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        bind(lfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
        listen(lfd, 1);
        getsockname(lfd, reinterpret_cast<sockaddr *>(&sa), &len);
        server = std::thread([lfd, mode] {
            int fd = accept(lfd, nullptr, nullptr);
            close(lfd);
            nodelay(fd);
            std::vector<char> buf(kMaxPacket);
            uint32_t n = 0;
            while (raw_recv_packet(fd, buf.data(), kMaxPacket, &n)) {
                if (n == 1 && buf[0] == kStop) {
                    raw_send_packet(fd, &kStop, 1);
                    break;
                }
                if (mode == Mode::Echo && !raw_send_packet(fd, buf.data(), n)) break;
            }
            close(fd);
        });
        client = socket(AF_INET, SOCK_STREAM, 0);
        connect(client, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
        nodelay(client);
    }
    bool send(const void *p, int32_t n) { return raw_send_packet(client, p, static_cast<uint32_t>(n)); }
    bool receive(void *p, int32_t cap) {
        uint32_t n = 0;
        return raw_recv_packet(client, p, static_cast<uint32_t>(cap), &n);
    }
    ~RawPeer() {
        char ack = 0;
        send(&kStop, 1);
        receive(&ack, 1);
        server.join();
        close(client);
    }
};

// --- the measurements --------------------------------------------------------

template <class Peer> void BM_PingPong64(benchmark::State &state) {
    Peer peer(Mode::Echo);
    char out[64], in[64];
    memset(out, 'p', sizeof out);
    for (auto _ : state) {
        if (!peer.send(out, sizeof out) || !peer.receive(in, sizeof in)) {
            state.SkipWithError("round trip failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Peer> void BM_OneWay(benchmark::State &state) {
    Peer peer(Mode::Sink);
    std::vector<char> data(static_cast<size_t>(state.range(0)), 'd');
    for (auto _ : state) {
        if (!peer.send(data.data(), static_cast<int32_t>(data.size()))) {
            state.SkipWithError("send failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK_TEMPLATE(BM_PingPong64, RawPeer)->UseRealTime()->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_PingPong64, NetbasePeer)->UseRealTime()->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_OneWay, RawPeer)->Arg(64 << 10)->Arg(1 << 20)->UseRealTime()->MinTime(1.0);
BENCHMARK_TEMPLATE(BM_OneWay, NetbasePeer)->Arg(64 << 10)->Arg(1 << 20)->UseRealTime()->MinTime(1.0);

double cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}


uint32_t no_op_callback(NetbaseCtx *h, void *) { return netbase_close(h); }

// A worker-served listen left idle for two seconds: the process's CPU time
// over that wall time, in percent of one core; then the time from
// netbase_close to the worker closing the listen's descriptor. (Connecting
// to find out would wake the worker early, so the descriptor is watched.)
void BM_IdleListenAndStop(benchmark::State &state) {
    double cpu_percent = 0, stop_ms = 0;
    int round = 0;
    for (auto _ : state) {
        NetbaseCtx *listen = nullptr;
        netbase_tcp_establish_listen("127.0.0.1", 0, &listen);
        int fd = -1;
        unsigned char sock[NETBASE_SOCKET_INFO_SIZE];
        netbase_get_info(listen, NETBASE_INFO_SOCKET, sock);
        memcpy(&fd, sock, sizeof fd);
        netbase_wait_connection(listen, no_op_callback, nullptr, 1);
        // Idle for 2 s plus an offset that moves the stop request through
        // the worker's wait cycle.
        auto idle = std::chrono::milliseconds(2000 + 70 * (round++ % 3));
        double c0 = cpu_seconds();
        std::this_thread::sleep_for(idle);
        cpu_percent += (cpu_seconds() - c0) / std::chrono::duration<double>(idle).count() * 100.0;
        auto t0 = std::chrono::steady_clock::now();
        netbase_close(listen);
        while (fcntl(fd, F_GETFD) != -1) std::this_thread::sleep_for(std::chrono::microseconds(200));
        stop_ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    }
    state.counters["idle_cpu_percent"] = cpu_percent / static_cast<double>(state.iterations());
    state.counters["stop_ms"] = stop_ms / static_cast<double>(state.iterations());
}
BENCHMARK(BM_IdleListenAndStop)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
