// Netbase: the wire format against a plain-socket peer that writes crafted
// bytes (a table of cases, and the fuzz target's stream model driven by
// seeded inputs), the socket-layer sends of a packet, handle memory, the
// magic rule, argument checks and traces, every way of serving, byte order
// across two processes and a bounded load.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

#define OSTREL_TEST_INTERPOSE_ALLOC
#include "test_util.h"
#include "ostrel_error.h"
// The fuzz target's stream model, header builder and loopback peer.
#include "../fuzz/fuzz_netbase.cpp"

using namespace std::string_literals;
static std::mutex g_mu;
static std::vector<std::string> g_sends; // while recording: each send's first 12 bytes, ':' and its length
static std::atomic<bool> g_record{false};

// This program's socket-layer send comes before the support library's: it
// records the sends and passes them on.
extern "C" int S_SendEx(ZurnSocket *s, const void *buf, uint32_t n, uint32_t timeout) {
    static auto real = reinterpret_cast<decltype(&S_SendEx)>(dlsym(RTLD_NEXT, "S_SendEx"));
    if (g_record) {
        std::lock_guard<std::mutex> lk(g_mu);
        g_sends.push_back(std::string(static_cast<const char *>(buf), std::min(n, 12u)) + ":" + std::to_string(n));
    }
    return real(s, buf, n, timeout);
}

namespace {

constexpr const char *kPath = "src/netbase_api";
constexpr uint32_t kTO = 10000; // generous: only a hang would reach it
constexpr uint32_t PARAM = OSL_ERR_INVALID_PARAMETER, DATA = OSL_ERR_INVALID_DATA, UNK = OSL_ERR_UNKNOWN;

// A header with its lengths in the byte order that bit 0 of b0 announces.
std::string hdr(uint8_t b0, uint32_t ex, uint32_t len, uint8_t r1 = 0, uint8_t r2 = 0, uint8_t version = 0) {
    return header(b0, r1, r2, version, ex, len, (b0 & 1) != 0);
}
const std::string kLE = hdr(0xA6, 0, 0), kBE = hdr(0xA7, 0, 0);

// A line of netbase at `level` reading `text`, or starting with it when it ends in '*'.
bool logged(LogCapture &cap, int level, const std::string &text) {
    const std::string head = text.back() == '*' ? text.substr(0, text.size() - 1) : "";
    const auto lines = cap.lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const LogLine &l) { return l.level == level && l.path == kPath && (head.empty() ? l.text == text : l.text.rfind(head, 0) == 0); });
}

// Every traced function has as many entry traces as exit traces.
void expect_balanced_traces(LogCapture &cap) {
    std::map<std::string, int> open;
    for (const auto &l : cap.lines()) {
        if (l.text.rfind("===>Enter ", 0) == 0) ++open[l.text.substr(10)];
        if (l.text.rfind("<===Exit ", 0) == 0) --open[l.text.substr(9, l.text.find(" with") - 9)];
    }
    for (const auto &f : open) EXPECT_EQ(f.second, 0) << f.first;
}

NetbaseCtx *listen_on(uint32_t *port) {
    NetbaseCtx *l = nullptr;
    EXPECT_EQ(netbase_tcp_establish_listen("127.0.0.1", 0, &l), 0u);
    EXPECT_EQ(netbase_get_listening_info(l, nullptr, port), 0u);
    return l;
}

bool refused(uint32_t port) {
    return tgtest::eventually([port] { const int fd = connect_peer(port); return fd < 0 || close(fd) != 0; });
}

// A plain-socket peer of the model's listen that has sent `bytes` (and
// ended its side when `eof`), and the handle that accepted it.
struct RawPeer {
    int fd;
    NetbaseCtx *h = nullptr;
    explicit RawPeer(const std::string &bytes, bool eof = false) {
        static const int ready = LLVMFuzzerInitialize(nullptr, nullptr); // 0, once the listen is made
        EXPECT_GE(fd = connect_peer(g_port + ready), 0);
        send_all(fd, bytes);
        if (eof) shutdown(fd, SHUT_WR);
        EXPECT_EQ(netbase_accept(g_listen, &h, kTO), 0u);
    }
    ~RawPeer() { netbase_close(h), close(fd); }
};

