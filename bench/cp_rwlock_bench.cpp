// SPDX-License-Identifier: Apache-2.0
// The reader-writer lock against pthread's and a ticketed one, alone and with a second process that reads and writes as
// too; and against the locked instructions alone.
#include "cp_rwlock.h"

#include <atomic>
#include <benchmark/benchmark.h>
#if __has_include(<ck_tflock.h>)
#include <ck_tflock.h>
#define HAVE_CK 1
#endif
#include <csignal>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

template <typename T>
T *shared()
{
    void *map = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<T *>(map);
}

struct Ours {
    qv_cp_rwlock *record = shared<qv_cp_rwlock>();
    Ours() { qv_cp_rwlock_init(record); }
    void read_lock() { qv_cp_rdlock(); }
    void read_unlock() { qv_cp_rdunlock(); }
    void write_lock() { qv_cp_wtlock(); }
    void write_unlock() { qv_cp_wtunlock(); }
};

struct Pthread {
    pthread_rwlock_t *lock = shared<pthread_rwlock_t>();
    Pthread()
    {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_rwlock_init(lock, &attributes);
    }
    void read_lock() { pthread_rwlock_rdlock(lock); }
    void read_unlock() { pthread_rwlock_unlock(lock); }
    void write_lock() { pthread_rwlock_wrlock(lock); }
    void write_unlock() { pthread_rwlock_unlock(lock); }
};

#ifdef HAVE_CK
struct Ck {
    ck_tflock_ticket_t *lock = shared<ck_tflock_ticket_t>();
    Ck() { ck_tflock_ticket_init(lock); }
    void read_lock() { ck_tflock_ticket_read_lock(lock); }
    void read_unlock() { ck_tflock_ticket_read_unlock(lock); }
    void write_lock() { ck_tflock_ticket_write_lock(lock); }
    void write_unlock() { ck_tflock_ticket_write_unlock(lock); }
};
#endif

// The least that three words shared with other programs allow: reading counts itself in and out of one, writing draws a
// ticket, takes the state, gives it back and passes the turn. No call, no loop, no check.
struct LockedWords {
    qv_cp_rwlock *record = shared<qv_cp_rwlock>();
    void read_lock() { __sync_fetch_and_add(&record->lock_state, 2); }
    void read_unlock() { __sync_fetch_and_sub(&record->lock_state, 2); }
    void write_lock()
    {
        __sync_fetch_and_add(&record->next_ticket, 1);
        __sync_fetch_and_add(&record->lock_state, 1);
    }
    void write_unlock()
    {
        __sync_fetch_and_sub(&record->lock_state, 1);
        __sync_fetch_and_add(&record->now_serving, 1);
    }
};

enum class Kind { read, write };

template <typename Lock>
void once(Lock &lock, Kind kind)
{
    if (kind == Kind::read) {
        lock.read_lock();
        lock.read_unlock();
    } else {
        lock.write_lock();
        lock.write_unlock();
    }
}

// With a contender, a second process does the same all the time. It ends with this one.
template <typename Lock>
void run(benchmark::State &state, Kind kind, bool contender)
{
    Lock lock;
    auto *stop = shared<std::atomic<bool>>();
    pid_t other = contender ? ::fork() : -1;
    if (other == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (!*stop)
            once(lock, kind);
        ::_exit(0);
    }
    for (auto _ : state)
        once(lock, kind);
    *stop = true;
    if (other > 0)
        ::waitpid(other, nullptr, 0);
}

template <typename Lock>
void register_all(const std::string &name)
{
    for (bool contender : {false, true}) {
        const char *company = contender ? "/contended" : "/alone";
        for (Kind kind : {Kind::read, Kind::write})
            benchmark::RegisterBenchmark((name + (kind == Kind::read ? "/read" : "/write") + company).c_str(),
                                         [=](benchmark::State &state) { run<Lock>(state, kind, contender); })
                ->UseRealTime();
    }
}

const bool registered = [] {
    register_all<Ours>("ours");
    register_all<Pthread>("pthread");
    register_all<LockedWords>("locked_words");
#ifdef HAVE_CK
    register_all<Ck>("ck");
#endif
    return true;
}();

} // namespace
