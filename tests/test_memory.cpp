// The debug allocator with debugging off and switched on (each test runs in a
// process of its own: a test switches debugging on at its start), its option
// and Ostrel_OutputBuffer; the error-info registry.
#include <gtest/gtest.h>

#include <malloc.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <thread>

#include "osl_internal.h"
#include "ostrel_error.h"
#include "ostrel_ervix.h"
#include "ostrel_memory.h"
#include "test_util.h"

// Impossible sizes must come back as null, as from the system allocator.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

// Runs a call with the last error preset and the log captured: the code it
// returned, the last error it left, and its lines ("level text", from src/memory).
std::string traced(const std::function<uint32_t()> &call) {
    LogCapture cap;
    g_OSL_errno = 0x12345;
    std::ostringstream out;
    out << std::hex << call() << " " << Ostrel_GetLastError() << "\n" << std::dec;
    for (const auto &l : cap.lines()) out << (l.path == "src/memory" ? l.level : 0) << " " << l.text << "\n";
    return out.str();
}

std::string set_options(std::initializer_list<std::pair<int32_t, uintptr_t>> calls) {
    std::string out;
    for (auto [index, value] : calls) out += traced([=] { return Ostrel_SetOption(index, reinterpret_cast<void *>(value)); });
    return out;
}
const std::string kTooLate = "90016 90016\n8 Memory debug option must be set before invoking any memory API.\n";

TEST(MemoryOff, FreeAloneClosesTheSwitch) {
    EXPECT_EQ(Ostrel_MemoryPlainCell(), nullptr); // debugging could still come on
    Ostrel_Free(nullptr); // the first allocation-function call of this process
    EXPECT_EQ(set_options({{1, 1}}), kTooLate);
    // Plain for good: the header's inline forms now store into the last-error cell themselves.
    uint32_t *cell = Ostrel_MemoryPlainCell();
    ASSERT_NE(cell, nullptr);
    *cell = 0x777;
    EXPECT_EQ(Ostrel_GetLastError(), 0x777u);
}

TEST(OutputBuffer, ArgumentChecksSizeQueryAndCopy) {
    char dst[8];
    int32_t room;
    const std::string bad = "9000f 12345\n8 Error in Ostrel_OutputBuffer, assert(",
                      exit = ") failed.\n1 <===Exit Ostrel_OutputBuffer with 0x9000f\n4 #######";
    // want: as traced(), then the length left and dst.
    const struct { const char *src; int32_t len; char *to; bool has_room; int32_t room; std::string want; } rows[] = {
        {"x", 1, dst, false, 4, bad + "NULL != piDstLen" + exit},
        {"x", -1, dst, true, 4, bad + "iSrcLen >= 0" + exit},
        {nullptr, 1, dst, true, 4, bad + "((NULL != pvSrc) || (iSrcLen <= 0))" + exit},
        {nullptr, -1, nullptr, false, 4, bad + "NULL != piDstLen" + exit}, // the first check wins
        {"hello", 5, nullptr, true, -7, "0 0\n5 #######"},                 // a size query
        {"hello", 5, dst, true, 4, "90006 90006\n8 Parameter buf_len(5) is less than out_len(4).\n5 #######"},
        {"hello", 5, dst, true, 5, "0 0\n2 Ostrel_OutputBuffer() copy data (5 bytes)\n00000000: 68 65 6c 6c 6f\n5 hello##"},
        {nullptr, 0, dst, true, 8, "0 0\n2 Ostrel_OutputBuffer() copy data (0 bytes)\n0 #######"},
    };
    for (const auto &r : rows) {
        memcpy(dst, "#######", 8);
        room = r.room;
        const std::string got = traced([&] { return Ostrel_OutputBuffer(r.src, r.len, r.to, r.has_room ? &room : nullptr); });
        EXPECT_EQ(got + std::to_string(room) + " " + dst, r.want);
    }
}

// The text of a summary written to a new file ("" when none is written).
std::string summary() {
    const std::string path = ::testing::TempDir() + "ostrel_memsum_" + std::to_string(getpid());
    Ostrel_MemorySummary(path.c_str());
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    unlink(path.c_str());
    return text;
}

