// Debug allocator with debugging off (it is never switched on in this
// process): the system allocator behind the four functions, the last-error
// rules, the closed switch once any of them has run, and Ostrel_OutputBuffer.
#include <gtest/gtest.h>

#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_memory.h"

// Impossible sizes must come back as null here, as from the system allocator,
// rather than stop the process.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

constexpr const char *kPath = "src/memory";

std::string summary_path() {
    return ::testing::TempDir() + "ostrel_memsum_off_" + std::to_string(getpid()) + ".txt";
}

TEST(MemoryOff, FunctionsAreTheSystemAllocator) {
    g_OSL_errno = 0x12345;
    auto *p = static_cast<unsigned char *>(Ostrel_Malloc_D(24, "a.c", 1));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    EXPECT_GE(malloc_usable_size(p), 24u); // the start of a heap block: no header in front
    memcpy(p, "twenty-three characters", 24);

    g_OSL_errno = 0x12345;
    p = static_cast<unsigned char *>(Ostrel_Realloc_D(p, 4096, "b.c", 2));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    EXPECT_STREQ(reinterpret_cast<char *>(p), "twenty-three characters");
    free(p); // with debugging off, the system's free is equivalent

    auto *z = static_cast<unsigned char *>(Ostrel_Calloc_D(5, 7, "c.c", 3));
    ASSERT_NE(z, nullptr);
    EXPECT_GE(malloc_usable_size(z), 35u);
    for (int i = 0; i < 35; ++i) EXPECT_EQ(z[i], 0) << i;
    Ostrel_Free(z);
    Ostrel_Free(nullptr);

    // No tracking: the summary writes nothing, not even its heading.
    std::string path = summary_path();
    unlink(path.c_str());
    void *live = Ostrel_Malloc_D(8, "d.c", 4);
    Ostrel_MemorySummary(path.c_str());
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    Ostrel_Free(live);
}

TEST(MemoryOff, FailedAllocationsSetNoMemoryAndSuccessClearsIt) {
    if (under_valgrind()) GTEST_SKIP() << "valgrind reports the impossible sizes themselves";
    g_OSL_errno = 0;
    EXPECT_EQ(Ostrel_Malloc_D(UINT64_MAX, "a.c", 1), nullptr);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    g_OSL_errno = 0;
    EXPECT_EQ(Ostrel_Calloc_D(UINT64_MAX / 2, 4, "b.c", 2), nullptr);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);

    void *p = Ostrel_Malloc_D(16, "c.c", 3);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    memcpy(p, "still here", 11);
    EXPECT_EQ(Ostrel_Realloc_D(p, UINT64_MAX, "d.c", 4), nullptr);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    EXPECT_STREQ(static_cast<char *>(p), "still here"); // untouched by the failed resize
    Ostrel_Free(p);
}

TEST(MemoryOff, SwitchIsClosedOnceAnAllocationFunctionHasRun) {
    void *p = Ostrel_Malloc_D(1, "a.c", 1);
    Ostrel_Free(p);
    LogCapture cap;
    g_OSL_errno = 0;
    EXPECT_EQ(Ostrel_SetOption(OSL_OPTION_MEMORY_DEBUG, reinterpret_cast<void *>(1)), OSL_ERR_INVALID_COMMAND);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_INVALID_COMMAND);
    // The closed switch is reported before the value is looked at.
    EXPECT_EQ(Ostrel_SetOption(OSL_OPTION_MEMORY_DEBUG, reinterpret_cast<void *>(2)), OSL_ERR_INVALID_COMMAND);
    EXPECT_EQ(Ostrel_SetOption(-1, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{
                  "src/memory|Memory debug option must be set before invoking any memory API.",
                  "src/memory|Memory debug option must be set before invoking any memory API.",
                  "src/memory|Unknown option index: -1.",
              }));
}

TEST(MemoryOff, FreeAloneClosesTheSwitch) {
    // Run as its own process, this is the first allocation-function call.
    Ostrel_Free(nullptr);
    EXPECT_EQ(Ostrel_SetOption(OSL_OPTION_MEMORY_DEBUG, reinterpret_cast<void *>(1)), OSL_ERR_INVALID_COMMAND);
}

TEST(OutputBuffer, SizeQueryCopyAndTooSmallBuffer) {
    LogCapture cap;
    const char src[] = "hello";
    int32_t len = -7;
    g_OSL_errno = 0x12345;
    EXPECT_EQ(Ostrel_OutputBuffer(src, 5, nullptr, &len), 0u);
    EXPECT_EQ(len, 5);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);

    char dst[8] = "#######";
    len = 3;
    EXPECT_EQ(Ostrel_OutputBuffer(src, 5, dst, &len), OSL_ERR_NO_MEMORY);
    EXPECT_EQ(len, 5);
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_NO_MEMORY);
    EXPECT_STREQ(dst, "#######"); // nothing copied
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{"src/memory|Parameter buf_len(5) is less than out_len(3)."}));
    EXPECT_TRUE(cap.texts(LOG_LEVEL_INFO).empty());

    len = static_cast<int32_t>(sizeof dst);
    EXPECT_EQ(Ostrel_OutputBuffer(src, 5, dst, &len), 0u);
    EXPECT_EQ(len, 5);
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
    EXPECT_EQ(std::string(dst, 7), "hello##");
    std::vector<LogLine> info;
    for (const auto &l : cap.lines())
        if (l.level == LOG_LEVEL_INFO) info.push_back(l);
    ASSERT_EQ(info.size(), 1u);
    EXPECT_EQ(info[0].path, kPath);
    EXPECT_EQ(info[0].text.rfind("Ostrel_OutputBuffer() copy data", 0), 0u) << info[0].text;
    EXPECT_NE(info[0].text.find("68 65 6c 6c 6f"), std::string::npos) << info[0].text; // the copied bytes

    // Nothing to copy: a null source is fine.
    len = 0;
    EXPECT_EQ(Ostrel_OutputBuffer(nullptr, 0, dst, &len), 0u);
    EXPECT_EQ(len, 0);
}

TEST(OutputBuffer, ArgumentChecksLogTheirConditionAndKeepTheLastError) {
    LogCapture cap;
    char dst[4];
    int32_t len = 4;
    g_OSL_errno = 0x12345;
    EXPECT_EQ(Ostrel_OutputBuffer("x", 1, dst, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_OutputBuffer("x", -1, dst, &len), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_OutputBuffer(nullptr, 1, dst, &len), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(Ostrel_OutputBuffer(nullptr, -1, nullptr, nullptr), OSL_ERR_INVALID_PARAMETER); // first check wins
    EXPECT_EQ(Ostrel_GetLastError(), 0x12345u);
    EXPECT_EQ(len, 4);
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{
                  "src/memory|Error in Ostrel_OutputBuffer, assert(NULL != piDstLen) failed.",
                  "src/memory|Error in Ostrel_OutputBuffer, assert(iSrcLen >= 0) failed.",
                  "src/memory|Error in Ostrel_OutputBuffer, assert(((NULL != pvSrc) || (iSrcLen <= 0))) failed.",
                  "src/memory|Error in Ostrel_OutputBuffer, assert(NULL != piDstLen) failed.",
              }));
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE),
              std::vector<std::string>(4, "src/memory|<===Exit Ostrel_OutputBuffer with 0x9000f"));
}
} // namespace
