// The support library: logging (line format, threshold, rotation, hex dumps
// and their cap, the sink, the line limit), the socket layer (exact-length
// transfers across partial sends and signals, time-outs, closed peers,
// per-thread error texts) and worker threads (identifier published first,
// detached once).
#include <gtest/gtest.h>

#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <regex>
#include <thread>

#include "test_util.h"

namespace {

namespace fs = std::filesystem;

// time, level, [pid:tid], path:line, text
const std::regex kLine(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (TRACE|INFO |WARN |ERROR) \[(\d+):\d+\] (\S+):(\d+) (.*)$)");

// Each test logs into a directory of its own.
struct ZurnLog : ::testing::Test {
    std::string dir_ = mkdtemp(std::string("/tmp/zurn_log_XXXXXX").data());
    ZurnLog() { setenv("ZURN_LOG_DIR", dir_.c_str(), 1); }
    ~ZurnLog() override { fs::remove_all(dir_); }
    uint64_t open_ctx(const char *module, int max_size = 8388608, int backups = 3) {
        LogFileSettings s{backups, module, 1, 2048, max_size, 0, 0, 0, 1, 1, 0, 0};
        uint64_t h = 0;
        EXPECT_EQ(ZurnGeneral_IsNeedLogFile(&s, &h, 1), 1);
        return h;
    }
    std::vector<std::string> lines(const std::string &file) {
        std::ifstream f(dir_ + "/" + file);
        std::vector<std::string> out;
        for (std::string l; std::getline(f, l);) out.push_back(l);
        return out;
    }
};

TEST_F(ZurnLog, LinesAtOrAboveTheThresholdCarryLevelIdsPathLineAndText) {
    const uint64_t h = open_ctx("fmt");
    const int prev = ZurnGeneral_SetLogLevel(2);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 1, "src/x", 1, "trace %s", "dropped"), 0);
    EXPECT_FALSE(fs::exists(dir_ + "/fmt.log")); // nothing written, not even an empty file
    const char *names[] = {"TRACE", "INFO ", "WARN ", "ERROR"};
    std::vector<std::string> want, got;
    for (int threshold : {1, 2, 4, 8, 16}) {
        ZurnGeneral_SetLogLevel(threshold);
        for (int i = 0, level = 1; i < 4; level = 2 << i++) {
            EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, level, "src/list", 100 + i, "t%d %s", threshold, "x"), level >= threshold);
            if (level >= threshold) want.push_back(names[i] + std::to_string(getpid()) + "src/list" + std::to_string(100 + i) + "t" + std::to_string(threshold) + " x");
        }
    }
    ZurnGeneral_SetLogLevel(prev);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(0, 8, "src/x", 1, "no context") + ZurnGeneral_RecordBinaryLogInfoEx2(0, 8, "src/x", 1, "c", "ab", 2), 0);
    ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/list", 7, "%s", std::string(5000, 'z').c_str()); // cut at the line limit
    uint64_t none = 99;
    for (const LogFileSettings &s : {LogFileSettings{0, "off", 0, 2048, 0, 0, 0, 0, 0, 0, 0, 0}, LogFileSettings{0, "", 1, 2048, 0, 0, 0, 0, 0, 0, 0, 0}})
        EXPECT_EQ(ZurnGeneral_IsNeedLogFile(&s, &none, 1) + ZurnGeneral_IsNeedLogFile(nullptr, &none, 1), 0); // disabled, or no name: no context
    EXPECT_EQ(none, 0u);
    want.push_back("ERROR" + std::to_string(getpid()) + "src/list7" + std::string(2048, 'z'));
    std::smatch m;
    for (const std::string &l : lines("fmt.log"))
        got.push_back(std::regex_match(l, m, kLine) ? m.str(1) + m.str(2) + m.str(3) + m.str(4) + m.str(5) : l);
    EXPECT_EQ(got, want);
}

