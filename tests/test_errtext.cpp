// Error texts and module names of every code family, the last error around
// the call frame, and the frame's helpers: the tail-keeping copy, the raw file
// append and the log context opened at load time.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "osl_internal.h"
#include "ostrel_error.h"

namespace {

constexpr const char *kUnregistered = "Unregisted errno.";

TEST(ErrorText, GenericNumbersHaveTextsOfTheirOwnInEveryModuleWhateverBits14To8) {
    std::set<std::string> texts;
    for (uint32_t n = 1; n <= 52; ++n) {
        const std::string text = Ostrel_GetErrorText(n);
        EXPECT_TRUE(texts.insert(text).second && text != kUnregistered && text.back() == '.') << n;
        for (uint32_t other : {0x90000u, 0xA0000u, 0x1230000u, 0x3FF0000u, 0x100u, 0x2A00u, 0x7F00u, 0x3FF7F00u})
            EXPECT_EQ(Ostrel_GetErrorText(other | n), text) << std::hex << (other | n);
    }
}

TEST(ErrorText, OtherCodesAndModuleNames) {
    const char *U = kUnregistered;
    const struct { uint32_t code; const char *text, *module; } rows[] = {
        {0x90001, "Unknown error.", "ostrel"}, {0x9000F, "Invalid parameter.", "ostrel"}, {0x90010, "Invalid handle.", "ostrel"},
        {0xA0018, "Can not find specified item(node,element).", "netbase"}, {0x90034, "Invalid serial no.", "ostrel"},
        {0x2B, "Async worker is busy, can not start more task.", "base"}, {0x3FF0006, "Not enough memory.", "demo"},
        // No generic text: 0 (success), 0 or above 52 in bits 7..0, module ids past 1023.
        {0x0, U, "base"}, {0x90000, U, "ostrel"}, {0x90035, U, "ostrel"}, {0x900FF, U, "ostrel"}, {0xA0100, U, "netbase"},
        {0x400000F, U, "???"}, {0x4000000F, U, "???"}, {0xFFFFFFFF, U, "???"}, {0x10001, "Unknown error.", "???"},
        {0x3FE0001, "Unknown error.", "???"},
        // Module-specific: the whole code counts.
        {0x3FF8001, "[demo]TEST1.", "demo"}, {0x3FF8002, "[demo]TEST2.", "demo"}, {0x3FF8003, "[demo]TEST3.", "demo"},
        {0x3FF8004, U, "demo"}, {0x3FF8000, U, "demo"}, {0x3FF8102, U, "demo"}, {0x98001, U, "ostrel"}, {0x8002, U, "base"},
    };
    for (const auto &r : rows) {
        EXPECT_STREQ(Ostrel_GetErrorText(r.code), r.text) << std::hex << r.code;
        EXPECT_STREQ(Local_GetErrModule(r.code), r.module) << std::hex << r.code;
        g_OSL_errno = r.code; // the last error's text is that of the code, and reading it changes nothing
        EXPECT_TRUE(Ostrel_GetLastErrorText() == Ostrel_GetErrorText(r.code) && Ostrel_GetLastError() == r.code);
    }
}

TEST(Frame, StrrncpyKeepsTheTailAndRawAppendAppends) {
    const std::string path = std::string(100, 'd') + "/file.cpp";
    // Source, bound, then all 9 bytes of a destination that starts as '#'s.
    const struct { const char *src; size_t n; std::string want; } rows[] = {
        {"abcdef", 4, {"def\0#####", 9}}, {"abcd", 4, {"bcd\0#####", 9}}, {"abc", 4, {"abc\0#####", 9}},
        {"ab", 4, {"ab\0######", 9}},     {"abc", 1, {"\0########", 9}},  {"abc", 0, "#########"},
        {nullptr, 4, "#########"},        {path.c_str(), 9, {"file.cpp\0", 9}},
    };
    for (const auto &r : rows) {
        char dst[9];
        memset(dst, '#', sizeof dst);
        EXPECT_EQ(strrncpy(dst, r.src, r.n), dst);
        EXPECT_EQ(std::string(dst, sizeof dst), r.want) << (r.src ? r.src : "null") << " " << r.n;
    }
    EXPECT_EQ(strrncpy(nullptr, "abc", 4), nullptr);

    const std::string file = ::testing::TempDir() + "ostrel_raw_" + std::to_string(getpid());
    unlink(file.c_str());
    OSL_Log_RecordToFile_Raw_V(file.c_str(), "first %d", 1);
    OSL_Log_RecordToFile_Raw_V(file.c_str(), "|second %s\n", "two");
    std::ifstream in(file);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "first 1|second two\n");
    unlink(file.c_str());
    OSL_Log_RecordToFile_Raw_V("/nonexistent-dir/x.txt", "%s", "lost"); // silently nothing
    EXPECT_NE(_hErvix_LogContext, 0u);                                   // opened at load time
}

} // namespace
