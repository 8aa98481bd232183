// The example programs end to end, as real processes: ostrel-kvd driven by
// ostrel-kv, by the protocol client and by raw sockets sending garbage, and
// the packet inspector on packets written by the serializer. A new check of
// a program's output is one more row of a table below.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kv_protocol.h"

namespace {

// The shell words that start an example: in a cross build through the
// emulator that OSTREL_TARGET_EMULATOR names (e.g. "qemu-s390x -L /usr/s390x-linux-gnu").
std::string program(const char *name) {
    const char *emu = getenv("OSTREL_TARGET_EMULATOR");
    return std::string(emu ? emu : "") + " " + OSTREL_EXAMPLES_DIR + "/" + name;
}

std::string read_text(const std::string &path) {
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

// Runs a shell command line; returns its standard output and exit status.
std::pair<std::string, int> run(const std::string &cmd) {
    FILE *p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[512];
    while (p && fgets(buf, sizeof buf, p)) out += buf;
    int st = p ? pclose(p) : -1;
    return {out, WIFEXITED(st) ? WEXITSTATUS(st) : -1};
}

struct TempDir {
    std::string path;
    TempDir() {
        char t[] = "/tmp/ostrel_kv_XXXXXX";
        path = mkdtemp(t) ? t : "/tmp";
    }
    ~TempDir() { std::filesystem::remove_all(path); }
};

// A running ostrel-kvd on a port the system chose, logging into a directory
// that also holds its pid file.
class KvService : public ::testing::Test {
protected:
    void SetUp() override {
        if (!*OSTREL_EXAMPLES_DIR) GTEST_SKIP() << "examples not built";
        out_ = popen(("ZURN_LOG_DIR=" + dir_.path + " ZURN_LOG_LEVEL=INFO exec " + kvd_command() + " 2>>" +
                      dir_.path + "/stderr.txt")
                         .c_str(),
                     "r");
        ASSERT_NE(out_, nullptr);
        std::string line = next_line();
        ASSERT_EQ(sscanf(line.c_str(), "ostrel-kvd: listening on 127.0.0.1:%d (pid %d)", &port_, &pid_), 2) << line;
        ASSERT_EQ(client_.connect("127.0.0.1", port_), 0u);
    }
    void TearDown() override {
        if (out_ != nullptr) stop();
    }
    std::string kvd_command() { return program("ostrel-kvd") + " --port 0 --pid-dir " + dir_.path; }
    std::string next_line() {
        char buf[256] = "";
        return fgets(buf, sizeof buf, out_) ? buf : "";
    }
    // SIGTERM; the exit status and the last line the service printed.
    std::pair<int, std::string> stop() {
        if (pid_ > 0) kill(pid_, SIGTERM);
        std::string last = next_line();
        int st = pclose(out_);
        out_ = nullptr;
        return {st, last};
    }
    std::string log() { return read_text(dir_.path + "/ostrel-kvd.log"); }

    TempDir dir_;
    FILE *out_ = nullptr;
    int port_ = 0, pid_ = 0;
    kv::Client client_;
};

TEST_F(KvService, CommandLineClientInOrder) {
    // Arguments, what the client prints (a prefix when it ends in "..."), its exit status.
    const struct {
        const char *args, *out;
        int status;
    } rows[] = {
        {"put pear pear!", "ok\n", 0},
        {"put apple apple!", "ok\n", 0},
        {"put fig 'fig tree'", "ok\n", 0},
        {"put apple green", "ok\n", 0}, // replaces
        {"put empty ''", "ok\n", 0},
        {"get apple", "green\n", 0},
        {"get empty", "\n", 0},
        {"count", "4\n", 0},
        {"list", "apple=green\nempty=\nfig=fig tree\npear=pear!\n", 0},
        {"del fig", "ok\n", 0},
        {"del empty", "ok\n", 0},
        {"count", "2\n", 0},
        {"get fig", "error 0x90018: Can not find specified item(node,element).\n", 1},
        {"del fig", "error 0x90018: Can not find specified item(node,element).\n", 1},
        {"get", "", 2},
        {"bench --clients 2 --requests 50 2>/dev/null", "bench: 2 clients x 50 requests: 100 ok, 0 failed...", 0},
        {"list", "apple=green\nbench-0-0=value-0\n...", 0},
    };
    for (const auto &r : rows) {
        auto [out, status] = run(program("ostrel-kv") + " --port " + std::to_string(port_) + " " + r.args);
        std::string want = r.out;
        if (want.size() > 3 && want.compare(want.size() - 3, 3, "...") == 0) {
            want.resize(want.size() - 3);
            out.resize(std::min(out.size(), want.size()));
        }
        EXPECT_EQ(out, want) << r.args;
        EXPECT_EQ(status, r.status) << r.args;
    }
}

// Sends one request packet over the test's connection; the reply's code and text.
std::pair<uint32_t, std::string> exchange(NetbaseCtx *conn, const std::vector<unsigned char> &pkt) {
    void *in = nullptr;
    int32_t len = 0;
    Ostrel_Serializer *h = nullptr;
    int32_t code = -1;
    char *text = nullptr;
    if (netbase_send_packet(conn, pkt.data(), static_cast<int32_t>(pkt.size()), kv::kTimeoutMs) != 0 ||
        netbase_receive_packet(conn, &in, &len, kv::kTimeoutMs) != 0 ||
        Ostrel_Serializer_DeserializeInit(static_cast<unsigned char *>(in), len, &h) != 0)
        return {~0u, "no reply"};
    Ostrel_Serializer_Deserialize(h, "%1.d @2.s", &code, &text);
    std::pair<uint32_t, std::string> r{static_cast<uint32_t>(code), text ? text : "NULL"};
    Ostrel_Serializer_Destroy(h);
    return r;
}

TEST_F(KvService, RequestsTheClientCannotMakeAreAnsweredWithTheirCode) {
    // A packet written with fmt from (op, key, value), or with no fmt 14 bytes that are no packet.
    const struct {
        const char *fmt;
        int32_t op;
        const char *key, *value;
        uint32_t code;
        const char *text;
    } rows[] = {
        {"%1.d %2.s %3.s", 99, "k", "v", OSL_ERR_INVALID_COMMAND, "Invalid command."},
        {"%1.d %2.s %3.s", kv::KV_OP_PUT, nullptr, "v", OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
        {"%1.d %2.s %3.s", kv::KV_OP_PUT, "k", nullptr, OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
        {"%1.d %2.s", kv::KV_OP_GET, nullptr, nullptr, OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
        {"%1.d %2.s", kv::KV_OP_DEL, nullptr, nullptr, OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
        {"%1.d", kv::KV_OP_GET, nullptr, nullptr, OSL_ERR_NOT_FOUND, "Can not find specified item(node,element)."},
        {"%1.d %2.s", kv::KV_OP_GET, "absent", nullptr, OSL_ERR_NOT_FOUND,
         "Can not find specified item(node,element)."},
        {nullptr, 0, nullptr, nullptr, OSL_ERR_INVALID_DATA, "Invalid data content."},
        {"%1.d %2.s %3.s", kv::KV_OP_PUT, "still", "here", 0, "NULL"},
    };
    for (const auto &r : rows) {
        std::vector<unsigned char> pkt{0xE2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
        if (r.fmt != nullptr) {
            Ostrel_SerializerConfig cfg = kv::packet_config();
            Ostrel_Serializer *h = nullptr;
            unsigned char *buf = nullptr;
            int len = 0;
            ASSERT_EQ(Ostrel_Serializer_SerializeInit(&cfg, &h), 0u);
            ASSERT_EQ(Ostrel_Serializer_Serialize(h, OSL_SLZ_MODE_APPEND, r.fmt, r.op, r.key, r.value), 0u);
            ASSERT_EQ(Ostrel_Serializer_GetBuffer(h, &buf, &len), 0u);
            pkt.assign(buf, buf + len);
            Ostrel_Serializer_Destroy(h);
        }
        EXPECT_EQ(exchange(client_.handle(), pkt), std::make_pair(r.code, std::string(r.text))) << (r.fmt ? r.fmt : "raw");
    }
    kv::Reply got;
    EXPECT_EQ(client_.call(kv::KV_OP_GET, "still", nullptr, got), 0u);
    EXPECT_EQ(got.value, "here");
    EXPECT_NE(log().find("Malformed request (14 bytes): 0x90012 Invalid data content."), std::string::npos);
    EXPECT_NE(log().find("Unknown request operation 99"), std::string::npos);
}

TEST_F(KvService, GarbageOnTheWireClosesOnlyThatConnection) {
    // Not a handshake; a handshake then a header of the wrong magic; a header announcing 2 GiB.
    for (const std::string &garbage : {std::string("GET / HTTP/1.0\r\n\r\n"), std::string(12, '\xA6'),
                                       std::string("\xA6\0\0\0\0\0\0\0\xff\xff\xff\x7f", 12)}) {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port_));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        ASSERT_EQ(send(s, garbage.data(), garbage.size(), MSG_NOSIGNAL), static_cast<ssize_t>(garbage.size()));
        timeval tv{10, 0};
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        char sink[64];
        ssize_t n;
        while ((n = recv(s, sink, sizeof sink, 0)) > 0) {
        }
        EXPECT_EQ(n, 0) << "the service should close the connection";
        close(s);
    }
    kv::Reply r;
    EXPECT_EQ(client_.call(kv::KV_OP_PUT, "alive", "yes", r), 0u);
    EXPECT_EQ(client_.call(kv::KV_OP_GET, "alive", nullptr, r), 0u);
    EXPECT_EQ(r.value, "yes");
}

TEST_F(KvService, SecondInstanceOnThePidDirectoryIsRefused) {
    auto [out, status] = run("ZURN_LOG_DIR=" + dir_.path + " " + kvd_command() + " 2>&1");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "ostrel-kvd: cannot start: 0x90001 Unknown error.\n");
    std::string pid_file = dir_.path + "/qmv_ns_ostrel-kvd.pid";
    EXPECT_EQ(read_text(pid_file), std::to_string(pid_) + "\n");
    EXPECT_NE(read_text(dir_.path + "/ostrel.log").find("PID file " + pid_file + " is locked."), std::string::npos);
}

TEST_F(KvService, SigtermStopsCleanlyWithConnectionsOpen) {
    kv::Client idle;
    kv::Reply r;
    ASSERT_EQ(idle.connect("127.0.0.1", port_), 0u);
    EXPECT_EQ(client_.call(kv::KV_OP_PUT, "a", "b", r), 0u);
    auto [status, last] = stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(last, "ostrel-kvd: stopped\n");
    EXPECT_NE(idle.call(kv::KV_OP_COUNT, nullptr, nullptr, r), 0u); // its connection was closed
    EXPECT_NE(log().find("Stopped"), std::string::npos);
}

TEST_F(KvService, ManyClientsAtOnceLoseNothing) {
    constexpr int kClients = 32, kPairs = 250;
    std::atomic<int> bad{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < kClients; ++t)
        ts.emplace_back([&, t] {
            kv::Client c;
            kv::Reply r;
            if (c.connect("127.0.0.1", port_) != 0) bad += kPairs;
            for (int i = 0; i < kPairs && c.handle() != nullptr; ++i) {
                std::string key = "k" + std::to_string(t) + "." + std::to_string(i), value = std::to_string(t * 7919 + i);
                if (c.call(kv::KV_OP_PUT, key.c_str(), value.c_str(), r) != 0 || r.code != 0) ++bad;
                if (c.call(kv::KV_OP_GET, key.c_str(), nullptr, r) != 0 || r.code != 0 || r.value != value) ++bad;
            }
        });
    for (auto &t : ts) t.join();
    EXPECT_EQ(bad.load(), 0);
    kv::Reply r;
    EXPECT_EQ(client_.call(kv::KV_OP_COUNT, nullptr, nullptr, r), 0u);
    EXPECT_EQ(r.count, kClients * kPairs);
}

TEST(PacketDump, PrintsTheTreeOfAPacketAndTheReasonForABadOne) {
    if (!*OSTREL_EXAMPLES_DIR) GTEST_SKIP() << "examples not built";
    Ostrel_SerializerConfig cfg{0, 1, 4, 0, 0}; // big-endian, unordered
    Ostrel_Serializer *inner = nullptr, *outer = nullptr;
    ASSERT_EQ(Ostrel_Serializer_SerializeInit(&cfg, &inner), 0u);
    ASSERT_EQ(Ostrel_Serializer_Serialize(inner, OSL_SLZ_MODE_APPEND, "%1.s", "nested"), 0u);
    ASSERT_EQ(Ostrel_Serializer_SerializeInit(&cfg, &outer), 0u);
    int16_t arr[3] = {-1, 2, 300};
    ASSERT_EQ(Ostrel_Serializer_Serialize(outer, OSL_SLZ_MODE_APPEND, "%7.d %3.ah %9.s %4.b %5.s", -42, arr, 3,
                                          "hi \"there\"", inner, nullptr),
              0u);
    unsigned char *buf = nullptr;
    int len = 0;
    ASSERT_EQ(Ostrel_Serializer_GetBuffer(outer, &buf, &len), 0u);
    std::string pkt(reinterpret_cast<char *>(buf), static_cast<size_t>(len));
    Ostrel_Serializer_Destroy(inner);
    Ostrel_Serializer_Destroy(outer);

    TempDir d;
    const std::string file = d.path + "/pkt.bin", dump = program("ostrel-pktdump") + " --raw " + file;
    std::ofstream(file, std::ios::binary) << pkt;
    EXPECT_EQ(run(dump), std::make_pair("packet: big-endian, align 4, unordered, length " + std::to_string(len) +
                                            ", 5 items, header 12, items at 32\n"
                                            "  item 0 (index 7): int32 -42\n"
                                            "  item 1 (index 3): int16[3] { -1, 2, 300 }\n"
                                            "  item 2 (index 9): string \"hi \\\"there\\\"\"\n"
                                            "  item 3 (index 4): packet (28 bytes)\n"
                                            "    packet: big-endian, align 4, unordered, length 28, 1 items, "
                                            "header 12, items at 16\n"
                                            "      item 0 (index 1): string \"nested\"\n"
                                            "  item 4 (index 5): string NULL\n",
                                        0));
    pkt[4 + 3] ^= 1; // the total length no longer matches
    std::ofstream(file, std::ios::binary) << pkt;
    auto [out, status] = run(dump);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out.rfind("invalid packet (0x90012): The length stored in the packet is", 0), 0u) << out;
}

} // namespace
