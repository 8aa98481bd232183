// The example service end to end: ostrel-kvd as a real process, driven by the
// protocol client, by ostrel-kv, and by a raw socket sending garbage; the
// packet inspector on packets written by the serializer.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kv_protocol.h"

namespace {

// In a cross build the programs under test run through the emulator that
// OSTREL_TARGET_EMULATOR names (e.g. "qemu-s390x -L /usr/s390x-linux-gnu").
std::vector<std::string> emulator_words() {
    std::vector<std::string> words;
    std::istringstream in(getenv("OSTREL_TARGET_EMULATOR") ? getenv("OSTREL_TARGET_EMULATOR") : "");
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

std::string command_prefix() {
    std::string prefix;
    for (const auto &w : emulator_words()) prefix += w + " ";
    return prefix;
}

std::string read_text(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/ostrel_kv_XXXXXX";
        path_ = mkdtemp(tmpl) ? tmpl : "";
    }
    ~TempDir() {
        if (DIR *d = opendir(path_.c_str())) {
            while (dirent *e = readdir(d))
                if (e->d_name[0] != '.') unlink((path_ + "/" + e->d_name).c_str());
            closedir(d);
        }
        rmdir(path_.c_str());
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// A running ostrel-kvd on a port the system chose.
class Kvd {
public:
    explicit Kvd(const std::string &dir) : dir_(dir) { start(); }
    ~Kvd() {
        if (pid_ > 0) stop();
        if (out_ >= 0) close(out_);
    }

    void start() {
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            dup2(p[1], 1);
            int err = open((dir_ + "/stderr.txt").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(err, 2);
            close(p[0]);
            setenv("ZURN_LOG_DIR", dir_.c_str(), 1);
            setenv("ZURN_LOG_LEVEL", "INFO", 1);
            std::vector<std::string> args = emulator_words();
            for (const char *a : {OSTREL_KVD_PATH, "--port", "0", "--pid-dir"}) args.emplace_back(a);
            args.push_back(dir_);
            std::vector<char *> argv;
            for (auto &a : args) argv.push_back(&a[0]);
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        close(p[1]);
        out_ = p[0];
        std::string line = read_line(10000);
        auto pos = line.rfind(':');
        ASSERT_NE(line.find("ostrel-kvd: listening on 127.0.0.1:"), std::string::npos) << line;
        port_ = atoi(line.c_str() + pos + 1);
        ASSERT_GT(port_, 0);
    }

    // Reads one line of the service's standard output, waiting at most ms.
    std::string read_line(int ms) {
        std::string line;
        char c;
        while (true) {
            pollfd pfd{out_, POLLIN, 0};
            if (poll(&pfd, 1, ms) <= 0) break;
            if (read(out_, &c, 1) != 1) break;
            if (c == '\n') break;
            line += c;
        }
        return line;
    }

    // SIGTERM; returns the exit status and what the service printed last.
    int stop(std::string *last = nullptr) {
        kill(pid_, SIGTERM);
        std::string l = read_line(10000);
        if (last) *last = l;
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

    int port() const { return port_; }
    pid_t pid() const { return pid_; }

private:
    std::string dir_;
    pid_t pid_ = -1;
    int out_ = -1;
    int port_ = 0;
};

class KvService : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string(OSTREL_KVD_PATH).empty()) GTEST_SKIP() << "examples not built";
        kvd_ = std::make_unique<Kvd>(dir_.path());
        if (HasFatalFailure()) return;
        ASSERT_EQ(client_.connect("127.0.0.1", kvd_->port()), 0u);
    }
    kv::Reply call(int32_t op, const char *key = nullptr, const char *value = nullptr) {
        kv::Reply r;
        EXPECT_EQ(client_.call(op, key, value, r), 0u);
        return r;
    }
    std::string log() { return read_text(dir_.path() + "/ostrel-kvd.log"); }

    TempDir dir_;
    std::unique_ptr<Kvd> kvd_;
    kv::Client client_;
};

TEST_F(KvService, PutGetDeleteCountAndListInKeyOrder) {
    for (const char *k : {"pear", "apple", "fig"}) EXPECT_EQ(call(kv::KV_OP_PUT, k, (std::string(k) + "!").c_str()).code, 0u);
    EXPECT_EQ(call(kv::KV_OP_PUT, "apple", "green").code, 0u); // replaces
    kv::Reply r = call(kv::KV_OP_GET, "apple");
    EXPECT_EQ(r.code, 0u);
    EXPECT_EQ(r.value, "green");
    EXPECT_EQ(call(kv::KV_OP_COUNT).count, 3);
    r = call(kv::KV_OP_LIST);
    ASSERT_EQ(r.code, 0u);
    EXPECT_EQ(r.entries, (std::vector<std::pair<std::string, std::string>>{
                             {"apple", "green"}, {"fig", "fig!"}, {"pear", "pear!"}}));
    EXPECT_EQ(call(kv::KV_OP_DEL, "fig").code, 0u);
    EXPECT_EQ(call(kv::KV_OP_COUNT).count, 2);
    r = call(kv::KV_OP_GET, "fig");
    EXPECT_EQ(r.code, OSL_ERR_NOT_FOUND);
    EXPECT_EQ(r.text, "Can not find specified item(node,element).");
}

TEST_F(KvService, BadRequestsGetErrorRepliesAndTheServiceGoesOn) {
    kv::Reply r = call(99, "k");
    EXPECT_EQ(r.code, OSL_ERR_INVALID_COMMAND);
    EXPECT_EQ(r.text, "Invalid command.");
    EXPECT_EQ(call(kv::KV_OP_PUT, nullptr, "v").code, OSL_ERR_INVALID_PARAMETER);

    // A request without its key item, and bytes that are no packet at all,
    // framed correctly by netbase.
    Ostrel_SerializerConfig cfg = kv::packet_config();
    Ostrel_Serializer *h = nullptr;
    ASSERT_EQ(Ostrel_Serializer_SerializeInit(&cfg, &h), 0u);
    ASSERT_EQ(Ostrel_Serializer_Serialize(h, OSL_SLZ_MODE_APPEND, "%1.d", static_cast<int>(kv::KV_OP_GET)), 0u);
    unsigned char *buf = nullptr;
    int len = 0;
    ASSERT_EQ(Ostrel_Serializer_GetBuffer(h, &buf, &len), 0u);
    for (int round = 0; round < 2; ++round) {
        std::vector<unsigned char> bytes(buf, buf + len);
        if (round == 1) bytes.assign({0xE2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13});
        ASSERT_EQ(netbase_send_packet(client_.handle(), bytes.data(), static_cast<int32_t>(bytes.size()), 5000), 0u);
        void *in = nullptr;
        int32_t in_len = 0;
        ASSERT_EQ(netbase_receive_packet(client_.handle(), &in, &in_len, 5000), 0u);
        Ostrel_Serializer *rh = nullptr;
        ASSERT_EQ(Ostrel_Serializer_DeserializeInit(static_cast<unsigned char *>(in), in_len, &rh), 0u);
        int32_t code = 0;
        ASSERT_EQ(Ostrel_Serializer_Deserialize(rh, "%1.d", &code), 0u);
        EXPECT_EQ(static_cast<uint32_t>(code), round == 0 ? OSL_ERR_NOT_FOUND : OSL_ERR_INVALID_DATA);
        Ostrel_Serializer_Destroy(rh);
    }
    Ostrel_Serializer_Destroy(h);
    EXPECT_EQ(call(kv::KV_OP_PUT, "still", "here").code, 0u);
    EXPECT_NE(log().find("Malformed request (14 bytes): 0x90012 Invalid data content."), std::string::npos);
}

TEST_F(KvService, GarbageOnTheWireClosesOnlyThatConnection) {
    for (const std::string &garbage : {std::string("GET / HTTP/1.0\r\n\r\n"), std::string(12, '\xA6'),
                                       std::string("\xA6\0\0\0\0\0\0\0\xff\xff\xff\x7f", 12)}) {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(kvd_->port()));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        ASSERT_EQ(send(s, garbage.data(), garbage.size(), MSG_NOSIGNAL), static_cast<ssize_t>(garbage.size()));
        // The service answers a well-formed handshake, then drops the bad packet's connection.
        char sink[64];
        timeval tv{10, 0};
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        ssize_t n;
        while ((n = recv(s, sink, sizeof sink, 0)) > 0) {
        }
        EXPECT_EQ(n, 0) << "connection should be closed by the service";
        close(s);
    }
    EXPECT_EQ(call(kv::KV_OP_PUT, "alive", "yes").code, 0u);
    EXPECT_EQ(call(kv::KV_OP_GET, "alive").value, "yes");
}

TEST_F(KvService, SecondInstanceOnThePidDirectoryIsRefused) {
    std::string cmd = std::string("ZURN_LOG_DIR=") + dir_.path() + " " + command_prefix() +
                      OSTREL_KVD_PATH " --port 0 --pid-dir " + dir_.path() + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[256] = {0};
    std::string out;
    while (fgets(line, sizeof line, p)) out += line;
    int status = pclose(p);
    EXPECT_NE(WEXITSTATUS(status), 0);
    EXPECT_NE(out.find("ostrel-kvd: cannot start: 0x90001 Unknown error."), std::string::npos) << out;
    std::string pid_file = dir_.path() + "/qmv_ns_ostrel-kvd.pid";
    EXPECT_EQ(read_text(pid_file), std::to_string(kvd_->pid()) + "\n");
    EXPECT_NE(read_text(dir_.path() + "/ostrel.log").find("PID file " + pid_file + " is locked."), std::string::npos);
}

TEST_F(KvService, SigtermStopsCleanlyWithConnectionsOpen) {
    kv::Client idle;
    ASSERT_EQ(idle.connect("127.0.0.1", kvd_->port()), 0u);
    EXPECT_EQ(call(kv::KV_OP_PUT, "a", "b").code, 0u);
    std::string last;
    int status = kvd_->stop(&last);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(last, "ostrel-kvd: stopped");
    kv::Reply r;
    EXPECT_NE(idle.call(kv::KV_OP_COUNT, nullptr, nullptr, r), 0u); // its connection was closed
    EXPECT_NE(log().find("Stopped"), std::string::npos);
}

TEST_F(KvService, CommandLineClient) {
    auto run = [&](const std::string &args, int *status) {
        std::string cmd = command_prefix() + OSTREL_KV_PATH + " --port " + std::to_string(kvd_->port()) + " " + args;
        FILE *p = popen(cmd.c_str(), "r");
        std::string out;
        char buf[256];
        while (p && fgets(buf, sizeof buf, p)) out += buf;
        *status = WEXITSTATUS(pclose(p));
        return out;
    };
    int st = -1;
    EXPECT_EQ(run("put colour blue", &st), "ok\n");
    EXPECT_EQ(st, 0);
    EXPECT_EQ(run("put animal cat", &st), "ok\n");
    EXPECT_EQ(run("get colour", &st), "blue\n");
    EXPECT_EQ(run("count", &st), "2\n");
    EXPECT_EQ(run("list", &st), "animal=cat\ncolour=blue\n");
    EXPECT_EQ(run("del colour", &st), "ok\n");
    EXPECT_EQ(run("get colour", &st), "error 0x90018: Can not find specified item(node,element).\n");
    EXPECT_EQ(st, 1);
    std::string bench = run("bench --clients 2 --requests 50 2>/dev/null", &st);
    EXPECT_EQ(st, 0) << bench;
    EXPECT_NE(bench.find("bench: 2 clients x 50 requests: 100 ok, 0 failed"), std::string::npos) << bench;
}

TEST_F(KvService, ManyClientsAtOnceLoseNothing) {
    constexpr int kClients = 32, kRequests = 500;
    std::vector<std::thread> ts;
    std::atomic<int> bad{0};
    for (int t = 0; t < kClients; ++t)
        ts.emplace_back([&, t] {
            kv::Client c;
            if (c.connect("127.0.0.1", kvd_->port()) != 0) {
                bad += kRequests;
                return;
            }
            for (int i = 0; i < kRequests; i += 2) {
                std::string key = "k" + std::to_string(t) + "." + std::to_string(i);
                std::string value = std::to_string(t * 1000003 + i);
                kv::Reply r;
                if (c.call(kv::KV_OP_PUT, key.c_str(), value.c_str(), r) != 0 || r.code != 0) ++bad;
                if (c.call(kv::KV_OP_GET, key.c_str(), nullptr, r) != 0 || r.code != 0 || r.value != value) ++bad;
            }
        });
    for (auto &t : ts) t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(call(kv::KV_OP_COUNT).count, kClients * kRequests / 2);
}

std::string run_pktdump(const std::vector<unsigned char> &pkt, int *status) {
    TempDir d;
    std::string file = d.path() + "/pkt.bin";
    {
        std::ofstream f(file, std::ios::binary);
        f.write(reinterpret_cast<const char *>(pkt.data()), static_cast<std::streamsize>(pkt.size()));
    }
    FILE *p = popen((command_prefix() + OSTREL_PKTDUMP_PATH + " --raw " + file).c_str(), "r");
    std::string out;
    char buf[256];
    while (p && fgets(buf, sizeof buf, p)) out += buf;
    *status = WEXITSTATUS(pclose(p));
    return out;
}

TEST(PacketDump, PrintsTheTreeOfAPacketAndTheReasonForABadOne) {
    if (std::string(OSTREL_PKTDUMP_PATH).empty()) GTEST_SKIP() << "examples not built";
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
    std::vector<unsigned char> pkt(buf, buf + len);
    Ostrel_Serializer_Destroy(inner);
    Ostrel_Serializer_Destroy(outer);

    int st = -1;
    std::string out = run_pktdump(pkt, &st);
    EXPECT_EQ(st, 0);
    EXPECT_EQ(out, "packet: big-endian, align 4, unordered, length " + std::to_string(len) +
                       ", 5 items, header 12, items at 32\n"
                       "  item 0 (index 7): int32 -42\n"
                       "  item 1 (index 3): int16[3] { -1, 2, 300 }\n"
                       "  item 2 (index 9): string \"hi \\\"there\\\"\"\n"
                       "  item 3 (index 4): packet (28 bytes)\n"
                       "    packet: big-endian, align 4, unordered, length 28, 1 items, header 12, items at 16\n"
                       "      item 0 (index 1): string \"nested\"\n"
                       "  item 4 (index 5): string NULL\n");

    pkt[4 + 3] ^= 1; // total length no longer matches
    out = run_pktdump(pkt, &st);
    EXPECT_EQ(st, 1);
    EXPECT_NE(out.find("invalid packet (0x90012): The length stored in the packet is"), std::string::npos) << out;
}

} // namespace