const std::string kNew = "[New summary]\n", kEmpty = kNew + "No memory block existed.\n";
std::string block_line(uint64_t size, const std::string &file, uint32_t line) {
    return "Memory block: " + std::to_string(size) + " bytes allocated at " + file + " - " + std::to_string(line) + ".\n";
}

// Random calls of the four functions, impossible sizes and failed resizes
// among them, with debugging off (the system allocator: nothing tracked) or
// on (checked against a model of the leak list; for some summaries one block
// has a broken head magic or tail guard).
void random_calls(bool debug) {
    // listed: false for a block whose resize failed; it stays with the caller, off the list.
    struct Block { char *p; uint64_t size; std::string file; uint32_t line; bool listed; };
    std::vector<Block> live; // newest first
    std::mt19937 rng(11);
    for (uint32_t step = 1; step <= 400; ++step) {
        const uint64_t n = rng() % 70, count = rng() % 4;
        const std::string name = std::string(rng() % 3 ? 0 : 90, 'd') + "/f" + std::to_string(step) + ".c";
        const char *file = step % 11 ? name.c_str() : nullptr; // recorded as an empty name
        const size_t pick = live.empty() ? 0 : rng() % live.size();
        const int op = int(live.empty() ? rng() % 2 : rng() % 6);
        if (!debug && under_valgrind() && (op == 3 || op == 4)) continue; // it reports impossible sizes itself
        void *old = op == 3 || op == 5 || (op == 2 && count != 0) ? live[pick].p : nullptr; // resize(null): a new block
        g_OSL_errno = 0x12345;
        void *p = op == 0      ? Ostrel_Malloc_D(n, file, step)
                  : op == 1    ? Ostrel_Calloc_D(count, n, file, step)
                  : op == 2    ? Ostrel_Realloc_D(old, n, file, step)
                  : op == 3    ? Ostrel_Realloc_D(old, UINT64_MAX - n, file, step)
                  : op == 5    ? nullptr
                  : count == 0 ? Ostrel_Malloc_D(UINT64_MAX - n, file, step)
                  : count == 1 ? Ostrel_Calloc_D(1, UINT64_MAX - n, file, step)
                               : Ostrel_Calloc_D(uint64_t{1} << 33, (uint64_t{1} << 32) + n, file, step);
        if (op == 3 || op == 4) {
            EXPECT_TRUE(p == nullptr && Ostrel_GetLastError() == OSL_ERR_NO_MEMORY) << step;
            if (op == 3) live[pick].listed = false;
        } else if (op == 5) {
            debug || step % 2 ? Ostrel_Free(old) : free(old); // off, the system's free is the same
            live.erase(live.begin() + long(pick));
        } else {
            ASSERT_TRUE(p != nullptr && Ostrel_GetLastError() == 0) << step;
            const uint64_t size = op == 1 ? count * n : n;
            EXPECT_TRUE(debug || malloc_usable_size(p) >= size); // off: the start of a heap block
            const std::string bytes = op == 1 ? std::string(size, '\0') // zeroed, or what the resized block held
                                      : old   ? std::string(std::min(size, live[pick].size), char(live[pick].line)) : "";
            EXPECT_EQ(std::string(static_cast<char *>(p), bytes.size()), bytes) << step;
            if (old != nullptr) live.erase(live.begin() + long(pick));
            memset(p, char(step), size);
            live.insert(live.begin(), {static_cast<char *>(p), size, file ? name.substr(name.size() > 63 ? name.size() - 63 : 0) : "", step, true});
        }
        // Forward from the newest to a broken block, then backward from the oldest to it.
        std::vector<Block *> list;
        for (auto &b : live) b.listed && debug ? list.push_back(&b) : void();
        auto line = [&](size_t i) { return block_line(list[i]->size, list[i]->file, list[i]->line); };
        const size_t end = rng() % 3, broken = list.empty() || rng() % 3 ? list.size() // none; else the newest, the oldest
                                             : end == 0 ? 0 : end == 1 ? list.size() - 1 : rng() % list.size(); // or any
        char *hit = broken == list.size() ? nullptr : rng() % 2 ? list[broken]->p - 96 : list[broken]->p + list[broken]->size;
        char crashed[64];
        snprintf(crashed, sizeof crashed, "Crashed memory block: %p.\n", static_cast<void *>(hit ? list[broken]->p - 96 : nullptr));
        std::string want = !debug ? "" : list.empty() ? kEmpty : kNew;
        for (size_t i = 0; i < broken && i < list.size(); ++i) want += line(i);
        if (hit != nullptr) want += crashed;
        for (size_t i = list.size() - 1; hit != nullptr && broken > 0 && i > broken; --i) want += line(i);
        if (hit != nullptr && broken > 0) want += crashed;
        if (hit != nullptr) *hit ^= 1;
        ASSERT_EQ(summary(), want) << "step " << step << ", call " << op << ", broken " << broken;
        if (hit != nullptr) *hit ^= 1;
    }
    for (const auto &b : live) Ostrel_Free(b.p);
}

