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
// A packet of up to the data limit received into handle-owned memory is
// allocated before it is read; inputs that reach such a header with a length
// over kAllocBound end the session there rather than spend the memory.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ostrel_common.h"
#include "ostrel_netbase.h"
#include "fuzz_check.h"


namespace {

constexpr uint32_t kTimeout = 5000; // never reached: the peer's side is closed
constexpr size_t kStreamMax = 16384; // fits the loopback buffers, so the peer never blocks
constexpr uint32_t kAllocBound = 1u << 20;
constexpr uint8_t kMagic = 0xA6;


struct Input {
    const uint8_t *p;
    size_t n;
    uint8_t byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
};

void put32(std::string &s, uint32_t v, bool big) {
    for (int i = 0; i < 4; ++i) s += static_cast<char>(v >> (big ? 24 - 8 * i : 8 * i));
}

uint32_t get32(const uint8_t *p, bool big) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(p[i]) << (big ? 24 - 8 * i : 8 * i);
    return v;
}

void header(std::string &s, uint8_t b0, uint8_t r1, uint8_t r2, uint8_t version, uint32_t ex, uint32_t data,
            bool big) {
    s += static_cast<char>(b0);
    s += static_cast<char>(r1);
    s += static_cast<char>(r2);
    s += static_cast<char>(version);
    put32(s, ex, big);
    put32(s, data, big);
}

// The stream as the receiver must see it.
struct Model {
    std::string s;
    size_t pos = 0;
    uint32_t peer = 0;

    size_t left() const { return s.size() - pos; }
    const uint8_t *at() const { return reinterpret_cast<const uint8_t *>(s.data()) + pos; }

    uint32_t handshake() {
        if (left() < 12) return OSL_ERR_UNKNOWN;
        const uint8_t *h = at();
        pos += 12;
        for (int i = 4; i < 12; ++i)
            if (h[i] != 0) return OSL_ERR_INVALID_DATA;
        if (h[3] == 0 && (h[1] != 0 || h[2] != 0)) return OSL_ERR_INVALID_DATA;
        if ((h[0] & 0xFE) != kMagic) return OSL_ERR_INVALID_DATA;
        peer = h[0] & 1u;
        return 0;
    }

    // Predicts one receive. cap < 0: into handle-owned memory. Sets *skip
    // when the call would allocate more than the bound for the data.
    uint32_t receive(int64_t cap, std::string *data, bool *skip) {
        *skip = false;
        if (left() < 12) return OSL_ERR_UNKNOWN;
        const uint8_t *h = at();
        uint32_t bad = 0;
        if (h[3] == 0 && (h[1] != 0 || h[2] != 0))
            bad = OSL_ERR_INVALID_DATA;
        else if ((h[0] & 0xFE) != kMagic)
            bad = OSL_ERR_INVALID_DATA;
        else if ((h[0] & 1u) != peer)
            bad = OSL_ERR_INVALID_FORMAT;
        if (bad != 0) {
            pos += 12;
            return bad;
        }
        const uint32_t ex = get32(h + 4, peer != 0), len = get32(h + 8, peer != 0);
        if (cap < 0 && len <= NETBASE_PACKET_LENGTH_MAX && len > kAllocBound) {
            *skip = true;
            return 0;
        }
        pos += 12;
        if (len > NETBASE_PACKET_LENGTH_MAX) return OSL_ERR_INVALID_LENGTH;
        if (left() < ex) return OSL_ERR_UNKNOWN;
        pos += ex;
        if (cap >= 0 && len > static_cast<uint64_t>(cap)) return OSL_ERR_NO_MEMORY; // data left unread
        if (left() < len) return OSL_ERR_UNKNOWN;
        data->assign(s, pos, len);
        pos += len;
        return 0;
    }
};

