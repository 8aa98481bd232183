// ostrel-kv: command-line client of ostrel-kvd.
//
//   ostrel-kv [--host H] [--port P] [--log-dir DIR] put KEY VALUE | get KEY | del KEY | count | list
//   ostrel-kv [--host H] [--port P] [--log-dir DIR] bench [--clients N] [--requests M]
//
// Exit status: 0 when the service answered with success, 1 when it answered
// with an error (printed as "error 0x...: text"), 2 for usage or transport
// failures (printed with the socket layer's reason). No log file is written
// unless --log-dir names a directory.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "kv_protocol.h"
#include "tool_log.h"

namespace {

int usage() {
    fprintf(stderr, "usage: ostrel-kv [--host H] [--port P] [--log-dir DIR] put KEY VALUE | get KEY | del KEY | count | list\n"
                    "       ostrel-kv [--host H] [--port P] [--log-dir DIR] bench [--clients N] [--requests M]\n");
    return 2;
}

// A failed connect or request, with the socket layer's own reason when the
// failure came from a socket call ("connect: Connection refused").
int transport_error(const char *what, const char *host, int port, uint32_t rc) {
    const std::string why = NetWork_GetErrorText();
    if (why != "Success")
        fprintf(stderr, "ostrel-kv: %s %s:%d failed: %s (0x%x %s)\n", what, host, port, why.c_str(), rc,
                Ostrel_GetErrorText(rc));
    else
        fprintf(stderr, "ostrel-kv: %s %s:%d failed: 0x%x %s\n", what, host, port, rc, Ostrel_GetErrorText(rc));
    return 2;
}

int run_one(const char *host, int port, int32_t op, const char *key, const char *value) {
    kv::Client c;
    uint32_t rc = c.connect(host, port);
    if (rc != 0) return transport_error("connect to", host, port, rc);
    kv::Reply r;
    rc = c.call(op, key, value, r);
    if (rc != 0) return transport_error("request to", host, port, rc);
    if (r.code != 0) {
        printf("error 0x%x: %s\n", r.code, r.text.c_str());
        return 1;
    }
    switch (op) {
    case kv::KV_OP_GET: printf("%s\n", r.value.c_str()); break;
    case kv::KV_OP_COUNT: printf("%d\n", r.count); break;
    case kv::KV_OP_LIST:
        for (const auto &e : r.entries) printf("%s=%s\n", e.first.c_str(), e.second.c_str());
        break;
    default: printf("ok\n");
    }
    return 0;
}

// N connections, each sending M requests (a put then a get of the same key,
// alternately); every reply is checked. Prints throughput and latency.
int run_bench(const char *host, int port, int clients, int requests) {
    std::vector<std::vector<double>> lat(static_cast<size_t>(clients));
    std::atomic<long> done{0}, failures{0};
    std::atomic<bool> finished{false};
    auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> ts;
    for (int t = 0; t < clients; ++t)
        ts.emplace_back([&, t] {
            kv::Client c;
            if (c.connect(host, port) != 0) {
                failures += requests;
                return;
            }
            auto &mine = lat[static_cast<size_t>(t)];
            mine.reserve(static_cast<size_t>(requests));
            for (int i = 0; i < requests; ++i) {
                std::string key = "bench-" + std::to_string(t) + "-" + std::to_string(i / 2);
                std::string value = "value-" + std::to_string(i / 2);
                kv::Reply r;
                auto s = std::chrono::steady_clock::now();
                uint32_t rc = (i % 2 == 0) ? c.call(kv::KV_OP_PUT, key.c_str(), value.c_str(), r)
                                           : c.call(kv::KV_OP_GET, key.c_str(), nullptr, r);
                auto e = std::chrono::steady_clock::now();
                mine.push_back(std::chrono::duration<double, std::micro>(e - s).count());
                if (rc != 0 || r.code != 0 || (i % 2 == 1 && r.value != value)) {
                    ++failures;
                    if (rc != 0) return;
                }
                ++done;
            }
        });
    const long total = static_cast<long>(clients) * requests;
    // On a terminal the progress line is rewritten in place; elsewhere a
    // line is printed every second.
    const bool tty = isatty(2) != 0;
    std::thread progress([&] {
        for (int tick = 0; !finished.load(); ++tick) {
            if (tty)
                fprintf(stderr, "\rbench: %ld/%ld requests", done.load(), total);
            else if (tick % 5 == 4)
                fprintf(stderr, "bench: %ld/%ld requests\n", done.load(), total);
            fflush(stderr);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    for (auto &t : ts) t.join();
    finished = true;
    progress.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::vector<double> all;
    for (auto &v : lat) all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    auto pct = [&](double p) { return all.empty() ? 0.0 : all[std::min(all.size() - 1, static_cast<size_t>(p * all.size()))]; };
    fprintf(stderr, "%sbench: %ld/%ld requests\n", tty ? "\r" : "", done.load(), total);
    printf("bench: %d clients x %d requests: %ld ok, %ld failed in %.2f s\n", clients, requests, done.load(),
           failures.load(), secs);
    printf("bench: %.0f requests/s, latency p50 %.1f us, p99 %.1f us\n", done.load() / secs, pct(0.50), pct(0.99));
    return failures.load() == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    const char *host = "127.0.0.1";
    const char *log_dir = nullptr;
    int port = kv::kDefaultPort;
    int i = 1;
    for (; i < argc; ++i) {
        if (strcmp(argv[i], "--host") == 0 && i + 1 < argc)
            host = argv[++i];
        else if (strcmp(argv[i], "--log-dir") == 0 && i + 1 < argc)
            log_dir = argv[++i];
        else if (strcmp(argv[i], "--port") == 0 && i + 1 < argc)
            port = atoi(argv[++i]);
        else
            break;
    }
    if (i >= argc) return usage();
    if (int st = tool_log::start("ostrel-kv", log_dir, argv)) return st;
    std::string cmd = argv[i++];
    int rest = argc - i;
    if (cmd == "put" && rest == 2) return run_one(host, port, kv::KV_OP_PUT, argv[i], argv[i + 1]);
    if (cmd == "get" && rest == 1) return run_one(host, port, kv::KV_OP_GET, argv[i], nullptr);
    if (cmd == "del" && rest == 1) return run_one(host, port, kv::KV_OP_DEL, argv[i], nullptr);
    if (cmd == "count" && rest == 0) return run_one(host, port, kv::KV_OP_COUNT, nullptr, nullptr);
    if (cmd == "list" && rest == 0) return run_one(host, port, kv::KV_OP_LIST, nullptr, nullptr);
    if (cmd == "bench") {
        int clients = 1, requests = 1000;
        for (; i < argc; ++i) {
            if (strcmp(argv[i], "--clients") == 0 && i + 1 < argc)
                clients = atoi(argv[++i]);
            else if (strcmp(argv[i], "--requests") == 0 && i + 1 < argc)
                requests = atoi(argv[++i]);
            else
                return usage();
        }
        if (clients < 1 || clients > 1000 || requests < 1) return usage();
        return run_bench(host, port, clients, requests);
    }
    return usage();
}