TEST(MemoryOff, RandomCallsThenTheSwitchIsClosed) {
    random_calls(false);
    // Reported before the value is looked at.
    EXPECT_EQ(set_options({{1, 1}, {1, 2}, {-1, 1}}), kTooLate + kTooLate + "9000f 9000f\n8 Unknown option index: -1.\n");
}

// Debugging is switched on before any allocation of the test's process:
// refused while off, then on once; once on, any value is accepted.
void switch_on() {
    EXPECT_EQ(set_options({{1, 2}, {2, 1}, {1, 1}, {1, 0}, {9, 1}}),
              "9000f 9000f\n8 Invalid option value for memory debug option: 0x2.\n9000f 9000f\n8 Unknown option index: "
              "2.\n0 0\n0 0\n9000f 9000f\n8 Unknown option index: 9.\n");
}

TEST(MemoryDebug, RandomCallsThreadsUnderTheLockMadeAtLoadTimeAndAnUntrackedPointer) {
    switch_on();
    random_calls(true); // through the inline forms, which must keep calling the library
    EXPECT_EQ(Ostrel_MemoryPlainCell(), nullptr);
    EXPECT_EQ(summary(), kEmpty);
    OSL_Mem_LeakMutexInit(); // the load-time step, run now that debugging is on, makes the lock
    void *keep = Ostrel_Malloc_D(7, "keep.c", 1);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (uint64_t i = 0; i < 500; ++i) Ostrel_Free(Ostrel_Realloc_D(Ostrel_Malloc_D(i % 50, "t.c", t), i % 70, "t.c", t));
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(summary(), kNew + block_line(7, "keep.c", 1));
    // A heap pointer not made here is resized as it is; its magic is looked for in
    // front of it, in another heap block (which sanitizers and valgrind report).
    if (!OSTREL_TEST_SANITIZED && !under_valgrind()) {
        void *r = Ostrel_Realloc_D(malloc(64), 10, "u.c", 4);
        EXPECT_EQ(summary(), kNew + block_line(10, "u.c", 4) + block_line(7, "keep.c", 1));
        Ostrel_Free(r);
    }
    Ostrel_Free(keep);
    EXPECT_EQ(summary(), kEmpty);
}

// --- error-info registry (blocks live as long as the process: each test uses ids of its own).

std::string g_texts[ERVIX_ENTRY_COUNT][2]; // English and Chinese of each entry; "\1" for an absent one
std::atomic<int> g_started{0}, g_good_calls{0};