TEST_F(ZurnLog, RotatesBySizeKeepingTheNewestLinesInOrder) {
    const uint64_t h = open_ctx("rot", 4096, 2);
    for (int i = 0; i < 400; ++i) ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/r", i, "line %04d %060d", i, 0);
    EXPECT_TRUE(fs::exists(dir_ + "/rot.log.2") && !fs::exists(dir_ + "/rot.log.3"));
    std::vector<std::string> all;
    for (const char *f : {"rot.log.2", "rot.log.1", "rot.log"})
        for (auto &l : lines(f)) all.push_back(l.substr(l.find("line ") + 5, 4));
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(std::stoi(all[i]), 400 - static_cast<int>(all.size() - i));
    EXPECT_TRUE(fs::file_size(dir_ + "/rot.log.1") >= 4096 && fs::file_size(dir_ + "/rot.log.1") < 4096 + 200);
}

TEST_F(ZurnLog, HexDumpsSixteenBytesARowUpToTheLineLimit) {
    const uint64_t h = open_ctx("hex");
    const char data[] = "\xf0\xf1\xf2\xf3\xf4\xf5\xf6\xf7\xf8\xf9\xfa\xfb\xfc\xfd\xfe\xff\x00\x01\x02\x03";
    const std::vector<unsigned char> big(1 << 20, 0xAB);
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(h, 2, "src/memory", 9, "copy data", data, 20), 1);
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(h, 2, "src/memory", 10, "none", nullptr, -2147483647 - 1), 1);
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(h, 8, "src/x", 11, "big", big.data(), static_cast<int>(big.size())), 1);
    const auto l = lines("hex.log");
    // Rows of 58 characters follow the caption "big (1048576 bytes)" until 2048 are reached, then "...".
    ASSERT_EQ(l.size(), 5 + (2048 - 19 + 57) / 58 + 1);
    EXPECT_NE(l[0].find("src/memory:9 copy data (20 bytes)"), std::string::npos) << l[0];
    EXPECT_EQ(l[1] + "|" + l[2], "00000000: f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff|00000010: 00 01 02 03");
    EXPECT_NE(l[3].find("src/memory:10 none (-2147483648 bytes)"), std::string::npos) << l[3];
    EXPECT_EQ(l[5] + "|" + l.back(), "00000000: ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab|...");
}

// Two connected records over loopback TCP made by the layer itself.
struct Conn {
    ZurnSocket listen{}, client{}, server{};
    Conn() {
        EXPECT_TRUE(S_Open(&listen, 0, 0, 0) == 1 && S_Bind(&listen, "127.0.0.1", 0) == 1 && S_Listen(&listen, 4) == 1 &&
                    S_CanAccept(&listen, 0) == ZURN_ACCEPT_IDLE);
        // By name where this machine resolves "localhost" (a bare chroot may not).
        addrinfo *ai = nullptr;
        const char *peer = getaddrinfo("localhost", nullptr, nullptr, &ai) == 0 ? "localhost" : "127.0.0.1";
        if (ai != nullptr) freeaddrinfo(ai);
        EXPECT_TRUE(S_Open(&client, 0, 0, 0) == 1 && S_Client(&client, peer, listen.usLocalPort, 5000) == 1);
        EXPECT_TRUE(S_CanAccept(&listen, 20) == ZURN_ACCEPT_READY && S_Accept(listen, &server, 5000) == 1);
        EXPECT_TRUE(server.iState == ZURN_SOCKET_CONNECTED && server.usPeerPort == htons(client.usLocalPort));
    }
    ~Conn() { S_Close(&client, 1), S_Close(&server, 1), S_Close(&listen, 0); }
};

