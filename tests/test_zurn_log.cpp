// The support library's logging: line format, threshold, rotation, many
// writers at once, hex dumps and the in-memory sink.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test_util.h"
#include "zurn_general.h"

namespace {

class LogDir : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zurn_log_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv("ZURN_LOG_DIR", dir_.c_str(), 1);
    }
    void TearDown() override {
        if (DIR *d = opendir(dir_.c_str())) {
            while (dirent *e = readdir(d))
                if (e->d_name[0] != '.') unlink((dir_ + "/" + e->d_name).c_str());
            closedir(d);
        }
        rmdir(dir_.c_str());
    }
    uint64_t open_ctx(const char *module, int max_size = 8388608, int backups = 3) {
        LogFileSettings s{};
        s.iBackupCount = backups;
        s.szModuleName = module;
        s.iEnabled = 1;
        s.iMaxLineLength = 2048;
        s.iMaxFileSize = max_size;
        s.iShowThreadId = 1;
        s.iShowMilliseconds = 1;
        uint64_t h = 0;
        EXPECT_EQ(ZurnGeneral_IsNeedLogFile(&s, &h, 1), 1);
        EXPECT_NE(h, 0u);
        return h;
    }
    std::vector<std::string> lines(const std::string &file) {
        std::ifstream f(dir_ + "/" + file);
        std::vector<std::string> out;
        for (std::string l; std::getline(f, l);) out.push_back(l);
        return out;
    }
    bool exists(const std::string &file) {
        struct stat st {};
        return stat((dir_ + "/" + file).c_str(), &st) == 0;
    }
    std::string dir_;
};

const std::regex kLine(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (TRACE|INFO |WARN |ERROR) \[\d+:\d+\] (\S+):(\d+) (.*)$)");

TEST_F(LogDir, LineCarriesTimeLevelIdsPathLineAndText) {
    uint64_t h = open_ctx("fmt");
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/list", 123, "bad %s: %d", "value", 42), 1);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 2, "src/table", 7, "ok"), 1);
    auto l = lines("fmt.log");
    ASSERT_EQ(l.size(), 2u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l[0], m, kLine)) << l[0];
    EXPECT_EQ(m[1], "ERROR");
    EXPECT_EQ(m[2], "src/list");
    EXPECT_EQ(m[3], "123");
    EXPECT_EQ(m[4], "bad value: 42");
    ASSERT_TRUE(std::regex_match(l[1], m, kLine)) << l[1];
    EXPECT_EQ(m[1], "INFO ");
    EXPECT_NE(l[0].find("[" + std::to_string(getpid()) + ":"), std::string::npos);
}

TEST_F(LogDir, ThresholdAndNullContextFilterBeforeFormatting) {
    uint64_t h = open_ctx("thr");
    int prev = ZurnGeneral_SetLogLevel(2);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 1, "src/x", 1, "trace %s", "dropped"), 0);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(0, 8, "src/x", 1, "no context"), 0);
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(0, 8, "src/x", 1, "cap", "ab", 2), 0);
    EXPECT_FALSE(exists("thr.log")); // nothing written, not even an empty file
    ZurnGeneral_SetLogLevel(8);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 4, "src/x", 1, "warn dropped"), 0);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/x", 1, "error kept"), 1);
    ZurnGeneral_SetLogLevel(16);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/x", 1, "all off"), 0);
    ZurnGeneral_SetLogLevel(1);
    EXPECT_EQ(ZurnGeneral_RecordAppLogToFileEx2_V(h, 1, "src/x", 1, "trace kept"), 1);
    ZurnGeneral_SetLogLevel(prev);
    auto l = lines("thr.log");
    ASSERT_EQ(l.size(), 2u);
    EXPECT_NE(l[0].find("error kept"), std::string::npos);
    EXPECT_NE(l[1].find("TRACE"), std::string::npos);
}

TEST_F(LogDir, SameModuleSharesOneContextAndDisabledGivesZero) {
    uint64_t a = open_ctx("shared");
    uint64_t b = open_ctx("shared");
    EXPECT_EQ(a, b);
    LogFileSettings off{};
    off.szModuleName = "off";
    off.iEnabled = 0;
    uint64_t h = 99;
    EXPECT_EQ(ZurnGeneral_IsNeedLogFile(&off, &h, 1), 0);
    EXPECT_EQ(h, 0u);
    EXPECT_EQ(ZurnGeneral_IsNeedLogFile(nullptr, &h, 1), 0);
}

TEST_F(LogDir, RotatesBySizeAndKeepsAFewOldFiles) {
    uint64_t h = open_ctx("rot", 4096, 2);
    std::string pad(60, 'p');
    for (int i = 0; i < 400; ++i) ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/r", i, "line %04d %s", i, pad.c_str());
    EXPECT_TRUE(exists("rot.log.1"));
    EXPECT_TRUE(exists("rot.log.2"));
    EXPECT_FALSE(exists("rot.log.3"));
    // The three files together hold the newest lines, in order, without a gap.
    std::vector<std::string> all;
    for (const char *f : {"rot.log.2", "rot.log.1", "rot.log"})
        for (auto &l : lines(f)) all.push_back(l);
    ASSERT_FALSE(all.empty());
    EXPECT_NE(all.back().find("line 0399"), std::string::npos);
    int first = std::stoi(all.front().substr(all.front().find("line ") + 5, 4));
    for (size_t i = 0; i < all.size(); ++i) {
        char want[16];
        snprintf(want, sizeof want, "line %04d", first + static_cast<int>(i));
        EXPECT_NE(all[i].find(want), std::string::npos) << all[i];
    }
    struct stat st {};
    ASSERT_EQ(stat((dir_ + "/rot.log.1").c_str(), &st), 0);
    EXPECT_GE(st.st_size, 4096);
    EXPECT_LT(st.st_size, 4096 + 200);
}