// Fills the block from g_texts through raw byte offsets, as a module built
// without the header would (a text of 60 bytes or more without its NUL), once
// all 8 registering threads have started, so that every one races for the store.
int fill(const char *name, uint32_t id, ErvixErrInfoBlock *b, uint32_t len) {
    g_good_calls += id == 5 && len == 31 && std::string(b->szModuleName) == std::string(name, 31); // named already
    for (++g_started; g_started < 8;) std::this_thread::yield();
    for (uint32_t i = 0; i < ERVIX_ENTRY_COUNT; ++i) {
        unsigned char *e = reinterpret_cast<unsigned char *>(b) + 32 + 128 * i;
        const uint32_t present = g_texts[i][0] != "\1";
        memcpy(e, &present, 4);
        memcpy(e + 4, "\xDE\xAD\xBE\xEF", 4); // not the registry's
        for (int lang : {0, 1}) memcpy(e + 8 + 60 * lang, g_texts[i][lang].c_str(), std::min<size_t>(g_texts[i][lang].size() + 1, 60));
    }
    return -1; // ignored
}
int fill_nothing(const char *, uint32_t, ErvixErrInfoBlock *, uint32_t) { return 0; }

TEST(Registry, EightThreadsRegisterOneIdThenRandomLookups) {
    const std::string name40 = "module-name-of-exactly-forty-characters!", F = "[ERVIX]Unregisted errno.";
    std::mt19937 rng(5); // texts of ']', '[', 'a' and 'b': with and without tags
    for (auto &entry : g_texts) {
        const bool present = rng() % 5 != 0;
        for (auto &text : entry) {
            text.clear();
            for (uint32_t k = rng() % 66; k > 0; --k) text += "][ab"[rng() % 4];
            if (!present) text = "\1";
        }
    }
    g_texts[ERVIX_ENTRY_COUNT - 1][0] = "last"; // written last: a block published before it is half filled
    std::atomic<int> seen{0}; // 1: id 5 seen published whole, -1: half filled
    std::thread reader([&] { // no synchronisation with the registering threads
        while (seen == 0) seen = Ervix_GetErrModule(5 << 16) == F ? 0 : Ervix_GetErrInfoEN(0x580FF) == std::string("last") ? 1 : -1;
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) threads.emplace_back([&] { Ervix_Register(name40.c_str(), 5, fill); });
    for (auto &th : threads) th.join();
    reader.join();
    EXPECT_EQ(seen, 1);
    Ervix_Register("other", 5, fill); // the id is taken: returns at once
    Ervix_Register("too-high", 1024, fill);
    Ervix_Register(nullptr, 6, fill);
    Ervix_Register("no-callback", 7, nullptr);
    Ervix_Register("", 8, fill_nothing); // an empty name is still a name
    Ervix_Register("top", 1023, fill_nothing);
    EXPECT_TRUE(g_good_calls == 8 && g_started == 8); // every racing callback ran; one block was kept
    for (uint32_t id : {5u, 6u, 7u, 8u, 1023u, 1024u, 0xFFFFu})
        EXPECT_EQ(Ervix_GetErrModule(id << 16 | 0x8123), id == 5 ? name40.substr(0, 31) : id == 8 ? "" : id == 1023 ? "top" : F) << id;
    for (uint32_t n = 0; n < 20000; ++n) { // bits 14..8 play no part; bit 15 selects entries 256..511
        const uint32_t code = (rng() % 4 ? 5 : rng() % 2048) << 16 | (rng() & 0xFFFF);
        std::string ex[2], plain[2];
        for (int lang : {0, 1}) {
            ex[lang] = code >> 16 == 5 ? g_texts[(code & 0xFF) | (code & 0x8000 ? 256 : 0)][lang].substr(0, 59) : "\1";
            if (ex[lang] == "\1") ex[lang] = F;
            const size_t close = ex[lang] == F ? std::string::npos : ex[lang].find(']');
            plain[lang] = close == std::string::npos ? ex[lang] : ex[lang].substr(close + 1);
        }
        ASSERT_EQ((std::vector<std::string>{Ervix_GetErrInfoEN(code), Ervix_GetErrInfoCN(code), Ervix_GetErrInfoExEN(code),
                                            Ervix_GetErrInfoExCN(code), Ervix_GetErrInfo(code, 0), Ervix_GetErrInfo(code, -3),
                                            Ervix_GetErrInfoEx(code, 0), Ervix_GetErrInfoEx(code, 7)}),
                  (std::vector<std::string>{plain[0], plain[1], ex[0], ex[1], plain[0], plain[1], plain[0], plain[1]}))
            << std::hex << code;
    }
}

} // namespace