// Connected callback: handshake and close; then 0, or, when its argument is
// a plan {successes, code}, that code once the successes are used up.
uint32_t serve_once(NetbaseCtx *h, void *arg) {
    EXPECT_EQ(netbase_server_handshake(h, kTO), 0u);
    EXPECT_EQ(netbase_close(h), 0u);
    auto *plan = static_cast<std::pair<int, uint32_t> *>(arg);
    return plan != nullptr && plan->first-- <= 0 ? plan->second : 0u;
}

// A client that connects (through both halves of the handshake) and closes.
bool ping(uint32_t port) {
    NetbaseCtx *c = nullptr;
    return netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTO, &c) == 0 && netbase_close(c) == 0;
}

// The ports of the listens made so far, from their "Establish TCP listen" lines.
std::vector<uint32_t> logged_ports(LogCapture &cap) {
    std::vector<uint32_t> ports;
    unsigned p = 0;
    for (const auto &l : cap.lines())
        if (sscanf(l.text.c_str(), "Establish TCP listen @127.0.0.1:%u.", &p) == 1) ports.push_back(p);
    return ports;
}

TEST(NetbaseWire, CraftedPeerBytesGetTheirCodeMessageAndDump) {
    // The server logs a handshake's lengths as they arrived: little-endian 1 and 2 read in host order.
    const int one = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 1 << 24 : 1;
    const std::string lengths = "Invalid netbase handshake packet: ex_len = " + std::to_string(one) + ", data_len = " + std::to_string(2 * one) + ".";
    const std::string rsv = "Invalid netbase handshake packet(reserve field are not empty with version 0).";
    const std::string closed = " failed: recv: Connection closed by peer.", over = "Packet data length: 268435457 exceed limit.";
    // The stream the peer sends (and ends when eof), the receiving buffer's
    // size, the codes of the handshake and the receive, and the error message
    // logged or else the data delivered.
    const struct { std::string bytes; bool eof; int32_t cap; uint32_t handshake, receive; std::string text; } rows[] = {
        // The server's half checks lengths, then reserved bytes, then magic.
        {hdr(0x12, 1, 2), false, 0, DATA, 0, lengths},
        {hdr(0x12, 0, 0, 1), false, 0, DATA, 0, rsv},
        {hdr(0xA6, 0, 0, 0, 7), false, 0, DATA, 0, rsv},
        {hdr(0x12, 0, 0, 1, 1, 1), false, 0, DATA, 0, "Invalid netbase handshake packet(invalid magic number: 18)."},
        {kLE.substr(0, 5), true, 0, UNK, 0, "Receive netbase packet basic CTX" + closed},
        // A packet's header: reserved bytes, then magic, then byte order, then the limit.
        {kLE + hdr(0xA7, 0, 5) + "hello", false, 64, 0, OSL_ERR_INVALID_FORMAT, "Received packet endian error, expect little endian."},
        {kBE + hdr(0xA6, 0, 5) + "hello", false, 64, 0, OSL_ERR_INVALID_FORMAT, "Received packet endian error, expect big endian."},
        {kLE + hdr(0x10, 0, 5, 1), false, 64, 0, DATA, rsv},
        {kLE + hdr(0x11, 0, 5), false, 64, 0, DATA, "Invalid netbase handshake packet(invalid magic number: 16)."},
        {kLE + hdr(0xA6, 0, 0x10000001), false, 64, 0, OSL_ERR_INVALID_LENGTH, over},
        {kLE + hdr(0xA6, 40, 0x10000001), false, 64, 0, OSL_ERR_INVALID_LENGTH, over},
        {kLE + hdr(0xA6, 0, 100) + std::string(100, 'z'), false, 64, 0, OSL_ERR_NO_MEMORY, "Packet data length: 100 exceed buffer length: 64."},
        // The peer ends inside a packet.
        {kLE + hdr(0xA6, 0, 1).substr(0, 7), true, 64, 0, UNK, "Receive netbase packet basic CTX" + closed},
        {kLE + hdr(0xA6, 30, 1) + "ext", true, 64, 0, UNK, "Receive netbase packet extended CTX" + closed},
        {kLE + hdr(0xA6, 0, 100) + "only ten b", true, 128, 0, UNK, "Receive netbase packet data" + closed},
        // Accepted: version 1 with reserved bytes, extensions on both sides of the
        // 16-byte local area, a buffer of exactly the data's size, a big-endian peer.
        {hdr(0xA6, 0, 0, 9, 9, 1) + hdr(0xA6, 0, 3, 8, 9, 1) + "abc", false, 64, 0, 0, "abc"},
        {kLE + hdr(0xA6, 16, 2) + std::string(16, 'Y') + "ok", false, 2, 0, 0, "ok"},
        {kBE + hdr(0xA7, 40, 300) + std::string(40, 'e') + std::string(300, 'b'), false, 300, 0, 0, std::string(300, 'b')},
    };
    for (const auto &r : rows) {
        LogCapture cap;
        RawPeer peer(r.bytes, r.eof);
        uint32_t rc = netbase_server_handshake(peer.h, kTO);
        EXPECT_EQ(rc, r.handshake) << r.text;
        std::string got(r.cap, '\0');
        int32_t size = r.cap;
        if (rc == 0) {
            EXPECT_TRUE(logged(cap, 1, "Finish handshake with client("s + (r.bytes[0] & 1 ? "big" : "little") + " endian)."));
            EXPECT_EQ(rc = netbase_receive_packet_buf(peer.h, &got[0], &size, kTO), r.receive) << r.text;
        }
        EXPECT_TRUE(rc ? logged(cap, 8, r.text) && size == r.cap : got.substr(0, size) == r.text) << r.text;
        for (const auto &other : rows) // each failure stops at its own check: no later check's message
            EXPECT_TRUE(other.text == r.text || !logged(cap, 8, other.text)) << r.text << " and " << other.text;
        EXPECT_EQ(logged(cap, 1, r.handshake ? "(unsigned char *)&packet_ctx (12 bytes)*" : "(unsigned char *)&ctx (12 bytes)*"), rc == DATA);
        expect_balanced_traces(cap);
    }
}

