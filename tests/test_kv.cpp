// The example programs end to end, as real processes: ostrel-kvd driven by
// ostrel-kv, by the protocol client and by raw connections sending garbage,
// and the packet inspector. A new check of a program's output is one more row
// of a table below.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

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
        const std::string cmd = "ZURN_LOG_DIR=" + dir_ + " ZURN_LOG_LEVEL=INFO exec " + kvd() + " 2>>" + dir_ + "/err";
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
    std::string kvd() { return program("ostrel-kvd") + " --port 0 --pid-dir " + dir_; }
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
    {"$KV get 2>&1", "usage: ostrel-kv [--host H] [--port P] put KEY VALUE...", 2},
    // Garbage closes only its own connection: no handshake; a handshake, then
    // a header of the wrong magic; a header announcing 2 GiB.
    {"garbage 'GET / HTTP/1.0\\r\\n\\r\\n'", "", 0},
    {"garbage '\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6\\xA6'", "", 0},
    {"garbage '\\xA6\\0\\0\\0\\0\\0\\0\\0\\xff\\xff\\xff\\x7f'", "", 0},
    {"$KV get pear", "pear!\n", 0},
    // A value longer than the first segment netbase sends with the header.
    {"$KV put big $(printf %03000d 7)", "ok\n", 0},
    {"test \"$($KV get big)\" = $(printf %03000d 7) && echo same", "same\n", 0},
    // A bounded load: the client checks every reply itself.
    {"$KV bench --clients 32 --requests 500 2>/dev/null", "bench: 32 clients x 500 requests: 16000 ok, 0 failed...", 0},
    {"$KV count", "8003\n", 0},
    // A second instance on the same pid directory is refused; the pid file stays the first one's.
    {"$KVD 2>&1", "ostrel-kvd: cannot start: 0x90001 Unknown error.\n", 1},
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

TEST_F(KvService, SigtermStopsCleanlyWithConnectionsOpen) {
    kv::Client idle;
    ASSERT_EQ(idle.connect("127.0.0.1", port_), 0u);
    EXPECT_EQ(client_.call(kv::KV_OP_PUT, "a", "b", reply_), 0u);
    EXPECT_EQ(stop(), std::make_pair(0, std::string("ostrel-kvd: stopped\n"))); // exit status 0
    EXPECT_NE(idle.call(kv::KV_OP_COUNT, nullptr, nullptr, reply_), 0u); // its connection was closed
    EXPECT_EQ(sh("grep -c 'Stopped$' $DIR/ostrel-kvd.log"), std::make_pair(std::string("1\n"), 0));
}

} // namespace