// Builds the peer's stream from the input. Returns the receive method of
// each call (true: the caller's buffer).
std::vector<bool> build(Input &in, Model &m, uint8_t cfg) {
    const bool peer_big = (cfg & 2) != 0;
    if (cfg & 4) {
        for (int i = 0; i < 12; ++i) m.s += static_cast<char>(in.byte());
    } else {
        header(m.s, kMagic | (peer_big ? 1 : 0), 0, 0, 0, 0, 0, false);
    }
    std::vector<bool> methods;
    while (in.n > 0 && m.s.size() < kStreamMax) {
        const uint8_t f = in.byte();
        methods.push_back((f & 8) != 0);
        const uint8_t order = kMagic | (peer_big ? 1 : 0);
        const uint32_t ex = in.byte() % 24u; // both sides of the 16-byte local area
        uint32_t len = (in.byte() | static_cast<uint32_t>(in.byte()) << 8) & 0x1FFFu;
        switch (f & 7u) {
        case 3: // written in the other byte order
            header(m.s, order ^ 1, 0, 0, 0, ex, len, !peer_big);
            break;
        case 4: { // cut short: the stream ends inside the packet
            header(m.s, order, 0, 0, 0, ex, len, peer_big);
            m.s.append(ex + len / 2, 'c');
            return methods;
        }
        case 5: { // raw bytes
            const size_t n = in.byte() % 32u;
            for (size_t i = 0; i < n; ++i) m.s += static_cast<char>(in.byte());
            continue;
        }
        case 6: // over the data limit
            len = NETBASE_PACKET_LENGTH_MAX + 1u + in.byte();
            header(m.s, order, 0, 0, 0, ex, len, peer_big);
            continue;
        case 7: { // reserved bytes or a version
            const uint8_t r1 = in.byte(), version = in.byte();
            header(m.s, order, r1, 0, version, ex, len, peer_big);
            break;
        }
        default:
            header(m.s, order, 0, 0, 0, ex, len, peer_big);
            break;
        }
        m.s.append(ex, 'e');
        for (uint32_t i = 0; i < len; ++i) m.s += static_cast<char>(in.n ? in.byte() : i);
    }
    return methods;
}

NetbaseCtx *g_listen = nullptr;
uint32_t g_port = 0;

int connect_peer() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(fd >= 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(g_port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0);
    // Closing resets the connection: no TIME_WAIT left behind per input.
    linger lg{1, 0};
    check(setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg) == 0);
    return fd;
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
    const std::vector<bool> methods = build(in, m, cfg);
    const int32_t cap = (cfg >> 3) * 331; // 0 .. 10261 bytes

    const int fd = connect_peer();
    NetbaseCtx *h = nullptr;
    check(netbase_accept(g_listen, &h, kTimeout) == 0 && h != nullptr);
    for (size_t off = 0; off < m.s.size();) {
        const ssize_t n = send(fd, m.s.data() + off, m.s.size() - off, MSG_NOSIGNAL);
        check(n > 0);
        off += static_cast<size_t>(n);
    }
    check(shutdown(fd, SHUT_WR) == 0);

    check(netbase_set_big_endian(cfg & 1) == 0);
    uint32_t rc = netbase_server_handshake(h, kTimeout);
    check(rc == m.handshake());
    std::vector<uint8_t> buf(static_cast<size_t>(cap) + 64);
    for (size_t call = 0; rc == 0 || rc == OSL_ERR_NO_MEMORY; ++call) {
        const bool into_buf = call < methods.size() ? methods[call] : call % 2 == 0;
        std::string want;
        bool skip = false;
        const uint32_t expect = m.receive(into_buf ? cap : -1, &want, &skip);
        if (skip) break;
        if (into_buf) {
            memset(buf.data(), 0xEE, buf.size());
            int32_t got = cap;
            rc = netbase_receive_packet_buf(h, buf.data(), &got, kTimeout);
            check(rc == expect);
            if (rc == 0) {
                check(got >= 0 && static_cast<size_t>(got) == want.size());
                check(memcmp(buf.data(), want.data(), want.size()) == 0);
            } else {
                check(got == cap);
            }
            // Past the packet nothing is written; a packet refused before its
            // data is read leaves the whole buffer alone. (A connection lost
            // in the middle of the data may leave part of it.)
            if (rc != OSL_ERR_UNKNOWN)
                for (size_t i = rc == 0 ? want.size() : 0; i < buf.size(); ++i) check(buf[i] == 0xEE);
        } else {
            void *p = nullptr;
            int32_t got = -1;
            rc = netbase_receive_packet(h, &p, &got, kTimeout);
            check(rc == expect);
            if (rc == 0) {
                check(p != nullptr && got >= 0 && static_cast<size_t>(got) == want.size());
                check(memcmp(p, want.data(), want.size()) == 0);
            }
        }
    }
    check(netbase_close(h) == 0);
    close(fd);
    return 0;
}