TEST(NetbaseWire, AMegabyteExtensionIsDroppedThroughABoundedBlock) {
    const uint32_t ex = (1u << 20) + 7; // more than one block, and a short last one
    std::string ext(ex, '\0');
    for (uint32_t i = 0; i < ex; ++i) ext[i] = static_cast<char>(i * 7 % 251);
    RawPeer peer(kLE);
    ASSERT_EQ(netbase_server_handshake(peer.h, kTO), 0u);
    // More than the socket buffers hold: written while the receiver reads.
    std::thread writer([&] { send_all(peer.fd, hdr(0xA6, ex, 5) + ext + "hello" + hdr(0xA6, 0, 3) + "xyz" + hdr(0xA6, ex, 1)); });
    char buf[16];
    int32_t size = 0;
    for (std::string want : {"hello", "xyz"}) {
        EXPECT_EQ(netbase_receive_packet_buf(peer.h, buf, &(size = sizeof buf), kTO), 0u);
        EXPECT_EQ(std::string(buf, size), want);
    }
    writer.join();
    if (!OSTREL_ALLOC_INTERPOSED) return;
    LogCapture cap(LOG_LEVEL_ERROR); // nothing is formatted before the block is allocated
    alloc_failure::fail_allocation_number(0);
    EXPECT_EQ(netbase_receive_packet_buf(peer.h, buf, &size, kTO), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR), (std::vector<std::string>{"src/netbase_api|Error in local_netbase_receive_packet_ctx, alloc(65536) failed.",
                                                                  "src/netbase_api|Receive packet CTX failed."}));
}

TEST(NetbaseWire, SeededStreamsGetTheModelsCodesAndBytes) {
    RawPeer first(kLE); // opens the model's listen
    std::mt19937 rng(7);
    for (int i = 0; i < 300; ++i) {
        std::vector<uint8_t> in(1 + rng() % 1500);
        for (auto &b : in) b = static_cast<uint8_t>(rng());
        if (i % 8 != 0) in[0] &= ~4u; // mostly a well-formed handshake
        LLVMFuzzerTestOneInput(in.data(), in.size());
    }
}

