// The thread-group self-test on port 27778 (a ctest resource lock keeps its
// runs apart): its standard output, its traces, the cascade that ends every
// thread, and the runs where the server cannot bind or the client finds no
// listener.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"
#include "ostrel_threadgroup.h"

namespace {

constexpr const char *kPath = "src/tdctl";

std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

int count_prefixed(const std::vector<LogLine> &lines, int level, const std::string &prefix) {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine &l) {
        return l.level == level && l.path == kPath && l.text.rfind(prefix, 0) == 0;
    }));
}

// Values of the lines "<prefix><int>".
std::vector<int> values_of(const std::vector<LogLine> &lines, const std::string &prefix) {
    std::vector<int> out;
    for (const auto &l : lines)
        if (l.level == LOG_LEVEL_INFO && l.text.rfind(prefix, 0) == 0)
            out.push_back(std::atoi(l.text.c_str() + prefix.size()));
    return out;
}

// "count=0", "count=1", ... and one "terminate"; returns the number of
// connections counted.
int check_output(const std::string &out) {
    int counted = 0, terminates = 0;
    for (const auto &l : split_lines(out)) {
        if (l == "terminate") {
            ++terminates;
        } else {
            EXPECT_EQ(l, "count=" + std::to_string(counted));
            ++counted;
        }
    }
    EXPECT_EQ(terminates, 1);
    return counted;
}

class SelfTest : public ::testing::Test {
protected:
    void SetUp() override { baseline_threads_ = tgtest::thread_baseline(); }
    void TearDown() override { EXPECT_TRUE(tgtest::threads_back_to(baseline_threads_)); }

    // Runs the self-test with its output and log captured; every thread it
    // started has ended when this returns.
    uint32_t run(uint32_t seconds) {
        testing::internal::CaptureStdout();
        uint32_t rc = Ostrel_ThreadGroup_RandomTest(seconds);
        out_ = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(tgtest::threads_back_to(baseline_threads_));
        lines_ = cap_.lines();
        return rc;
    }
    bool has(int level, const std::string &text) const {
        return std::any_of(lines_.begin(), lines_.end(), [&](const LogLine &l) {
            return l.level == level && l.path == kPath && l.text == text;
        });
    }
    int exits(const std::string &func, const char *code) const {
        return count_prefixed(lines_, LOG_LEVEL_TRACE, "<===Exit " + func + " with " + code);
    }
    // Every thread the run started also ended, through the wrapper.
    void expect_every_thread_ended() const {
        EXPECT_EQ(count_prefixed(lines_, LOG_LEVEL_INFO, "ThreadGroup:New"),
                  count_prefixed(lines_, LOG_LEVEL_INFO, "ThreadGroup:Exit"));
    }

    LogCapture cap_;
    std::string out_;
    std::vector<LogLine> lines_;
    int baseline_threads_ = 0;
};

TEST_F(SelfTest, EchoesOverEveryConnectionAndEndsInCascade) {
    const int fds_before = tgtest::open_fds();
    EXPECT_EQ(run(2), 0u);
    EXPECT_EQ(tgtest::open_fds(), fds_before);
    const int connections = check_output(out_);

    for (const char *step : {"Ostrel_ThreadGroup_Create(&group_main)",
                             "Ostrel_ThreadGroup_NewThread(group_main,_test_server_main,0)",
                             "Ostrel_ThreadGroup_NewThread(group_main,_test_client_main,0)",
                             "Ostrel_ThreadGroup_CancelAll(group_main)", "Ostrel_ThreadGroup_Destroy(group_main)"}) {
        EXPECT_TRUE(has(LOG_LEVEL_TRACE, std::string("--->") + step)) << step;
        EXPECT_TRUE(has(LOG_LEVEL_TRACE, std::string("<---") + step + "=0x0")) << step;
    }
    EXPECT_TRUE(has(LOG_LEVEL_TRACE, "timeout=2000"));
    EXPECT_TRUE(has(LOG_LEVEL_TRACE, "<===Exit Ostrel_ThreadGroup_RandomTest with 0x0"));
    EXPECT_TRUE(has(LOG_LEVEL_TRACE, "<---listen(sock,512)=0x0"));
    EXPECT_EQ(exits("_test_server_main", "0x0"), 1);
    expect_every_thread_ended();

    // Each counted connection had a client thread that ended; those that
    // saw the cancel logged an even datum, and every server thread an odd
    // one (or 0 before its first datum).
    EXPECT_EQ(count_prefixed(lines_, LOG_LEVEL_TRACE, "<===Exit _test_client_thread with "), connections);
    for (int v : values_of(lines_, "data_c=")) EXPECT_EQ(v % 2, 0) << v;
    for (int v : values_of(lines_, "data_s=")) EXPECT_TRUE(v == 0 || v % 2 == 1) << v;
    EXPECT_EQ(static_cast<int>(values_of(lines_, "data_c=").size()), exits("_test_client_thread", "0x0"));
    EXPECT_EQ(static_cast<int>(values_of(lines_, "data_s=").size()), exits("_test_server_thread", "0x0"));

    if (connections == 0) {
        // The client's first connect came before the server listened: the
        // client ended at once and the server ran alone.
        EXPECT_EQ(exits("_test_client_main", "0x90001"), 1);
    } else {
        EXPECT_EQ(exits("_test_client_main", "0x0"), 1);
        EXPECT_GE(count_prefixed(lines_, LOG_LEVEL_TRACE, "[TID:"), 1);
        // Data went round: some client received the server's answer.
        auto data_c = values_of(lines_, "data_c=");
        EXPECT_TRUE(std::any_of(data_c.begin(), data_c.end(), [](int v) { return v >= 2; }));
    }
}

// Another socket listens on the port: the server cannot bind and ends at
// once, the client's connections queue at that socket and never get an
// answer; the run still completes and returns 0.
TEST_F(SelfTest, ServerThatCannotBindEndsAloneAndTheRunStillSucceeds) {
    int holder = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(holder, 0);
    int one = 1;
    setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(27778);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(holder, 64), 0);

    EXPECT_EQ(run(1), 0u);
    close(holder);
    const int connections = check_output(out_);
    EXPECT_GE(connections, 1);
    EXPECT_TRUE(has(LOG_LEVEL_TRACE, "<---bind(sock,(struct sockaddr *)&addr_in,sizeof(addr_in))=0xffffffff"));
    EXPECT_EQ(exits("_test_server_main", "0x90001"), 1);
    EXPECT_FALSE(has(LOG_LEVEL_TRACE, "--->listen(sock,512)"));
    EXPECT_EQ(exits("_test_client_main", "0x0"), 1);
    // No answer ever came back: every client thread ends on the cancel
    // with its first datum.
    auto data_c = values_of(lines_, "data_c=");
    EXPECT_EQ(static_cast<int>(data_c.size()), connections);
    for (int v : data_c) EXPECT_EQ(v, 0);
    EXPECT_EQ(exits("Ostrel_ThreadGroup_RandomTest", "0x0"), 1);
    expect_every_thread_ended();
}

} // namespace
