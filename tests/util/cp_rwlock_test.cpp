// SPDX-License-Identifier: Apache-2.0
#include "cp_rwlock.h"

#include "support/support.h"

#include <atomic>
#include <csignal>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace support;

namespace {

// The memory that the contending processes share: the lock and the data that it protects.
struct Shared {
    qv_cp_rwlock lock;
    std::uint64_t a, b; // equal while no writer is inside
    std::atomic<std::uint32_t> torn;
    std::atomic<std::uint32_t> stage;
    std::atomic<std::uint32_t> order_at;
    std::uint32_t order[16];
};

Shared *shared()
{
    void *map = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, map);
    return static_cast<Shared *>(map);
}

std::uint32_t look(const std::uint32_t &word)
{
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}

void until(const std::function<bool()> &done)
{
    while (!done())
        std::this_thread::yield();
}

pid_t spawn(const std::function<void()> &body)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        body();
        ::_exit(0);
    }
    return pid;
}

void join(pid_t pid)
{
    int status = -1;
    ASSERT_EQ(pid, ::waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
}

// Rounds of mixed reading and writing. A writer makes a and b differ for a moment.
void hammer(Shared *s, std::size_t rounds, unsigned seed)
{
    for (std::size_t i = 0; i < rounds; i++) {
        seed = seed * 1664525u + 1013904223u;
        if ((seed >> 16) % 4 == 0) {
            qv_cp_wtlock();
            s->a++;
            s->b++;
            qv_cp_wtunlock();
        } else {
            qv_cp_rdlock();
            if (s->a != s->b)
                s->torn++;
            qv_cp_rdunlock();
        }
    }
}

} // namespace

TEST(CpRwlock, InitPointsAtTheRecordAndClearsIt)
{
    qv_cp_rwlock record = {7, 8, 9};
    EXPECT_EQ(nullptr, rwlock);
    EXPECT_EQ(&record, qv_cp_rwlock_init(&record));
    EXPECT_EQ(&record, rwlock);
    EXPECT_EQ(0u, record.lock_state);
    EXPECT_EQ(0u, record.next_ticket);
    EXPECT_EQ(0u, record.now_serving);
}

TEST(CpRwlock, WordsOfAWriter)
{
    qv_cp_rwlock record;
    qv_cp_rwlock_init(&record);
    EXPECT_EQ(1, qv_cp_wtlock());
    EXPECT_EQ(1u, record.lock_state);
    EXPECT_EQ(1u, record.next_ticket);
    EXPECT_EQ(0u, record.now_serving);
    qv_cp_wtunlock();
    EXPECT_EQ(0u, record.lock_state);
    EXPECT_EQ(1u, record.next_ticket);
    EXPECT_EQ(1u, record.now_serving);
}

TEST(CpRwlock, TwoReadersHoldItTogether)
{
    qv_cp_rwlock record;
    qv_cp_rwlock_init(&record);
    qv_cp_rdlock();
    EXPECT_EQ(2u, record.lock_state);
    qv_cp_rdlock();
    EXPECT_EQ(4u, record.lock_state);
    EXPECT_EQ(0u, record.next_ticket);
    qv_cp_rdunlock();
    EXPECT_EQ(2u, record.lock_state);
    qv_cp_rdunlock();
    EXPECT_EQ(0u, record.lock_state);
}

TEST(CpRwlock, ANewReaderYieldsToAWaitingWriter)
{
    Shared *s = shared();
    qv_cp_rwlock_init(&s->lock);
    qv_cp_rdlock();
    pid_t writer = spawn([&] {
        qv_cp_wtlock();
        s->order[s->order_at++] = 1;
        qv_cp_wtunlock();
    });
    until([&] { return look(s->lock.next_ticket) == 1; });
    pid_t reader = spawn([&] {
        s->stage = 1;
        qv_cp_rdlock();
        s->order[s->order_at++] = 2;
        qv_cp_rdunlock();
    });
    until([&] { return s->stage == 1; });
    ::usleep(20000);
    EXPECT_EQ(0u, s->order_at);
    EXPECT_EQ(2u, look(s->lock.lock_state)) << "only the first reader is in";
    qv_cp_rdunlock();
    join(writer);
    join(reader);
    EXPECT_EQ(1u, s->order[0]);
    EXPECT_EQ(2u, s->order[1]);
}

TEST(CpRwlock, WritersAreServedInTicketOrderAcrossTheWrap)
{
    constexpr std::uint32_t kWriters = 4;
    Shared *s = shared();
    qv_cp_rwlock_init(&s->lock);
    s->lock.next_ticket = s->lock.now_serving = 0xFFFFFFFEu;
    qv_cp_wtlock();
    std::vector<pid_t> writers;
    for (std::uint32_t i = 0; i < kWriters; i++) {
        writers.push_back(spawn([&, i] {
            qv_cp_wtlock();
            s->order[s->order_at++] = i;
            qv_cp_wtunlock();
        }));
        until([&] { return look(s->lock.next_ticket) == 0xFFFFFFFFu + i + 1; });
    }
    EXPECT_EQ(0u, s->order_at);
    qv_cp_wtunlock();
    for (pid_t writer : writers)
        join(writer);
    for (std::uint32_t i = 0; i < kWriters; i++)
        EXPECT_EQ(i, s->order[i]);
    EXPECT_EQ(0xFFFFFFFEu + kWriters + 1, s->lock.now_serving);
    EXPECT_EQ(s->lock.next_ticket, s->lock.now_serving);
    EXPECT_EQ(0u, s->lock.lock_state);
}