TEST(NetbaseConnection, SendsHandleMemoryTheMagicRuleInfoAndClosing) {
    std::string data(1 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + (i >> 10));
    std::vector<char> buf(data.size());
    int32_t size = 0;
    void *mem = nullptr;
    uint32_t port = 0;
    NetbaseCtx *listen = listen_on(&port), *client = nullptr, *server = nullptr;
    g_record = true;
    std::thread accepting([&] {
        EXPECT_EQ(netbase_accept(listen, &server, kTO), 0u);
        EXPECT_EQ(netbase_server_handshake(server, kTO), 0u);
    });
    EXPECT_EQ(netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTO, &client), 0u);
    accepting.join();
    EXPECT_EQ(std::exchange(g_sends, {}), std::vector<std::string>(2, kLE + ":12")); // both halves of the handshake
    // A packet is one send of its header and up to 1,428 data bytes, plus one for the rest.
    const std::pair<int32_t, std::vector<std::string>> cases[] = {
        {0, {}}, {1, {"13"}}, {1428, {"1440"}}, {1429, {"1440", "1"}}, {2, {"14"}}, {1 << 20, {"1440", "1047148"}}};
    for (const auto &c : cases) {
        ASSERT_EQ(netbase_send_packet(client, data.data(), c.first, kTO), 0u);
        std::vector<std::string> sends = std::exchange(g_sends, {}), lengths;
        for (const std::string &s : sends) lengths.push_back(s.substr(s.rfind(':') + 1));
        EXPECT_EQ(lengths, c.second) << c.first;
        if (c.first == 0) continue; // nothing went out
        EXPECT_EQ(sends[0].substr(0, 12), hdr(0xA6, 0, c.first));
        ASSERT_EQ(netbase_receive_packet_buf(server, buf.data(), &(size = static_cast<int32_t>(buf.size())), kTO), 0u);
        EXPECT_TRUE(std::string(buf.data(), size) == data.substr(0, c.first));
    }
    g_record = false;
    // Handle memory is allocated for the first packet with no capacity recorded, so the second grows it once.
    for (const auto &packet : std::vector<std::pair<int32_t, long>>{{10, 1}, {5, 1}, {5, 0}, {3, 0}}) { // size, allocations
        ASSERT_EQ(netbase_send_packet(server, data.data(), packet.first, kTO), 0u);
        const long before = alloc_failure::allocation_count();
        ASSERT_EQ(netbase_receive_packet(client, &mem, &size, kTO), 0u);
        EXPECT_EQ(OSTREL_ALLOC_INTERPOSED ? alloc_failure::allocation_count() - before : packet.second, packet.second) << packet.first;
    }
    LogCapture cap;

    // Only the upper 24 bits of the magic count; a wrong magic is logged by each call, which goes on.
    uint32_t *magic[] = {reinterpret_cast<uint32_t *>(client), reinterpret_cast<uint32_t *>(server)};
    *magic[0] = *magic[1] = 0xD0845C7Fu;
    ASSERT_EQ(netbase_send_packet(client, "a", 1, kTO), 0u);
    EXPECT_TRUE(cap.texts(LOG_LEVEL_ERROR).empty());
    *magic[0] = *magic[1] = 0;
    ASSERT_EQ(netbase_receive_packet_buf(server, buf.data(), &(size = 4), kTO) + netbase_send_packet(server, "b", 1, kTO), 0u);
    ASSERT_EQ(netbase_receive_packet(client, &mem, &size, kTO), 0u);
    EXPECT_EQ(std::string(buf.data(), 1) + static_cast<char *>(mem)[0], "ab");
    // A client handle is not accepted: no server handshake on it.
    EXPECT_TRUE(netbase_server_handshake(client, 1) == OSL_ERR_INVALID_STATUS && netbase_get_listening_info(client, nullptr, nullptr) == 0);
    for (const char *fn : {"netbase_send_packet", "local_netbase_serialize_packet_ctx", "local_netbase_receive_packet_ctx",
                           "local_netbase_deserialize_packet_ctx", "netbase_server_handshake", "netbase_get_listening_info"})
        EXPECT_TRUE(logged(cap, 8, "Error in "s + fn + ". Errno=0x00090010. ErrInfo=[ostrel]Invalid handle.")) << fn;
    EXPECT_TRUE(logged(cap, 8, "Error handle status, expect handle in accepted status."));
    *magic[0] = *magic[1] = 0xD0845C00u;

    // An accepted handle copies the listen's address (into its own text) and port; a client has neither.
    const char *addr[3] = {};
    uint32_t copied = 0;
    ASSERT_EQ(netbase_get_info(server, NETBASE_INFO_ADDRESS, &addr[0]) + netbase_get_info(server, NETBASE_INFO_PORT, &copied) +
                  netbase_get_listening_info(listen, &addr[1], nullptr) + netbase_get_info(client, NETBASE_INFO_ADDRESS, &addr[2]),
              0u);
    EXPECT_TRUE(copied == port && addr[0] != addr[1] && addr[2] == nullptr && netbase_get_info(client, NETBASE_INFO_PORT, nullptr) == 0);
    EXPECT_EQ(std::string(addr[0]) + std::string(addr[1]), "127.0.0.1127.0.0.1");
    cap.clear();
    EXPECT_EQ(netbase_close(client) + netbase_close(server) + netbase_close(listen), 0u);
    // The client has handle memory, the server and the listen none: two warnings.
    EXPECT_EQ(cap.texts(LOG_LEVEL_WARN), (std::vector<std::string>(2, "src/netbase_api|Free null in netbase_close.")));
}