TEST(ZurnSocket, MovesExactlyTheBytesAskedAcrossPartialTransfersAndSignals) {
    Conn c;
    // Far more than the socket buffers hold: the sender waits and resumes
    // many times while the receiver takes odd-sized pieces.
    std::string data(8 << 20, '\0'), got(data.size(), '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 131 + (i >> 12));
    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, nullptr), 0); // no SA_RESTART: waits see EINTR
    std::atomic<bool> done{false};
    std::thread sender([&] { EXPECT_EQ(S_SendEx(&c.client, data.data(), static_cast<uint32_t>(data.size()), 0), 1); });
    std::thread poker([&, id = sender.native_handle()] {
        for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(1))) pthread_kill(id, SIGUSR1);
    });
    for (size_t off = 0, piece = 1; off < got.size(); piece = piece * 3 + 7) {
        const size_t n = std::min(piece % 300000 + 1, got.size() - off);
        ASSERT_EQ(S_ReceiveEx(&c.server, &got[off], static_cast<uint32_t>(n), 5000), 1);
        off += n;
    }
    done = true; // the sender stays joinable, so poking it until here is safe
    poker.join();
    sender.join();
    EXPECT_TRUE(got == data);
    EXPECT_TRUE(S_SendEx(&c.client, nullptr, 0, 0) == 1 && S_ReceiveEx(&c.server, nullptr, 0, 0) == 1); // nothing to do
}

TEST(ZurnSocket, TimeOutsClosedPeersAndBadArgumentsFailWithATextPerThread) {
    Conn c;
    char buf[16];
    ZurnSocket none{}; // holds no socket
    EXPECT_EQ(S_ReceiveEx(&c.server, buf, 4, 30), 0);
    EXPECT_STREQ(NetWork_GetErrorText(), "recv: Timed out after 30 ms");
    EXPECT_EQ(std::async(std::launch::async, [] { return std::string(NetWork_GetErrorText()); }).get(), "Success"); // each thread's own
    ASSERT_TRUE(S_SendEx(&c.client, "ab", 2, 0) == 1 && S_Close(&c.client, 1) == 1);
    EXPECT_TRUE(c.client.iFd == -1 && S_Close(&c.client, 1) == 1); // a closed record stays harmlessly closed
    const std::pair<std::function<int()>, const char *> failures[] = {
        {[&] { return S_ReceiveEx(&c.server, buf, 4, 1000); }, "recv: Connection closed by peer"}, // two bytes, then the end
        {[&] { return S_SendEx(&none, "a", 1, 0); }, "send: Bad file descriptor"},
        {[&] { return S_ReceiveEx(&c.server, nullptr, 1, 1); }, "recv: Bad address"},
        {[&] { return S_Bind(&c.listen, "127.0.0.1", 70000); }, "bind: Invalid argument"},
        {[&] { return S_Accept(c.listen, nullptr, 1); }, "accept: Invalid argument"},
        {[&] { return S_Accept(c.server, &none, 1); }, "accept: Invalid argument"}, // not listening
        {[&] { return S_Client(&c.client, "127.0.0.1", 1, 1); }, "connect: Bad file descriptor"},
    };
    for (const auto &f : failures) {
        EXPECT_EQ(f.first(), 0) << f.second;
        EXPECT_STREQ(NetWork_GetErrorText(), f.second);
    }
}

TEST(ZurnWorkerThread, IdentifierIsStoredBeforeTheThreadRunsAndOnlyTheFirstDetachActs) {
    static uint64_t id = 0, seen_at_start = 0;
    static std::atomic<uint64_t> self{0};
    auto entry = [](void *) -> void * {
        return seen_at_start = id, self = static_cast<uint64_t>(pthread_self()), nullptr;
    };
    ASSERT_EQ(ZurnGeneral_CreateWorkingThread(entry, nullptr, &id), 1);
    while (self == 0) std::this_thread::yield();
    EXPECT_TRUE(id != 0 && seen_at_start == id && self == id);
    EXPECT_EQ(ZurnGeneral_DetachWorkingThread(id), 1);
    EXPECT_EQ(ZurnGeneral_DetachWorkingThread(id), 0); // e.g. a second time through another handle
    EXPECT_EQ(ZurnGeneral_CreateWorkingThread(nullptr, nullptr, &id), 0);
}

} // namespace