// A ticket before the served one was skipped, for example by a late initialisation. Its holder does not wait.
TEST(CpRwlock, ATicketBeforeTheServedOneEnters)
{
    for (std::uint32_t serving : {7U, 0U, 0x80000000U, 0x7FFFFFFFU}) {
        qv_cp_rwlock record;
        qv_cp_rwlock_init(&record);
        record.next_ticket = serving - 2;
        record.now_serving = serving;
        EXPECT_EQ(1, qv_cp_wtlock());
        EXPECT_EQ(1U, record.lock_state);
        EXPECT_EQ(serving - 1, record.next_ticket);
        qv_cp_wtunlock();
        EXPECT_EQ(serving + 1, record.now_serving);
    }
}

TEST(CpRwlock, TheDistanceOfTicketsIsSigned)
{
    // The largest distance that fits into a signed number.
    qv_cp_rwlock record;
    qv_cp_rwlock_init(&record);
    record.next_ticket = 0x80000000U;
    record.now_serving = 0xFFFFFFFFU;
    EXPECT_EQ(1, qv_cp_wtlock());
    // A ticket one ahead is later, also where the subtraction of the two words wraps.
    Shared *s = shared();
    qv_cp_rwlock_init(&s->lock);
    s->lock.next_ticket = 0x80000000U;
    s->lock.now_serving = 0x7FFFFFFFU;
    pid_t writer = spawn([&] {
        qv_cp_wtlock();
        s->stage = 1;
    });
    until([&] { return look(s->lock.next_ticket) == 0x80000001U; });
    ::usleep(20000);
    EXPECT_EQ(0U, s->stage);
    __atomic_fetch_add(&s->lock.now_serving, 1U, __ATOMIC_SEQ_CST);
    join(writer);
    EXPECT_EQ(1U, s->stage);
}

// ---- order of the stores: the record lies across two pages that cannot be written, so each first store is seen ----

namespace {

struct Store {
    std::size_t word; // of the record
    qv_cp_rwlock before;
};

char *protected_pages;
const qv_cp_rwlock *watched;
Store stores[8];
std::size_t store_count;
const std::size_t kPage = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));

void note_store(int, siginfo_t *info, void *)
{
    auto *address = static_cast<char *>(info->si_addr);
    if (store_count == std::size(stores) || address < protected_pages || address >= protected_pages + 2 * kPage)
        ::_exit(9);
    stores[store_count].word = static_cast<std::size_t>(address - reinterpret_cast<const char *>(watched)) / 4;
    stores[store_count++].before = *watched;
    ::mprotect(protected_pages + (address - protected_pages < static_cast<std::ptrdiff_t>(kPage) ? 0 : kPage), kPage,
               PROT_READ | PROT_WRITE);
}

// A record with this many of its words in the first of two pages.
qv_cp_rwlock *record_across_pages(std::size_t words)
{
    void *map = ::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, map);
    protected_pages = static_cast<char *>(map);
    auto *record = reinterpret_cast<qv_cp_rwlock *>(protected_pages + kPage - 4 * words);
    watched = record;
    struct sigaction action = {};
    action.sa_sigaction = note_store;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    ::sigaction(SIGSEGV, &action, nullptr);
    return record;
}

void watch()
{
    store_count = 0;
    ::mprotect(protected_pages, 2 * kPage, PROT_READ);
}

} // namespace

TEST(CpRwlock, UnlockingClearsTheHoldBeforeItAdmitsTheNext)
{
    qv_cp_rwlock *record = record_across_pages(1);
    qv_cp_rwlock_init(record);
    qv_cp_wtlock();
    watch();
    qv_cp_wtunlock();
    ASSERT_EQ(2U, store_count);
    EXPECT_EQ(0U, stores[0].word);
    EXPECT_EQ(2U, stores[1].word);
    EXPECT_EQ(0U, stores[1].before.lock_state) << "free before the next ticket is served";
    EXPECT_EQ(0U, stores[1].before.now_serving);
}

TEST(CpRwlock, LockingDrawsTheTicketBeforeTheHold)
{
    qv_cp_rwlock *record = record_across_pages(1);
    qv_cp_rwlock_init(record);
    watch();
    qv_cp_wtlock();
    ASSERT_EQ(2U, store_count);
    EXPECT_EQ(1U, stores[0].word);
    EXPECT_EQ(0U, stores[1].word);
    EXPECT_EQ(1U, stores[1].before.next_ticket);
}