TEST(NetbaseConnection, ArgumentChecksLogTheirConditionAndLeaveTheLastError) {
    LogCapture cap;
    uint32_t port = 0;
    NetbaseCtx *l = listen_on(&port), *h = nullptr;
    // A time-out stores 0x90001; no argument check below stores its code.
    EXPECT_EQ(netbase_accept(l, &h, 30), UNK);
    EXPECT_TRUE(logged(cap, 8, "Invoke S_Accept failed: accept: Timed out after 30 ms"));
    int32_t neg = -1, *b = &neg; // a size below zero, and a 4-byte buffer
    const NetbaseServerInfo info{"127.0.0.1", 0, serve_once, nullptr};
    const std::tuple<const char *, const char *, std::function<uint32_t()>> rows[] = {
        {"netbase_client_tcp_connect", "'\\0' != *addr", [&] { return netbase_client_tcp_connect("", 1, &kTO, &h); }},
        {"netbase_client_tcp_connect", "NULL != phandle", [&] { return netbase_client_tcp_connect("127.0.0.1", 1, &kTO, nullptr); }},
        {"netbase_send_packet", "NULL != handle", [&] { return netbase_send_packet(nullptr, b, 1, 1); }},
        {"netbase_send_packet", "NULL != buffer", [&] { return netbase_send_packet(l, nullptr, 1, 1); }},
        {"netbase_send_packet", "size >= 0", [&] { return netbase_send_packet(l, b, -1, 1); }},
        {"netbase_send_packet", "size <= NETBASE_PACKET_LENGTH_MAX", [&] { return netbase_send_packet(l, b, NETBASE_PACKET_LENGTH_MAX + 1, 1); }},
        {"netbase_receive_packet_buf", "*size >= 0", [&] { return netbase_receive_packet_buf(nullptr, b, &neg, 1); }},
        {"netbase_receive_packet", "NULL != size", [&] { return netbase_receive_packet(l, reinterpret_cast<void **>(&h), nullptr, 1); }},
        {"netbase_close", "NULL != pCtx", [&] { return netbase_close(nullptr); }},
        {"netbase_get_info", "", [&] { return netbase_get_info(l, 4, b); }},
        {"netbase_server_handshake", "NULL != handle", [&] { return netbase_server_handshake(nullptr, 1); }},
        {"local_netbase_tcp_create_listen", "'\\0' != *ip_addr", [&] { return netbase_tcp_establish_listen("", 0, &h); }},
        {"local_netbase_tcp_create_listen", "ip_port >= 0", [&] { return netbase_tcp_establish_listen("127.0.0.1", -1, &h); }},
        {"netbase_tcp_server", "NULL != cb", [&] { return netbase_tcp_server("127.0.0.1", 0, nullptr, nullptr); }},
        {"netbase_tcp_server_multi", "number > 0", [&] { return netbase_tcp_server_multi(&info, 0); }},
        {"netbase_wait_connection", "NULL != cb", [&] { return netbase_wait_connection(l, nullptr, nullptr, 1); }},
        {"netbase_accept", "NULL != new_handle", [&] { return netbase_accept(l, nullptr, 1); }},
        {"netbase_set_big_endian", "", [&] { return netbase_set_big_endian(2); }},
    };
    for (const auto &[fn, cond, call] : rows) {
        cap.clear();
        EXPECT_EQ(call(), PARAM) << fn << " " << cond;
        const std::vector<std::string> errors = cap.texts(LOG_LEVEL_ERROR);
        EXPECT_EQ(errors.empty() ? "" : errors[0], *cond ? "src/netbase_api|Error in "s + fn + ", assert(" + cond + ") failed." : "");
        EXPECT_TRUE(logged(cap, 1, "<===Exit "s + fn + " with 0x9000f")) << fn << " " << cond;
        expect_balanced_traces(cap);
        EXPECT_EQ(Ostrel_GetLastError(), UNK) << fn << " " << cond;
    }
    EXPECT_EQ(netbase_close(l), 0u);
}

