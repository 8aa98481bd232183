// libZurn_general worker threads: a starter that publishes the thread's
// identifier before the thread's own code runs, and a detach that acts once
// per thread however many holders of the identifier ask for it.
#include "zurn_general.h"

#include <pthread.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <unordered_set>

static_assert(sizeof(pthread_t) <= sizeof(uint64_t), "a thread identifier fits 64 bits");

namespace {

// Threads started here and not yet detached. Detaching twice is undefined
// for POSIX threads, so only an identifier found here is detached, and it
// leaves the set as it is detached. Until then the thread is joinable, so
// its identifier cannot be reused by another thread while it is listed.
std::mutex g_threads_mu;
std::unordered_set<uint64_t> &undetached() {
    static auto *s = new std::unordered_set<uint64_t>();
    return *s;
}

struct StartRecord {
    StartRecord(ZurnThreadEntry e, void *a) : entry(e), arg(a) {}
    ZurnThreadEntry entry;
    void *arg;
    // Held by the starter until the identifier is stored; the new thread
    // takes it before running the entry.
    std::mutex gate;
};

void *start_thread(void *p) {
    auto *rec = static_cast<StartRecord *>(p);
    rec->gate.lock();
    rec->gate.unlock();
    ZurnThreadEntry entry = rec->entry;
    void *arg = rec->arg;
    delete rec;
    return entry(arg);
}

uint64_t to_id(pthread_t t) {
    uint64_t id = 0;
    static_assert(sizeof t <= sizeof id, "");
    __builtin_memcpy(&id, &t, sizeof t);
    return id;
}

pthread_t from_id(uint64_t id) {
    pthread_t t{};
    __builtin_memcpy(&t, &id, sizeof t);
    return t;
}

} // namespace

extern "C" {

int ZurnGeneral_CreateWorkingThread(ZurnThreadEntry pfnEntry, void *pArg, uint64_t *puiThread) {
    if (pfnEntry == nullptr || puiThread == nullptr) {
        errno = EINVAL;
        return 0;
    }
    StartRecord *rec = new (std::nothrow) StartRecord(pfnEntry, pArg);
    if (rec == nullptr) {
        errno = ENOMEM;
        return 0;
    }
    rec->gate.lock();
    pthread_t t{};
    int rc = pthread_create(&t, nullptr, start_thread, rec);
    if (rc != 0) {
        rec->gate.unlock();
        delete rec;
        errno = rc;
        return 0;
    }
    uint64_t id = to_id(t);
    {
        std::lock_guard<std::mutex> lk(g_threads_mu);
        undetached().insert(id);
    }
    *puiThread = id;
    rec->gate.unlock(); // the record now belongs to the new thread
    return 1;
}

int ZurnGeneral_DetachWorkingThread(uint64_t uiThread) {
    std::lock_guard<std::mutex> lk(g_threads_mu);
    if (undetached().erase(uiThread) == 0) return 0;
    (void)pthread_detach(from_id(uiThread));
    return 1;
}

} // extern "C"