TEST_F(LogDir, ConcurrentWritersNeverInterleaveOrLoseLines) {
    uint64_t h = open_ctx("mt");
    constexpr int kThreads = 8, kLines = 1500;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back([h, t] {
            for (int i = 0; i < kLines; ++i)
                ZurnGeneral_RecordAppLogToFileEx2_V(h, 2, "src/mt", t, "t%d-%d %s", t, i, "payload-payload-payload");
        });
    for (auto &t : ts) t.join();
    auto l = lines("mt.log");
    ASSERT_EQ(l.size(), static_cast<size_t>(kThreads * kLines));
    std::set<std::string> seen;
    for (const auto &line : l) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, kLine)) << line;
        std::string msg = m[4];
        ASSERT_EQ(msg.substr(msg.size() - 24), " payload-payload-payload") << line;
        seen.insert(msg);
    }
    EXPECT_EQ(seen.size(), l.size());
}

TEST_F(LogDir, HexDumpWritesCaptionAndSixteenBytesALine) {
    uint64_t h = open_ctx("hex");
    unsigned char data[20];
    for (int i = 0; i < 20; ++i) data[i] = static_cast<unsigned char>(0xF0 + i);
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(h, 2, "src/memory", 9, "copy data", data, 20), 1);
    auto l = lines("hex.log");
    ASSERT_EQ(l.size(), 3u);
    EXPECT_NE(l[0].find("src/memory:9 copy data (20 bytes)"), std::string::npos);
    EXPECT_EQ(l[1], "00000000: f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff");
    EXPECT_EQ(l[2], "00000010: 00 01 02 03");

    // The caption states the length in full, however many digits it has.
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(h, 2, "src/memory", 10, "no data", nullptr, 123456789), 1);
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(h, 2, "src/memory", 11, "no data", nullptr, -2147483647 - 1), 1);
    l = lines("hex.log");
    ASSERT_EQ(l.size(), 5u);
    EXPECT_NE(l[3].find("src/memory:10 no data (123456789 bytes)"), std::string::npos) << l[3];
    EXPECT_NE(l[4].find("src/memory:11 no data (-2147483648 bytes)"), std::string::npos) << l[4];
}

TEST_F(LogDir, SinkReceivesLevelPathLineAndTextAndCanReplaceTheFile) {
    uint64_t h = open_ctx("sink");
    {
        LogCapture cap(2);
        ZurnGeneral_RecordAppLogToFileEx2_V(h, 1, "src/s", 1, "filtered");
        ZurnGeneral_RecordAppLogToFileEx2_V(h, 4, "src/s", 77, "warned %d", 5);
        auto got = cap.lines();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].module, "sink");
        EXPECT_EQ(got[0].level, 4);
        EXPECT_EQ(got[0].path, "src/s");
        EXPECT_EQ(got[0].line, 77);
        EXPECT_EQ(got[0].text, "warned 5");
    }
    EXPECT_FALSE(exists("sink.log")); // sink-only mode wrote no file
    ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/s", 2, "after");
    EXPECT_EQ(lines("sink.log").size(), 1u);
}

TEST_F(LogDir, LongMessagesAreCutAtTheLineLimit) {
    uint64_t h = open_ctx("long");
    std::string big(5000, 'z');
    ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/l", 1, "%s", big.c_str());
    auto l = lines("long.log");
    ASSERT_EQ(l.size(), 1u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l[0], m, kLine));
    EXPECT_EQ(m[4].length(), 2048);
}

} // namespace

namespace {

TEST_F(LogDir, RelativeDirectoryIsFixedWhenTheContextOpens) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    setenv("ZURN_LOG_DIR", ".", 1);
    uint64_t h = open_ctx("rel");
    ASSERT_EQ(chdir("/"), 0);
    ZurnGeneral_RecordAppLogToFileEx2_V(h, 8, "src/x", 1, "after chdir");
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_EQ(lines("rel.log").size(), 1u);
}

} // namespace

namespace {

TEST_F(LogDir, HexDumpOfALargeBufferStopsAtTheLineLimit) {
    uint64_t h = open_ctx("bighex");
    std::vector<unsigned char> big(1 << 20, 0xAB);
    EXPECT_EQ(ZurnGeneral_RecordBinaryLogInfoEx2(h, 8, "src/x", 1, "big", big.data(), static_cast<int>(big.size())), 1);
    auto l = lines("bighex.log");
    ASSERT_GT(l.size(), 2u);
    EXPECT_LT(l.size(), 2048u / 16 + 4); // about the limit's worth of rows, not 65536 of them
    EXPECT_EQ(l.back(), "...");
    EXPECT_EQ(l[1], "00000000: ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab");
}

} // namespace