TEST(NetbaseServe, OnTheCallerThreadOnOneListenOrOnSeveral) {
    LogCapture cap;
    // On the caller's thread, until a stop is requested from another thread.
    uint32_t port = 0;
    NetbaseCtx *listen = listen_on(&port);
    std::thread helper([&] {
        EXPECT_TRUE(ping(port));
        EXPECT_EQ(netbase_close(listen), 0u); // only a stop request while it serves
    });
    EXPECT_EQ(netbase_wait_connection(listen, serve_once, nullptr, 0), 0u);
    helper.join();
    EXPECT_TRUE(logged(cap, 1, "Shutdown TCP server @127.0.0.1:" + std::to_string(port) + "."));
    EXPECT_TRUE(refused(port)); // released before returning
    EXPECT_TRUE(!ping(port) && logged(cap, 8, "Invoke S_Client failed: connect: Connection refused"));

    // netbase_tcp_server serves until its callback fails, and returns that code.
    std::pair<int, uint32_t> fail_second{1, 9};
    uint32_t result = 1;
    std::thread server([&] { result = netbase_tcp_server("127.0.0.1", 0, serve_once, &fail_second); });
    ASSERT_TRUE(tgtest::eventually([&] { return logged_ports(cap).size() == 2; }));
    port = logged_ports(cap)[1];
    EXPECT_TRUE(ping(port) && ping(port));
    server.join();
    EXPECT_EQ(result, 9u);
    EXPECT_TRUE(logged(cap, 1, "Begin moniter port.") && logged(cap, 8, "Call connected callback fail: 9."));
    EXPECT_TRUE(refused(port));

    // The multi-listen server drops a listen whose serving fails and goes on
    // with the others until none is left.
    cap.clear();
    fail_second = {1, 9};
    const NetbaseServerInfo info[] = {{"127.0.0.1", 0, nullptr, nullptr}, {"127.0.0.1", 0, serve_once, &fail_second}};
    server = std::thread([&] { result = netbase_tcp_server_multi(info, 2); });
    ASSERT_TRUE(tgtest::eventually([&] { return logged(cap, 1, "Begin moniter port."); }));
    std::vector<uint32_t> ports = logged_ports(cap);
    ASSERT_TRUE(ports.size() == 2u && refused(ports[0])); // no callback: not accepted, the listen is dropped
    EXPECT_TRUE(ping(ports[1]) && ping(ports[1]));
    server.join();
    EXPECT_TRUE(result == 0 && logged(cap, 8, "No callback function to process incoming connection") && logged(cap, 1, "All the listens terminated."));
    EXPECT_TRUE(refused(ports[1]));

    // An address that cannot be bound closes the listens made before it.
    cap.clear();
    const NetbaseServerInfo bad[] = {{"127.0.0.1", 0, serve_once, nullptr}, {"192.0.2.1", 0, serve_once, nullptr}, // TEST-NET-1: never local
                                     {"127.0.0.1", 0, serve_once, nullptr}};
    EXPECT_EQ(netbase_tcp_server_multi(bad, 3), UNK);
    EXPECT_TRUE(logged(cap, 1, "Launch TCP server @192.0.2.1:0.") && logged(cap, 8, "Create listen on 192.0.2.1:0 failed.") &&
                logged(cap, 8, "Invoke S_Bind failed: bind: Cannot assign requested address") && !logged(cap, 1, "Begin moniter port."));
    ports = logged_ports(cap);
    EXPECT_TRUE(ports.size() == 1u && refused(ports[0])); // the third was never made

    expect_balanced_traces(cap);
}

