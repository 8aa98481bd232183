// The netbase receive path fed arbitrary traffic: a plain loopback socket
// plays the peer, writes a byte stream built from the input and closes its
// sending side; the accepted handle runs netbase_server_handshake and then
// netbase_receive_packet / netbase_receive_packet_buf until one fails.
//
// The stream is made of records (well-formed packets in either byte order,
// packets in the wrong order, with reserved bytes or a version set, with a
// data length over the limit, cut short, and raw bytes), so the framing goes
// out of step in every way. A model reads the same stream: every result code
// must be the one it predicts, and every packet delivered must be exactly the
// bytes the model finds at that point. Bytes of the caller's buffer past the
// delivered length, and all of it when a packet is refused before its data
// is read, must stay untouched.
//
// A header may announce an extension of up to 4 GiB, which the receiver
// reads through a bounded block, so any extension length is fed as it is.
// A packet received into handle-owned memory is allocated before it is read;
// inputs that reach such a header with a length over kAllocBound end the
// session there rather than spend the memory.
//
// The unit tests of netbase include this file: they drive the same model
// with seeded inputs and use its header builder and loopback peer.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ostrel_common.h"
#include "ostrel_netbase.h"
#include "fuzz_check.h"

namespace {

constexpr uint32_t kFuzzTimeout = 5000; // never reached: the peer's side is closed
constexpr size_t kStreamMax = 16384;    // fits the loopback buffers, so the peer never blocks
constexpr uint32_t kAllocBound = 1u << 20, kSkip = ~0u;

struct Input { const uint8_t *p; size_t n; uint8_t byte() { return n == 0 ? 0 : (--n, *p++); } };

// A 12-byte header with its two lengths in the given byte order.
std::string header(uint8_t b0, uint8_t r1, uint8_t r2, uint8_t version, uint32_t ex, uint32_t data, bool big) {
    std::string s{static_cast<char>(b0), static_cast<char>(r1), static_cast<char>(r2), static_cast<char>(version)};
    for (uint32_t v : {ex, data})
        for (int i = 0; i < 4; ++i) s += static_cast<char>(v >> (big ? 24 - 8 * i : 8 * i));
    return s;
}

uint32_t get32(const uint8_t *p, bool big) {
    return big ? uint32_t{p[0]} << 24 | p[1] << 16 | p[2] << 8 | p[3] : uint32_t{p[3]} << 24 | p[2] << 16 | p[1] << 8 | p[0];
}

// The stream as the receiver must see it.
struct Model {
    std::string s;
    size_t pos = 0;
    uint32_t peer = 0;

    // Version 0 with a reserved byte set, or a wrong magic.
    static bool malformed(const uint8_t *h) { return (h[3] == 0 && (h[1] | h[2]) != 0) || (h[0] & 0xFE) != 0xA6; }

    uint32_t handshake() {
        const auto *h = reinterpret_cast<const uint8_t *>(s.data());
        if (s.size() < 12) return OSL_ERR_UNKNOWN;
        pos = 12;
        peer = h[0] & 1u;
        return get32(h + 4, false) != 0 || get32(h + 8, false) != 0 || malformed(h) ? OSL_ERR_INVALID_DATA : 0;
    }

