// Select and Sleep on any descriptor number: random descriptor sets of pipes
// (idle, holding data, at end of file, closed) get the answers select(2)
// gives for the same descriptors, both below 1024 and as aliases above it, in
// a thread whose control pair is numbered above 1024 too.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/select.h>

#include <atomic>
#include <random>

#include "ostrel_threadgroup.h"
#include "test_util.h"

namespace {

constexpr int kHigh = 3000; // offset of the aliases
constexpr int kPipes = 24, kRounds = 40;

// A wait's result: ready count (-1 on failure), errno on failure, ready flags.
using Outcome = std::tuple<int, int, std::vector<int>>;

Outcome select2(const std::vector<int> &fds, const std::vector<int> &asked, int32_t ms) {
    fd_set set;
    FD_ZERO(&set);
    int top = -1;
    for (int fd : fds) FD_SET(fd, &set), top = std::max(top, fd);
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    int rc = select(top + 1, &set, nullptr, nullptr, &tv);
    Outcome o{rc, rc < 0 ? errno : 0, {}};
    for (int fd : asked) std::get<2>(o).push_back(rc > 0 && FD_ISSET(fd, &set));
    return o;
}

// Select (asked: the descriptors to look up with SetIsSet) or Sleep (null).
Outcome node_wait(OstrelThreadNodeHandle node, LogCapture &cap, const std::vector<int> *asked, int32_t ms) {
    cap.clear();
    int to_close = -1, count = 0, err = 0;
    uint32_t r = asked ? Ostrel_ThreadGroup_Select(node, ms, &to_close, &count)
                       : Ostrel_ThreadGroup_Sleep(node, ms, &to_close);
    for (const auto &l : cap.lines()) sscanf(l.text.c_str(), "select=-1,errno=%d", &err);
    Outcome o{r == 0 ? count + to_close : -1, err, {}};
    for (int fd : asked ? *asked : std::vector<int>{}) std::get<2>(o).push_back(Ostrel_ThreadGroup_SetIsSet(node, fd));
    return o;
}

struct Probe {
    LogCapture cap;
    std::atomic<bool> go{false}, compared{false};
    int to_close = -1; // written by the node's thread before it leaves the group
};

uint32_t compare_fn(void *param, OstrelThreadNodeHandle node) {
    auto *probe = static_cast<Probe *>(param);
    tgtest::eventually([&] { return probe->go.load(); }); // the low numbers are free again
    std::mt19937 rng(13);
    for (int round = 0; round < kRounds; ++round) {
        std::vector<int> lo, hi, wr, state;
        for (int p = 0; p < kPipes; ++p) {
            int fds[2];
            EXPECT_EQ(pipe(fds), 0);
            lo.push_back(fds[0]), wr.push_back(fds[1]), hi.push_back(dup2(fds[0], fds[0] + kHigh));
            // 0-9 idle, 10-19 data, 20-30 end of file, 31 closed; every 4th round idle
            state.push_back(rng() % (round % 4 ? 32 : 10));
            EXPECT_EQ(state[p] >= 10 && state[p] < 20 ? write(fds[1], "x", 1) : 1, 1);
        }
        for (int p = 0; p < kPipes; ++p) { // once all are made, so no number is reused
            if (state[p] >= 20) close(wr[p]), wr[p] = -1;
            if (state[p] == 31) close(lo[p]), close(hi[p]);
        }
        std::vector<std::pair<int, bool>> ops; // pipe, add (else clear)
        for (int i = 0; i < 2 * kPipes; ++i) ops.push_back({int(rng() % kPipes), rng() % 3 != 0});
        const int32_t ms = rng() % 5 == 0 ? -1 : 0;
        for (auto *ids : {&lo, &hi}) {
            bool in[kPipes] = {};
            for (auto [p, add] : ops) {
                add ? Ostrel_ThreadGroup_SetAdd(node, (*ids)[p]) : Ostrel_ThreadGroup_SetClr(node, (*ids)[p]);
                in[p] = add;
            }
            std::vector<int> members;
            for (int p = 0; p < kPipes; ++p)
                if (in[p]) members.push_back(lo[p]);
            EXPECT_EQ(node_wait(node, probe->cap, ids, ms), select2(members, lo, ms)) << "round " << round;
            for (int fd : *ids) Ostrel_ThreadGroup_SetClr(node, fd);
        }
        EXPECT_EQ(node_wait(node, probe->cap, nullptr, ms), select2({}, {}, ms)) << "round " << round;
        for (int p = 0; p < kPipes; ++p)
            if (state[p] != 31) close(lo[p]), close(hi[p]), close(wr[p]);
    }
    probe->compared = true;
    Ostrel_ThreadGroup_Sleep(node, 30000, &probe->to_close);
    return 0;
}

TEST(ThreadGroupPoll, AnswersAsSelectBelowAndAbove1024WithAControlPairAbove1024) {
    rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    if (saved.rlim_max < 4096) GTEST_SKIP() << "descriptor limit below 4096";
    rlimit raised = {4096, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<int> hog; // the control pair comes after these
    for (int fd = 0; fd >= 0 && fd <= 1100;)
        if ((fd = dup(2)) >= 0) hog.push_back(fd);
    ASSERT_GT(hog.back(), 1024);
    Probe probe;
    OstrelThreadGroupHandle group = nullptr;
    ASSERT_EQ(Ostrel_ThreadGroup_Create(&group), 0u);
    ASSERT_EQ(Ostrel_ThreadGroup_NewThread(group, compare_fn, &probe), 0u);
    for (int fd : hog) close(fd);
    probe.go = true;
    EXPECT_TRUE(tgtest::eventually([&] { return probe.compared.load(); }));
    EXPECT_EQ(Ostrel_ThreadGroup_CancelAll(group), 0u);
    EXPECT_EQ(Ostrel_ThreadGroup_Destroy(group), 0u);
    EXPECT_EQ(probe.to_close, 1);
    setrlimit(RLIMIT_NOFILE, &saved);
}

} // namespace