TEST(NetbaseLoad, ABigEndianProcessOfSixtyFourClientsEchoesAThousandPacketsEachThroughAWorker) {
    constexpr int kClients = 64, kPackets = 1000, kMax = 64 * 1024;
    uint32_t port = 0;
    static NetbaseCtx *listen = nullptr, *conn = nullptr; // static: the client process leaks none of what it inherits
    listen = listen_on(&port);
    const pid_t pid = fork();
    if (pid == 0) { // the clients, in a process that writes its headers big-endian
        std::atomic<int> compared{netbase_set_big_endian(1) == 0 ? 0 : -1};
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c)
            clients.emplace_back([&, c] {
                NetbaseCtx *h = nullptr;
                std::mt19937 rng(c + 1);
                std::vector<uint32_t> out(kMax / 4), in(kMax / 4);
                int done = netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTO, &h) == 0 ? 0 : -1;
                for (int i = 0; i < kPackets && done == i; ++i) {
                    // Sizes spread evenly over the octaves from 1 byte to 64 KiB; the first two are the extremes.
                    const int n = i == 0 ? 1 : i == 1 ? kMax : static_cast<int>(std::exp2(rng() % 1601 / 100.0));
                    for (int w = 0; w < (n + 3) / 4; ++w) out[w] = rng();
                    int32_t size = kMax;
                    done += netbase_send_packet(h, out.data(), n, kTO) == 0 && netbase_receive_packet_buf(h, in.data(), &size, kTO) == 0 &&
                            size == n && memcmp(out.data(), in.data(), n) == 0;
                }
                compared += done;
                netbase_close(h);
            });
        for (auto &t : clients) t.join();
        std::vector<std::thread>().swap(clients); // _exit skips destructors: nothing left for valgrind to see
        _exit(compared != kClients * kPackets);
    }
    // Each connection is echoed by a thread of its own until the client closes.
    auto on_connection = [](NetbaseCtx *h, void *arg) -> uint32_t {
        auto *counts = static_cast<std::atomic<int> *>(arg);
        ++counts[1];
        std::thread([h, counts] {
            void *mem = nullptr;
            int32_t size = 0;
            if (netbase_server_handshake(h, kTO) == 0)
                while (netbase_receive_packet(h, &mem, &size, 0) == 0 && netbase_send_packet(h, mem, size, kTO) == 0) ++counts[0];
            netbase_close(h);
            --counts[1];
        }).detach();
        return 0u;
    };
    std::atomic<int> counts[2] = {}; // packets echoed, connections being served
    ASSERT_EQ(netbase_wait_connection(listen, on_connection, counts, 1), 0u);
    EXPECT_EQ(netbase_accept(listen, &conn, 1), OSL_ERR_INVALID_STATUS); // the worker serves it
    EXPECT_EQ(netbase_wait_connection(listen, on_connection, counts, 1), OSL_ERR_INVALID_STATUS);
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "lost or corrupted packets in the client process";
    EXPECT_TRUE(tgtest::eventually([&] { return counts[1] == 0; }));
    EXPECT_EQ(counts[0].load(), kClients * kPackets);
    ASSERT_EQ(netbase_close(listen), 0u); // from this thread: only the stop is requested
    EXPECT_TRUE(refused(port));           // the worker has released the listen
}

} // namespace
