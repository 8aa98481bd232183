// Error-info registry: rejected registrations, lookups by language with and
// without the tag, the byte layout a module's callback fills, and concurrent
// registration of one id from 8 threads with lock-free readers. Each test
// uses module ids of its own, since the registry lives as long as the process.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ostrel_ervix.h"

namespace {

constexpr const char *kFallback = "[ERVIX]Unregisted errno.";

uint32_t code(uint32_t module, uint32_t low) { return (module << 16) | low; }

void set_entry(ErvixErrInfoBlock *b, uint32_t index, const char *en, const char *cn) {
    ErvixErrInfoEntry &e = b->stEntries[index];
    e.uiPresent = 1;
    snprintf(e.szTextEN, sizeof e.szTextEN, "%s", en);
    snprintf(e.szTextCN, sizeof e.szTextCN, "%s", cn);
}

std::vector<std::string> all_lookups(uint32_t c) {
    return {Ervix_GetErrInfo(c, 0),   Ervix_GetErrInfo(c, 1), Ervix_GetErrInfoEx(c, 0),
            Ervix_GetErrInfoEx(c, 1), Ervix_GetErrInfoEN(c),  Ervix_GetErrInfoCN(c),
            Ervix_GetErrInfoExEN(c),  Ervix_GetErrInfoExCN(c), Ervix_GetErrModule(c)};
}

std::atomic<int> g_unexpected_calls{0};
int count_call(const char *, uint32_t, ErvixErrInfoBlock *b, uint32_t) {
    ++g_unexpected_calls;
    set_entry(b, 1, "should not be seen", "");
    return 0;
}

TEST(ErvixRegister, RejectedRegistrationsLeaveNothingBehind) {
    Ervix_Register("too-high", 1024, count_call);
    Ervix_Register("far-too-high", 0xFFFFFFFFu, count_call);
    Ervix_Register(nullptr, 30, count_call);
    Ervix_Register("no-callback", 31, nullptr);
    EXPECT_EQ(g_unexpected_calls.load(), 0);
    const std::vector<std::string> none(9, kFallback);
    for (uint32_t c : {code(30, 1), code(31, 1), 0x04000001u, 0xFFFF8001u, code(1023, 0x8001)})
        EXPECT_EQ(all_lookups(c), none) << std::hex << c;
}

int fill_demo(const char *, uint32_t, ErvixErrInfoBlock *b, uint32_t) {
    set_entry(b, 0x0F, "[mod]Bad value", "[模块]错误的值");
    set_entry(b, 0x10, "No tag here", "没有标签");
    set_entry(b, 0x11, "]x", "]");
    set_entry(b, 0x12, "", "");
    set_entry(b, 0x13, "a]b]c", "[未闭合");
    set_entry(b, 256 + 0x0F, "[m]Specific", "[m]特定");
    snprintf(b->stEntries[0x14].szTextEN, ERVIX_TEXT_SIZE, "ghost"); // text, but not present
    return -1;                                                         // ignored
}

TEST(ErvixLookup, LanguagesTagsAndEntrySelection) {
    Ervix_Register("demo", 5, fill_demo);
    // Tags stripped or kept; UTF-8 comes back byte for byte.
    EXPECT_EQ(all_lookups(0x5000F), (std::vector<std::string>{"Bad value", "错误的值", "Bad value", "错误的值",
                                                              "Bad value", "错误的值", "[mod]Bad value",
                                                              "[模块]错误的值", "demo"}));
    // Any nonzero language is Chinese.
    EXPECT_STREQ(Ervix_GetErrInfo(0x5000F, -3), "错误的值");
    EXPECT_STREQ(Ervix_GetErrInfoEx(0x5000F, 7), "错误的值");
    // Bits 14..8 play no part; bit 15 selects the module-specific half.
    EXPECT_EQ(all_lookups(0x5010F), all_lookups(0x5000F));
    EXPECT_EQ(all_lookups(0x57F0F), all_lookups(0x5000F));
    EXPECT_STREQ(Ervix_GetErrInfoEN(0x5800F), "Specific");
    EXPECT_STREQ(Ervix_GetErrInfoExCN(0x5FF0F), "[m]特定");

    EXPECT_STREQ(Ervix_GetErrInfoEN(0x50010), "No tag here");
    EXPECT_STREQ(Ervix_GetErrInfoExEN(0x50010), "No tag here");
    EXPECT_STREQ(Ervix_GetErrInfoEN(0x50011), "x");
    EXPECT_STREQ(Ervix_GetErrInfoCN(0x50011), "");
    EXPECT_STREQ(Ervix_GetErrInfoEN(0x50012), ""); // present and empty: not the fallback
    EXPECT_STREQ(Ervix_GetErrInfoExCN(0x50012), "");
    EXPECT_STREQ(Ervix_GetErrInfoEN(0x50013), "b]c"); // up to the first ']'
    EXPECT_STREQ(Ervix_GetErrInfoCN(0x50013), "[未闭合");
    EXPECT_STREQ(Ervix_GetErrInfoExEN(0x50014), kFallback);
    EXPECT_STREQ(Ervix_GetErrInfoEN(0x58010), kFallback); // the specific half has no 0x10
    EXPECT_STREQ(Ervix_GetErrModule(0x58010), "demo");    // but the module is known
    EXPECT_STREQ(Ervix_GetErrModule(0x60000), kFallback);

    // The texts are the block's own and stay where they are.
    EXPECT_EQ(Ervix_GetErrInfoExEN(0x5000F), Ervix_GetErrInfoExEN(0x5000F));
    EXPECT_EQ(Ervix_GetErrInfoEN(0x5000F), Ervix_GetErrInfoExEN(0x5000F) + 5);
}

struct SeenByCallback {
    const char *name = nullptr;
    uint32_t id = 0;
    std::string name_in_block;
    uint32_t len = 0;
    int calls = 0;
};
SeenByCallback g_seen;

int record_call(const char *name, uint32_t id, ErvixErrInfoBlock *b, uint32_t len) {
    g_seen.name = name;
    g_seen.id = id;
    g_seen.name_in_block = b->szModuleName;
    g_seen.len = len;
    ++g_seen.calls;
    set_entry(b, 2, "first", "");
    return 0;
}

int fill_second(const char *, uint32_t, ErvixErrInfoBlock *b, uint32_t) {
    ++g_seen.calls;
    set_entry(b, 2, "second", "");
    return 0;
}

TEST(ErvixRegister, LongNameIsCutTo31AndAnIdIsRegisteredOnce) {
    const char *name = "module-name-of-exactly-forty-characters!";
    ASSERT_EQ(strlen(name), 40u);
    Ervix_Register(name, 40, record_call);
    EXPECT_EQ(g_seen.calls, 1);
    EXPECT_EQ(g_seen.name, name);
    EXPECT_EQ(g_seen.id, 40u);
    EXPECT_EQ(g_seen.len, 31u);
    EXPECT_EQ(g_seen.name_in_block, std::string(name, 31)); // copied before the callback runs
    EXPECT_STREQ(Ervix_GetErrModule(code(40, 0)), std::string(name, 31).c_str());

    // Once the id has its block, a later registration returns at once.
    Ervix_Register("other", 40, fill_second);
    EXPECT_EQ(g_seen.calls, 1);
    EXPECT_STREQ(Ervix_GetErrInfoEN(code(40, 2)), "first");
    EXPECT_STREQ(Ervix_GetErrModule(code(40, 2)), std::string(name, 31).c_str());

    Ervix_Register("", 41, fill_second); // an empty name is still a name
    EXPECT_STREQ(Ervix_GetErrModule(code(41, 0)), "");
    EXPECT_STREQ(Ervix_GetErrInfoEN(code(41, 2)), "second");
}

// Fills through raw byte offsets, as a module built without this header would.
int fill_raw(const char *, uint32_t, ErvixErrInfoBlock *b, uint32_t) {
    auto *bytes = reinterpret_cast<unsigned char *>(b);
    auto put = [bytes](uint32_t index, const char *en, const char *cn) {
        unsigned char *e = bytes + 32 + 128 * index;
        uint32_t present = 1, reserved = 0xDEADBEEF;
        memcpy(e, &present, 4);
        memcpy(e + 4, &reserved, 4);
        memcpy(e + 8, en, strlen(en) + 1);
        memcpy(e + 68, cn, strlen(cn) + 1);
    };
    put(0x21, "[raw]generic", "[raw]通用");
    put(256 + 0x22, "specific", "特定");
    put(511, "last", "最后");
    // Texts left without their NUL fill the whole 60-byte field.
    unsigned char *e = bytes + 32 + 128 * 0x30;
    memset(e, 0, 4);
    e[0] = 1;
    memset(e + 8, 'e', 60);
    memset(e + 68, 'c', 60);
    memset(bytes + 32 + 128 * 511 + 68, 'z', 60); // runs to the block's very end
    return 0;
}

TEST(ErvixLayout, ModulesFillTheBlockByByteOffsets) {
    Ervix_Register("raw", 50, fill_raw);
    EXPECT_STREQ(Ervix_GetErrModule(code(50, 0)), "raw");
    EXPECT_STREQ(Ervix_GetErrInfoEN(code(50, 0x21)), "generic");
    EXPECT_STREQ(Ervix_GetErrInfoCN(code(50, 0x21)), "通用");
    EXPECT_STREQ(Ervix_GetErrInfoEN(code(50, 0x8022)), "specific");
    EXPECT_STREQ(Ervix_GetErrInfoExCN(code(50, 0x8022)), "特定");
    EXPECT_STREQ(Ervix_GetErrInfoEN(code(50, 0x80FF)), "last");
    EXPECT_STREQ(Ervix_GetErrInfoEN(code(50, 0x22)), kFallback);
    // Unterminated texts end inside their field.
    EXPECT_EQ(std::string(Ervix_GetErrInfoExEN(code(50, 0x30))), std::string(59, 'e'));
    EXPECT_EQ(std::string(Ervix_GetErrInfoExCN(code(50, 0x30))), std::string(59, 'c'));
    EXPECT_EQ(std::string(Ervix_GetErrInfoExCN(code(50, 0x80FF))), std::string(59, 'z'));
}

// --- concurrent registration ------------------------------------------------

constexpr uint32_t kSharedId = 700;
constexpr uint32_t kOwnIdBase = 710;
constexpr int kThreads = 8;

// Holds every callback of the shared id until all of them have started, so
// that all registrations pass the "already registered" check and race for
// the store.
std::mutex g_gate_mu;
std::condition_variable g_gate_cv;
int g_gate_count = 0;
std::atomic<int> g_shared_calls{0};

std::string text_of(int thread, uint32_t index) {
    return "t" + std::to_string(thread) + " e" + std::to_string(index);
}

int fill_racing(const char *name, uint32_t id, ErvixErrInfoBlock *b, uint32_t) {
    int thread = atoi(name + 7); // "thread-N"
    if (id == kSharedId) {
        ++g_shared_calls;
        std::unique_lock<std::mutex> lk(g_gate_mu);
        ++g_gate_count;
        g_gate_cv.notify_all();
        g_gate_cv.wait(lk, [] { return g_gate_count == kThreads; });
    }
    for (uint32_t i = 0; i < ERVIX_ENTRY_COUNT; ++i) set_entry(b, i, text_of(thread, i).c_str(), "中文");
    return 0;
}

// Checks that a published block is complete: every entry holds the texts of
// the thread that named the module.
bool block_complete(uint32_t id, int *owner) {
    std::string name = Ervix_GetErrModule(code(id, 0));
    if (name == kFallback) return false;
    int thread = atoi(name.c_str() + 7);
    *owner = thread;
    for (uint32_t i = 0; i < ERVIX_ENTRY_COUNT; ++i) {
        uint32_t c = code(id, (i & 0xFF) | ((i >> 8) << 15));
        if (Ervix_GetErrInfoExEN(c) != text_of(thread, i) || strcmp(Ervix_GetErrInfoCN(c), "中文") != 0) {
            ADD_FAILURE() << "half-filled block seen at entry " << i;
            return false;
        }
    }
    return true;
}

TEST(ErvixConcurrency, EightThreadsRegisterOneIdAndReadersSeeWholeBlocks) {
    std::atomic<bool> done{false};
    std::atomic<int> complete_reads{0};
    // Reads with no synchronisation with the registering threads until it has
    // seen the published block whole (or the test gives up waiting).
    std::thread reader([&] {
        int owner = -1;
        while (!done.load() && complete_reads.load() == 0)
            if (block_complete(kSharedId, &owner)) ++complete_reads;
    });
    std::vector<std::thread> threads;
    std::vector<std::string> names;
    for (int t = 0; t < kThreads; ++t) names.push_back("thread-" + std::to_string(t));
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            Ervix_Register(names[t].c_str(), kSharedId, fill_racing);
            Ervix_Register(names[t].c_str(), kOwnIdBase + t, fill_racing);
        });
    for (auto &th : threads) th.join();
    for (int i = 0; i < 10000000 && complete_reads.load() == 0; ++i) std::this_thread::yield();
    done = true;
    reader.join();

    EXPECT_GT(complete_reads.load(), 0);
    EXPECT_EQ(g_shared_calls.load(), kThreads); // every callback ran; one block was kept
    int owner = -1;
    ASSERT_TRUE(block_complete(kSharedId, &owner));
    EXPECT_GE(owner, 0);
    EXPECT_LT(owner, kThreads);
    // The kept block never changes afterwards.
    const char *kept = Ervix_GetErrInfoExEN(code(kSharedId, 3));
    Ervix_Register("thread-9", kSharedId, fill_racing);
    EXPECT_EQ(Ervix_GetErrInfoExEN(code(kSharedId, 3)), kept);
    for (int t = 0; t < kThreads; ++t) {
        int own = -1;
        EXPECT_TRUE(block_complete(kOwnIdBase + t, &own));
        EXPECT_EQ(own, t);
    }
}

} // namespace