TEST(CpRwlock, InitClearsTheStateThenTheServedTicketThenTheNext)
{
    for (std::size_t words : {std::size_t{1}, std::size_t{2}}) {
        qv_cp_rwlock *record = record_across_pages(words);
        *record = {7, 8, 9};
        watch();
        qv_cp_rwlock_init(record);
        ASSERT_EQ(2U, store_count);
        EXPECT_EQ(0U, stores[0].word);
        EXPECT_EQ(2U, stores[1].word);
        EXPECT_EQ(0U, stores[1].before.lock_state);
        EXPECT_EQ(8U, stores[1].before.next_ticket);
        EXPECT_EQ(record, rwlock);
    }
}

TEST(CpRwlock, AWriterWaitsForTheReadersInside)
{
    Shared *s = shared();
    qv_cp_rwlock_init(&s->lock);
    qv_cp_rdlock();
    pid_t writer = spawn([&] {
        qv_cp_wtlock();
        s->stage = 1;
        qv_cp_wtunlock();
    });
    until([&] { return look(s->lock.next_ticket) == 1; });
    ::usleep(20000);
    EXPECT_EQ(0u, s->stage);
    qv_cp_rdunlock();
    join(writer);
    EXPECT_EQ(1u, s->stage);
}

TEST(CpRwlock, AReaderCountedAfterAWriterEnteredWaits)
{
    Shared *s = shared();
    qv_cp_rwlock_init(&s->lock);
    // As if a writer had entered right after the reader read the tickets.
    s->lock.lock_state = 1;
    pid_t reader = spawn([&] {
        qv_cp_rdlock();
        s->stage = 1;
        qv_cp_rdunlock();
    });
    until([&] { return look(s->lock.lock_state) == 3; });
    ::usleep(20000);
    EXPECT_EQ(0u, s->stage);
    __atomic_fetch_sub(&s->lock.lock_state, 1u, __ATOMIC_SEQ_CST);
    join(reader);
    EXPECT_EQ(1u, s->stage);
    EXPECT_EQ(0u, s->lock.lock_state);
}

TEST(CpRwlock, AWaitingWriterFollowsTheProcessToAnotherRecord)
{
    qv_cp_rwlock busy;
    qv_cp_rwlock free_one = {0, 0, 0};
    qv_cp_rwlock_init(&busy);
    qv_cp_rdlock();
    std::thread writer([] { qv_cp_wtlock(); });
    until([&] { return look(busy.next_ticket) == 1; });
    __atomic_store_n(&rwlock, &free_one, __ATOMIC_SEQ_CST);
    writer.join();
    EXPECT_EQ(1u, look(free_one.lock_state));
    EXPECT_EQ(2u, look(busy.lock_state));
}

TEST(CpRwlock, EightProcessesNeverSeeATornRecord)
{
    // With more contenders than processors, a spinner uses up its whole time slice: progress is certain but slow.
    const std::size_t rounds = effort(4000);
    Shared *s = shared();
    qv_cp_rwlock_init(&s->lock);
    std::vector<pid_t> children;
    for (unsigned i = 0; i < 8; i++)
        children.push_back(spawn([&, i] { hammer(s, rounds, i); }));
    for (pid_t child : children)
        join(child);
    EXPECT_EQ(0u, s->torn);
    EXPECT_EQ(s->a, s->b);
    EXPECT_EQ(s->lock.next_ticket, s->a);
    EXPECT_EQ(s->lock.now_serving, s->lock.next_ticket);
    EXPECT_EQ(0u, s->lock.lock_state);
}

TEST(CpRwlock, TwoThreadsOverManyAcquisitions)
{
    const std::size_t rounds = effort(1000000);
    static Shared s;
    qv_cp_rwlock_init(&s.lock);
    s.lock.next_ticket = s.lock.now_serving = 0xFFFFFF00u; // the counters wrap meanwhile
    std::thread other([&] { hammer(&s, rounds, 1); });
    hammer(&s, rounds, 2);
    other.join();
    EXPECT_EQ(0u, s.torn);
    EXPECT_EQ(s.a, s.b);
    EXPECT_EQ(0u, s.lock.lock_state);
    EXPECT_EQ(s.lock.now_serving, s.lock.next_ticket);
    EXPECT_EQ(s.lock.next_ticket - 0xFFFFFF00u, static_cast<std::uint32_t>(s.a));
}

TEST(CpRwlock, ProgressOnOneProcessor)
{
    Shared *s = shared();
    qv_cp_rwlock_init(&s->lock);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    auto pinned = [&](unsigned seed) {
        ::sched_setaffinity(0, sizeof one, &one);
        hammer(s, effort(2000), seed);
    };
    pid_t first = spawn([&] { pinned(1); });
    pid_t second = spawn([&] { pinned(2); });
    join(first);
    join(second);
    EXPECT_EQ(0u, s->torn);
    EXPECT_EQ(s->a, s->b);
}