    // Predicts one receive into a buffer of `cap` bytes, or into handle-owned
    // memory when cap < 0: kSkip when that would take more than the bound.
    uint32_t receive(int64_t cap, std::string *data) {
        const auto *h = reinterpret_cast<const uint8_t *>(s.data()) + pos;
        if (s.size() - pos < 12) return OSL_ERR_UNKNOWN;
        const bool refused = malformed(h) || (h[0] & 1u) != peer;
        const uint32_t ex = get32(h + 4, peer != 0), len = get32(h + 8, peer != 0);
        if (!refused && cap < 0 && len <= NETBASE_PACKET_LENGTH_MAX && len > kAllocBound) return kSkip;
        pos += 12;
        if (refused) return malformed(h) ? OSL_ERR_INVALID_DATA : OSL_ERR_INVALID_FORMAT;
        if (len > NETBASE_PACKET_LENGTH_MAX) return OSL_ERR_INVALID_LENGTH;
        if (s.size() - pos < ex) return OSL_ERR_UNKNOWN;
        pos += ex;
        if (cap >= 0 && len > cap) return OSL_ERR_NO_MEMORY; // data left unread
        if (s.size() - pos < len) return OSL_ERR_UNKNOWN;
        data->assign(s, pos, len);
        pos += len;
        return 0;
    }
};

// Builds the peer's stream from the input.
void build(Input &in, Model &m, uint8_t cfg) {
    const bool big = (cfg & 2) != 0;
    const uint8_t order = 0xA6 | (big ? 1 : 0);
    if (cfg & 4)
        for (int i = 0; i < 12; ++i) m.s += static_cast<char>(in.byte());
    else
        m.s += header(order, 0, 0, 0, 0, 0, false);
    while (in.n > 0 && m.s.size() < kStreamMax) {
        const uint8_t kind = in.byte() & 7u;
        const uint32_t ex = in.byte() % 24u; // both sides of the 16-byte local area
        uint32_t len = (in.byte() | static_cast<uint32_t>(in.byte()) << 8) & 0x1FFFu;
        if (kind == 5) { // raw bytes
            for (size_t n = in.byte() % 32u; n > 0; --n) m.s += static_cast<char>(in.byte());
            continue;
        }
        const bool other = kind == 3; // written in the other byte order
        const uint8_t r1 = kind == 7 ? in.byte() : 0, version = kind == 7 ? in.byte() : 0; // reserved bytes or a version
        if (kind == 6) len = NETBASE_PACKET_LENGTH_MAX + 1u + in.byte(); // over the data limit
        m.s += header(order ^ other, r1, 0, version, ex, len, big != other);
        if (kind == 6) continue;
        if (kind == 4) { // cut short: the stream ends inside the packet
            m.s.append(ex + len / 2, 'c');
            return;
        }
        m.s.append(ex, 'e');
        for (uint32_t i = 0; i < len; ++i) m.s += static_cast<char>(in.n ? in.byte() : i);
    }
}

NetbaseCtx *g_listen = nullptr;
uint32_t g_port = 0;

// A plain socket connected to a loopback port, or -1.
int connect_peer(uint32_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in sa{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) == 0) return fd;
    close(fd);
    return -1;
}

void send_all(int fd, const std::string &s) {
    for (size_t off = 0; off < s.size();) {
        const ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
        check(n > 0);
        off += static_cast<size_t>(n);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    check(netbase_tcp_establish_listen("127.0.0.1", 0, &g_listen) == 0);
    check(netbase_get_listening_info(g_listen, nullptr, &g_port) == 0 && g_port != 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    const uint8_t cfg = in.byte();
    Model m;
    build(in, m, cfg);
    const int32_t cap = ((cfg >> 3) & 15) * 683; // 0 .. 10245 bytes
    const int fd = connect_peer(g_port);
    const linger reset{1, 0}; // closing resets the connection: no TIME_WAIT left behind per input
    check(fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0);
    NetbaseCtx *h = nullptr;
    check(netbase_accept(g_listen, &h, kFuzzTimeout) == 0 && h != nullptr);
    send_all(fd, m.s);
    check(shutdown(fd, SHUT_WR) == 0 && netbase_set_big_endian(cfg & 1) == 0);
    uint32_t rc = netbase_server_handshake(h, kFuzzTimeout);
    check(rc == m.handshake());
    std::vector<uint8_t> buf(static_cast<size_t>(cap) + 64);
    for (size_t call = 0; rc == 0 || rc == OSL_ERR_NO_MEMORY; ++call) {
        const bool into_buf = (call + (cfg >> 7)) % 2 == 0; // the caller's buffer, or handle-owned memory
        std::string want;
        const uint32_t expect = m.receive(into_buf ? cap : -1, &want);
        if (expect == kSkip) break;
        memset(buf.data(), 0xEE, buf.size());
        void *p = buf.data();
        int32_t got = cap;
        rc = into_buf ? netbase_receive_packet_buf(h, p, &got, kFuzzTimeout) : netbase_receive_packet(h, &p, &got, kFuzzTimeout);
        check(rc == expect && (rc == 0 ? static_cast<size_t>(got) == want.size() && memcmp(p, want.data(), want.size()) == 0 : got == cap));
        // Past the packet nothing is written; a packet refused before its
        // data is read leaves the whole buffer alone. (A connection lost in
        // the middle of the data may leave part of it.)
        if (into_buf && rc != OSL_ERR_UNKNOWN)
            for (size_t i = rc == 0 ? want.size() : 0; i < buf.size(); ++i) check(buf[i] == 0xEE);
    }
    check(netbase_close(h) == 0 && close(fd) == 0);
    return 0;
}
