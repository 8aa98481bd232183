// The call frame's shared helpers: the tail-keeping copy, the raw file
// append, the version string and the load-time log context.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "osl_internal.h"

namespace {

TEST(Strrncpy, KeepsTheTailWhenTheTextDoesNotFit) {
    char dst[8];
    memset(dst, '#', sizeof dst);
    EXPECT_EQ(strrncpy(dst, "abcdef", 4), dst);
    EXPECT_STREQ(dst, "def");
    EXPECT_EQ(dst[4], '#'); // exactly n bytes written

    memset(dst, '#', sizeof dst);
    strrncpy(dst, "abc", 4); // fits exactly: len + 1 == n
    EXPECT_STREQ(dst, "abc");

    memset(dst, '#', sizeof dst);
    strrncpy(dst, "abcd", 4); // one too long: drops the first character
    EXPECT_STREQ(dst, "bcd");

    memset(dst, '#', sizeof dst);
    strrncpy(dst, "abc", 1);
    EXPECT_STREQ(dst, "");
}

TEST(Strrncpy, DoesNothingOnNullOrZeroBound) {
    char dst[4] = {'x', 'y', 'z', 0};
    EXPECT_EQ(strrncpy(dst, "abc", 0), dst);
    EXPECT_STREQ(dst, "xyz");
    EXPECT_EQ(strrncpy(dst, nullptr, 4), dst);
    EXPECT_STREQ(dst, "xyz");
    EXPECT_EQ(strrncpy(nullptr, "abc", 4), nullptr);
}

TEST(Strrncpy, KeepsTheFileNameOfALongPath) {
    std::string path(100, 'd');
    path += "/file.cpp";
    char dst[64];
    strrncpy(dst, path.c_str(), sizeof dst);
    EXPECT_EQ(std::string(dst), path.substr(path.size() - 63));
    EXPECT_EQ(strlen(dst), 63u);
}

std::string read_file(const std::string &p) {
    std::ifstream f(p);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

TEST(RawFileAppend, AppendsTextAsItIs) {
    char dir[] = "/tmp/ostrel_raw_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string p = std::string(dir) + "/raw.txt";
    OSL_Log_RecordToFile_Raw_V(p.c_str(), "first %d", 1);
    OSL_Log_RecordToFile_Raw_V(p.c_str(), "|second %s\n", "two");
    EXPECT_EQ(read_file(p), "first 1|second two\n");
    unlink(p.c_str());
    rmdir(dir);
}

TEST(RawFileAppend, UnopenablePathIsSilent) {
    OSL_Log_RecordToFile_Raw_V("/nonexistent-dir/for/sure/x.txt", "%s", "lost");
    SUCCEED() << "no crash, nothing reported";
    EXPECT_EQ(access("/nonexistent-dir/for/sure/x.txt", F_OK), -1);
}

TEST(LoadTime, LogContextIsOpenAndVersionIsSet) {
    EXPECT_NE(_hErvix_LogContext, 0u);
    EXPECT_STREQ(g_Ostrel_VersionString, "1.0.5.11");
}

} // namespace
