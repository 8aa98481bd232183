// The example programs end to end, as real processes: ostrel-kvd driven by
// ostrel-kv, by the protocol client and by raw connections sending garbage,
// and the packet inspector. A new check of a program's output is one more row
// of a table below.
#include <gtest/gtest.h>
#include <poll.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <atomic>
#include <filesystem>
#include <thread>
#include <fstream>
#include <memory>

#include "kv_protocol.h"

namespace {

// The shell words that start an example: in a cross build through the
// emulator that OSTREL_TARGET_EMULATOR names (e.g. "qemu-s390x -L /usr/s390x-linux-gnu"),
// except the build machine's own program that OSTREL_NATIVE_PEER may name, so
// that it and the target's programs talk across byte orders.
std::string program(const std::string &name) {
    const char *emu = getenv("OSTREL_TARGET_EMULATOR"), *peer = getenv("OSTREL_NATIVE_PEER");
    if (peer != nullptr && std::filesystem::path(peer).filename() == name) return peer;
    return std::string(emu ? emu : "") + " " + OSTREL_EXAMPLES_DIR + "/" + name;
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

// Shell function garbage BYTES: sends printf's BYTES on a plain connection to
// $PORT and fails unless the service ends that connection within 10 s.
const char kGarbage[] = "garbage() { bash -c 'trap \"\" PIPE; exec 3<>/dev/tcp/127.0.0.1/$PORT || exit 9; "
                        "printf \"$0\" >&3; timeout 10 cat <&3 >/dev/null 2>&1; test $? != 124' \"$1\"; }; ";

// A running ostrel-kvd on a port the system chose, with its pid file and logs
// in a directory of its own.
class KvService : public ::testing::Test {
protected:
    void SetUp() override {
        if (!*OSTREL_EXAMPLES_DIR) GTEST_SKIP() << "examples not built";
        char t[] = "/tmp/ostrel_kv_XXXXXX";
        ASSERT_NE(mkdtemp(t), nullptr);
        dir_ = t;
        // Started with a soft descriptor limit below its hard one, which the service must raise.
        const std::string cmd = "ulimit -Sn 1024; ZURN_LOG_DIR=" + dir_ + " ZURN_LOG_LEVEL=INFO exec " + kvd() +
                                " 2>>" + dir_ + "/err";
        out_ = popen(cmd.c_str(), "r");
        ASSERT_NE(out_, nullptr);
        std::string line = next_line();
        ASSERT_EQ(sscanf(line.c_str(), "ostrel-kvd: listening on 127.0.0.1:%d (pid %d)", &port_, &pid_), 2) << line;
        ASSERT_EQ(client_.connect("127.0.0.1", port_), 0u);
    }
    void TearDown() override {
        if (out_ != nullptr) {
            EXPECT_EQ(stop(), std::make_pair(0, std::string("ostrel-kvd: stopped\n")));
        }
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    std::string kvd() { return program("ostrel-kvd") + " --port 0 --pid-dir " + dir_ + " --log-dir " + dir_; }
    std::string next_line() {
        char buf[256] = "";
        return fgets(buf, sizeof buf, out_) ? buf : "";
    }
    // SIGTERM; the exit status and the last line the service printed.
    // A service that has not ended 20 s after SIGTERM is killed, so that a
    // broken build fails here instead of hanging the suite.
    std::pair<int, std::string> stop() {
        if (pid_ > 0) kill(pid_, SIGTERM);
        pollfd pf{fileno(out_), POLLIN, 0};
        if (pid_ > 0 && poll(&pf, 1, 20000) == 0) kill(pid_, SIGKILL);
        std::string last = next_line();
        int st = pclose(out_);
        out_ = nullptr;
        return {st, last};
    }
    // Runs a shell command line with the service's settings exported: DIR (its
    // directory), PORT, PID, KV (the client on PORT), KVD (a second instance),
    // PKTDUMP (the packet inspector), and the function garbage.
    std::pair<std::string, int> sh(const std::string &line) {
        const std::string port = std::to_string(port_);
        return run("export ZURN_LOG_DIR=" + dir_ + " DIR=" + dir_ + " PORT=" + port + " PID=" + std::to_string(pid_) +
                   " KV='" + program("ostrel-kv") + " --port " + port + "' KVD='" + kvd() + "' PKTDUMP='" +
                   program("ostrel-pktdump") + "'; " + kGarbage + line);
    }

    std::string dir_;
    FILE *out_ = nullptr;
    int port_ = 0, pid_ = 0;
    kv::Client client_;
    kv::Reply reply_;
};

// A big-endian, unordered packet of five items, one of them a nested packet.
#define PACKET                                                                                                  \
    "e200010400000068050c0020050000440400002409000014030000080700000004000004ffffffd682000006ffff0002012c0000" \
    "2000000b6869202274686572652200003000001ce20001040000001c010c001001000000200000076e6573746564000020000000"

// Shell command lines (see sh()) run in order against one service: what each
// prints (a prefix where it ends in "...") and its exit status.
const struct {
    const char *line, *out;
    int status;
} kShellRows[] = {
    {"$KV put pear pear!", "ok\n", 0},
    {"$KV put apple apple!", "ok\n", 0},
    {"$KV put fig 'fig tree'", "ok\n", 0},
    {"$KV put apple green", "ok\n", 0}, // replaces
    {"$KV put empty ''", "ok\n", 0},
    {"$KV get apple", "green\n", 0},
    {"$KV get empty", "\n", 0},
    {"$KV count", "4\n", 0},
    {"$KV list", "apple=green\nempty=\nfig=fig tree\npear=pear!\n", 0},
    {"$KV del fig", "ok\n", 0},
    {"$KV del empty", "ok\n", 0},
    {"$KV get fig", "error 0x90018: Can not find specified item(node,element).\n", 1},
    {"$KV del fig", "error 0x90018: Can not find specified item(node,element).\n", 1},
    {"$KV get 2>&1", "usage: ostrel-kv [--host H] [--port P] [--log-dir DIR] put KEY VALUE...", 2},
    // Garbage closes only its own connection: no handshake; a handshake, then
    // a header of the wrong magic; a header announcing 2 GiB.
    {"garbage 'GET / HTTP/1.0\\r\\n\\r\\n'", "", 0},
    {"garbage '\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6'", "", 0},
    {"garbage '\\xA6\\0\\0\\0\\0\\0\\0\\0\\xff\\xff\\xff\\x7f'", "", 0},
    {"$KV get pear", "pear!\n", 0},
    // Normal closes are logged as such; the descriptor limit was raised to the hard one.
    {"grep -q 'closed by the peer$' $DIR/ostrel-kvd.log && grep -c 'ends: 0x90001' $DIR/ostrel-kvd.log", "0\n", 1},
    {"awk '/^Max open files/ { print ($4 == $5) }' /proc/$PID/limits", "1\n", 0},
    // Without --log-dir no tool leaves a log file where it runs, even when it fails; failures
    // name their cause; with --log-dir the library's log goes there.
    {"mkdir $DIR/w $DIR/l && cd $DIR/w && unset ZURN_LOG_DIR && $KV --port 1 get x 2>&1; echo $?; "
     "echo e2000104 | $PKTDUMP; $KVD --pid-dir /nonexistent 2>&1; ls -A",
     "ostrel-kv: connect to 127.0.0.1:1 failed: connect: Connection refused (0x90001 Unknown error.)\n2\n"
     "invalid packet (0x90012): Serialized packet length error: 4.\n"
     "ostrel-kvd: cannot write the pid file in /nonexistent: No such file or directory\n", 0},
    {"cd $DIR/w && unset ZURN_LOG_DIR && $KV --port 1 --log-dir ../l get x 2>/dev/null; ls -A . ../l", ".:\n\n../l:\nostrel.log\n", 0},
    {"$KV --log-dir /nonexistent count 2>&1", "ostrel-kv: cannot log in /nonexistent: No such file or directory\n", 2},
    // A value longer than the first segment netbase sends with the header.
    {"$KV put big $(printf %03000d 7)", "ok\n", 0},
    {"test \"$($KV get big)\" = $(printf %03000d 7) && echo same", "same\n", 0},
    // A bounded load: the client checks every reply itself.
    {"$KV bench --clients 32 --requests 500 2>/dev/null", "bench: 32 clients x 500 requests: 16000 ok, 0 failed...", 0},
    {"$KV count", "8003\n", 0},
    // A second instance on the same pid directory is refused; the pid file stays the first one's.
    {"$KVD 2>$DIR/e; st=$?; sed \"s|$DIR|DIR|\" $DIR/e; (exit $st)",
     "ostrel-kvd: cannot start: PID file DIR/qmv_ns_ostrel-kvd.pid is locked. (0x90001 Unknown error.)\n", 1},
    {"echo $PID | cmp - $DIR/qmv_ns_ostrel-kvd.pid", "", 0},
    {"grep -c \"PID file $DIR/qmv_ns_ostrel-kvd.pid is locked.\" $DIR/ostrel.log", "1\n", 0},
    // The packet inspector's tree, and its refusal once the stored length is one off.
    {"echo " PACKET " | $PKTDUMP --hex -",
     "packet: big-endian, align 4, unordered, length 104, 5 items, header 12, items at 32\n"
     "  item 0 (index 7): int32 -42\n  item 1 (index 3): int16[3] { -1, 2, 300 }\n"
     "  item 2 (index 9): string \"hi \\\"there\\\"\"\n  item 3 (index 4): packet (28 bytes)\n"
     "    packet: big-endian, align 4, unordered, length 28, 1 items, header 12, items at 16\n"
     "      item 0 (index 1): string \"nested\"\n  item 4 (index 5): string NULL\n",
     0},
    {"echo " PACKET " | sed s/^e200010400000068/e200010400000069/ | $PKTDUMP --hex -",
     "invalid packet (0x90012): The length stored in the packet is 105 while the given is 104. Invalid encoded "
     "packet data.\n",
     1},
};

TEST_F(KvService, ShellRowsInOrder) {
    for (const auto &r : kShellRows) {
        // A tool given a new log directory starts itself again through
        // /proc/self/exe, which under a user-mode emulator names the emulator.
        if (getenv("OSTREL_TARGET_EMULATOR") && strstr(r.line, "--log-dir ../l")) continue;
        auto [out, status] = sh(r.line);
        std::string want = r.out;
        if (want.size() > 3 && want.compare(want.size() - 3, 3, "...") == 0) {
            want.resize(want.size() - 3);
            out.resize(std::min(out.size(), want.size()));
        }
        EXPECT_EQ(out, want) << r.line;
        EXPECT_EQ(status, r.status) << r.line;
    }
}

TEST_F(KvService, RequestsTheClientCannotMakeAreAnsweredWithTheirCode) {
    const struct {
        int32_t op;
        const char *key, *value;
        uint32_t code;
        const char *text;
    } rows[] = {
        {99, "k", "v", OSL_ERR_INVALID_COMMAND, "Invalid command."},
        {kv::KV_OP_PUT, nullptr, "v", OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
        {kv::KV_OP_PUT, "k", nullptr, OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
        {kv::KV_OP_GET, nullptr, nullptr, OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
        {kv::KV_OP_DEL, nullptr, nullptr, OSL_ERR_INVALID_PARAMETER, "Invalid parameter."},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(client_.call(r.op, r.key, r.value, reply_), 0u) << r.op;
        EXPECT_EQ(reply_.code, r.code) << r.op;
        EXPECT_EQ(reply_.text, r.text) << r.op;
    }
    // Framed by netbase but no request: a packet of only item 1 (get), then bytes that are no packet.
    const std::vector<unsigned char> bad[] = {
        {0xE2, 0, 0, 4, 24, 0, 0, 0, 1, 12, 16, 0, 0, 0, 0, 1, 4, 0, 0, 4, 2, 0, 0, 0},
        {0xE2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}};
    for (const auto &pkt : bad) {
        void *in = nullptr;
        int32_t in_len = 0, code = 0;
        Ostrel_Serializer *rh = nullptr;
        ASSERT_EQ(netbase_send_packet(client_.handle(), pkt.data(), int32_t(pkt.size()), kv::kTimeoutMs), 0u);
        ASSERT_EQ(netbase_receive_packet(client_.handle(), &in, &in_len, kv::kTimeoutMs), 0u);
        ASSERT_EQ(Ostrel_Serializer_DeserializeInit(static_cast<unsigned char *>(in), in_len, &rh), 0u);
        EXPECT_EQ(Ostrel_Serializer_Deserialize(rh, "%1.d", &code), 0u);
        EXPECT_EQ(uint32_t(code), &pkt == bad ? OSL_ERR_NOT_FOUND : OSL_ERR_INVALID_DATA);
        Ostrel_Serializer_Destroy(rh);
    }
    EXPECT_EQ(client_.call(kv::KV_OP_PUT, "still", "here", reply_), 0u);
    EXPECT_EQ(reply_.code, 0u);
    EXPECT_EQ(sh("grep -c -e 'Malformed request (14 bytes): 0x90012 Invalid data content.$' -e 'Unknown request "
                 "operation 99$' $DIR/ostrel-kvd.log"),
              std::make_pair(std::string("2\n"), 0));
}

// A flood: every client connects (handshake included) and stays connected,
// each is answered, and a client arriving during the flood is served.
// OSTREL_KV_FLOOD sets the number of clients (e.g. 5000 for a measurement).
TEST_F(KvService, FloodOfConnectionsIsHeldAndAnswered) {
    const char *env = getenv("OSTREL_KV_FLOOD");
    const int n = env != nullptr ? atoi(env) : 1500;
    rlimit files{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    files.rlim_cur = files.rlim_max; // the clients' own sockets
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<kv::Client>> flood;
    for (int i = 0; i < n; ++i) flood.push_back(std::make_unique<kv::Client>());
    std::atomic<int> connected{0}, tried{0}, answered{0};
    std::vector<std::thread> storm;
    for (int t = 0; t < 8; ++t)
        storm.emplace_back([&, t] {
            for (int i = t; i < n; i += 8) {
                connected += flood[size_t(i)]->connect("127.0.0.1", port_) == 0;
                ++tried;
            }
        });
    while (tried.load() < n / 2) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    kv::Client late; // a new client in the middle of the storm
    EXPECT_EQ(late.connect("127.0.0.1", port_), 0u);
    EXPECT_EQ(late.call(kv::KV_OP_PUT, "late", "served", reply_), 0u);
    EXPECT_EQ(reply_.code, 0u);
    for (auto &t : storm) t.join();
    for (int i = 0; i < n; ++i)
        answered += flood[size_t(i)]->call(kv::KV_OP_PUT, std::to_string(i).c_str(), "v", reply_) == 0 && !reply_.code;
    EXPECT_EQ(client_.call(kv::KV_OP_COUNT, nullptr, nullptr, reply_), 0u);
    EXPECT_EQ(reply_.count, answered.load() + 1);
    EXPECT_EQ(connected.load(), n);
    EXPECT_EQ(answered.load(), n);
    printf("flood: %d clients, %d handshaken, %d answered in %.2f s\n", n, connected.load(), answered.load(),
           std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
}

TEST_F(KvService, SigtermStopsCleanlyWithConnectionsOpen) {
    kv::Client idle;
    ASSERT_EQ(idle.connect("127.0.0.1", port_), 0u);
    EXPECT_EQ(client_.call(kv::KV_OP_PUT, "a", "b", reply_), 0u);
    EXPECT_EQ(stop(), std::make_pair(0, std::string("ostrel-kvd: stopped\n"))); // exit status 0
    EXPECT_NE(idle.call(kv::KV_OP_COUNT, nullptr, nullptr, reply_), 0u); // its connection was closed
    EXPECT_EQ(sh("grep -c 'Stopped$' $DIR/ostrel-kvd.log"), std::make_pair(std::string("1\n"), 0));
}

} // namespace
