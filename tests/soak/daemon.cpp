// SPDX-License-Identifier: Apache-2.0
// A daemon of the long run: each of its threads uses a part of the library, with pauses, and checks what it gets.
#include "shared.h"

#include "atimer.h"
#include "console_print.h"
#include "debug_trace.h"
#include "hashtbl.h"
#include "idpool.h"
#include "mcache.h"
#include "name2id.h"
#include "qv_env.h"
#include "qv_mtrace.h"
#include "qv_time.h"
#include "run_cmd.h"
#include "sighandler.h"
#include "signal_printf.h"
#include "stimer.h"
#include "support/support.h"
#include "vrsock.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <poll.h>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace living {
namespace {

using namespace std::chrono_literals;
using Random = std::minstd_rand; // small: a generator for each thread

struct Daemon {
    Shared *shared;
    unsigned index;

    bool is_traced() const { return index == kTracedDaemon; }
    bool stops() const { return shared->stop; }
    void beat(Worker worker) const { shared->daemons[index].beats[worker]++; }
    void fail(const std::string &text) const { shared->fail(std::string(kDaemonNames[index]) + ": " + text); }
    void check(bool good, const char *what) const
    {
        if (!good)
            fail(what);
    }
};

// Calls a round of a worker's work again and again until the run stops.
void repeat(const Daemon &daemon, Worker worker, std::chrono::milliseconds pause, const std::function<void()> &round)
{
    while (!daemon.stops()) {
        round();
        daemon.beat(worker);
        std::this_thread::sleep_for(pause);
    }
}

// ---- timers: exact ones from 50 ms to 2 s, and a wheel that one of them turns ----

struct TimerWork {
    struct Exact {
        stimer timer;
        TimerWork *work;
    };
    struct Coarse {
        atimer timer;
        TimerWork *work;
        unsigned started; // tick of the wheel
        unsigned ticks;
    };

    explicit TimerWork(const Daemon &owner) : daemon(owner) {}

    const Daemon &daemon;
    void *context = nullptr;
    std::array<Exact, 24> exact{};
    atimer_context wheel{};
    std::array<Coarse, 200> coarse{};
    stimer second{};
};

std::int64_t late_by(const timeval &expire)
{
    timeval now;
    qv_gettimeofday(&now);
    return (now.tv_sec - expire.tv_sec) * std::int64_t{1000000} + (now.tv_usec - expire.tv_usec);
}

void on_exact(void *arg)
{
    auto *exact = static_cast<TimerWork::Exact *>(arg);
    std::int64_t late = late_by(exact->timer.expire);
    const Daemon &daemon = exact->work->daemon;
    daemon.check(late >= 0, "a timer fired early");
    daemon.shared->timings[kTimerLateness].add(static_cast<std::uint64_t>(std::max<std::int64_t>(late, 0)));
    daemon.shared->count(kTimersFired);
    start_stimer(&exact->timer);
}

void on_coarse(void *arg)
{
    auto *coarse = static_cast<TimerWork::Coarse *>(arg);
    TimerWork &work = *coarse->work;
    work.daemon.check(work.wheel.tick - coarse->started == coarse->ticks, "a coarse timer fired at a wrong tick");
    work.daemon.shared->count(kTicks);
    coarse->ticks = coarse->ticks % 50 + 1;
    coarse->started = work.wheel.tick;
    coarse->timer.expire = coarse->ticks;
    start_atimer(&work.wheel, &coarse->timer);
}

void on_second(void *arg)
{
    auto *work = static_cast<TimerWork *>(arg);
    start_stimer(&work->second);
    work->daemon.check(process_atimer(&work->wheel) == 0, "the wheel does not turn");
    work->daemon.shared->daemons[work->daemon.index].heap = ::mallinfo2().uordblks;
}

void start_timers(TimerWork &work)
{
    work.daemon.check(stimer_context_init(&work.context) == 0, "no timers");
    for (unsigned i = 0; i < work.exact.size(); i++) {
        TimerWork::Exact &exact = work.exact[i];
        exact.work = &work;
        init_stimer(&exact.timer, &work.context, 0, on_exact, &exact);
        exact.timer.interval.tv_sec = i / 12;
        exact.timer.interval.tv_usec = 50000 + i % 12 * 80000;
        start_stimer(&exact.timer);
    }
    work.daemon.check(atimer_init(&work.wheel, 3, 4) == 0, "no wheel");
    for (unsigned i = 0; i < work.coarse.size(); i++) {
        TimerWork::Coarse &coarse = work.coarse[i];
        coarse.work = &work;
        coarse.ticks = i % 50 + 1;
        coarse.started = work.wheel.tick;
        init_atimer(&coarse.timer, coarse.ticks, on_coarse, &coarse);
        start_atimer(&work.wheel, &coarse.timer);
    }
    init_stimer(&work.second, &work.context, 1, on_second, &work);
    start_stimer(&work.second);
}

void stop_timers(TimerWork &work)
{
    for (TimerWork::Exact &exact : work.exact)
        stop_stimer(&exact.timer);
    stop_stimer(&work.second);
    stimer_context_fini(&work.context);
    for (TimerWork::Coarse &coarse : work.coarse)
        stop_atimer(&coarse.timer);
    for (int i = 0; i < work.wheel.nlevels; i++)
        std::free(work.wheel.levels[i].buckets);
    std::free(work.wheel.levels);
}

void run_timers(const Daemon &daemon)
{
    TimerWork work(daemon);
    start_timers(work);
    while (!daemon.stops()) {
        timeval next;
        daemon.check(stimer_get_next_expire(&work.context, &next) == 0, "no timer is running");
        std::int64_t wait = std::clamp<std::int64_t>(-late_by(next), 0, 1000000);
        timespec limit = {wait / 1000000, wait % 1000000 * 1000};
        ::ppoll(nullptr, 0, &limit, nullptr);
        process_stimer(&work.context);
        daemon.beat(kTimerLoop);
    }
    stop_timers(work);
}

// ---- memory ----

class Blocks {
public:
    Blocks(const Daemon &daemon, unsigned seed) : daemon_(daemon), random_(seed) {}
    ~Blocks()
    {
        for (Block &block : blocks_)
            std::free(block.bytes);
    }
    Blocks(const Blocks &) = delete;
    Blocks &operator=(const Blocks &) = delete;

    void change_one()
    {
        Block &block = blocks_[random_() % blocks_.size()];
        daemon_.check(is_intact(block), "a block of memory has changed");
        std::size_t size = random_() % 2000 + 1;
        if (block.bytes != nullptr && random_() % 3 == 0) {
            block.bytes = static_cast<unsigned char *>(std::realloc(block.bytes, size));
        } else {
            std::free(block.bytes);
            bool cleared = random_() % 4 == 0;
            block.bytes = static_cast<unsigned char *>(cleared ? std::calloc(1, size) : std::malloc(size));
        }
        block.size = size;
        block.mark = static_cast<unsigned char>(random_());
        std::memset(block.bytes, block.mark, size);
        daemon_.shared->count(kAllocations);
    }

private:
    struct Block {
        unsigned char *bytes;
        std::size_t size;
        unsigned char mark;
    };

    static bool is_intact(const Block &block)
    {
        for (std::size_t i = 0; i < block.size; i++) {
            if (block.bytes[i] != block.mark)
                return false;
        }
        return true;
    }

    const Daemon &daemon_;
    Random random_;
    std::array<Block, 200> blocks_{};
};

void run_allocator(const Daemon &daemon, Worker worker)
{
    Blocks blocks(daemon, daemon.index * 2 + worker);
    repeat(daemon, worker, 25ms, [&] {
        for (int i = 0; i < 40; i++)
            blocks.change_one();
    });
}

void run_caches(const Daemon &daemon)
{
    struct Object {
        unsigned char *bytes;
        unsigned char mark;
    };
    constexpr std::array<unsigned, 3> kSizes = {24, 200, 1500};
    std::array<mcache *, 3> caches{};
    std::array<std::array<Object, 150>, 3> objects{};
    std::array<unsigned, 3> in_use{};
    for (unsigned i = 0; i < kSizes.size(); i++)
        caches[i] = mcache_create(("soak" + std::to_string(kSizes[i])).c_str(), kSizes[i], nullptr, 0, 1);

    Random random(daemon.index);
    auto change_one = [&](unsigned i, Object &object) {
        if (object.bytes == nullptr) {
            object.bytes = static_cast<unsigned char *>(mcache_alloc(caches[i]));
            object.mark = static_cast<unsigned char>(random());
            std::memset(object.bytes, object.mark, kSizes[i]);
            in_use[i]++;
        } else {
            daemon.check(object.bytes[0] == object.mark && object.bytes[kSizes[i] - 1] == object.mark,
                         "an object of a cache has changed");
            mcache_free(caches[i], object.bytes);
            object.bytes = nullptr;
            in_use[i]--;
        }
        daemon.shared->count(kCacheObjects);
    };
    repeat(daemon, kCacheUser, 30ms, [&] {
        for (int n = 0; n < 30; n++) {
            auto i = static_cast<unsigned>(random() % 3);
            change_one(i, objects[i][random() % objects[i].size()]);
            daemon.check(caches[i]->in_use == in_use[i], "a cache counts wrongly");
        }
    });
    for (unsigned i = 0; i < kSizes.size(); i++) {
        for (Object &object : objects[i])
            mcache_free(caches[i], object.bytes);
    }
}

// ---- identifiers, names and a hash table ----

struct Session {
    hashtbl_link link;
    unsigned id;
};

int has_id(void *object, void *key)
{
    return static_cast<Session *>(object)->id == *static_cast<unsigned *>(key);
}

class Tables {
public:
    explicit Tables(const Daemon &daemon)
        : daemon_(daemon), pool_(idpool_create("soak", 1, 5000)), names_(name2id_tbl_create(6, 0)),
          sessions_(hashtbl_init(6, offsetof(Session, link), 0))
    {}
    ~Tables()
    {
        hashtbl_free_all_objects(
            sessions_, [](void *object, void *) { std::free(object); }, nullptr);
        hashtbl_destroy(sessions_);
        name2id_tbl_destory(names_);
        idpool_destroy(pool_);
    }
    Tables(const Tables &) = delete;
    Tables &operator=(const Tables &) = delete;

    void open_session()
    {
        int id = 0;
        daemon_.check(idpool_alloc_id(pool_, &id) == 0, "the pool is empty");
        auto *session = static_cast<Session *>(std::malloc(sizeof(Session)));
        session->id = static_cast<unsigned>(id);
        hashtbl_insert(sessions_, qv_hash_uint32(session->id, 0), session);
        name2id_entry_insert(names_, name2id_entry_create(name_of(id).c_str(), session->id));
        open_.push_back(id);
    }

    void close_session(std::size_t at)
    {
        int id = open_[at];
        auto key = static_cast<unsigned>(id);
        void *session = hashtbl_find(sessions_, &key, qv_hash_uint32(key, 0), has_id);
        name2id_entry *entry = name2id_entry_find(names_->hashtbl, name_of(id).c_str());
        daemon_.check(session != nullptr, "a session is lost");
        daemon_.check(entry != nullptr && entry->id == key, "a name is lost");
        hashtbl_remove(sessions_, qv_hash_uint32(key, 0), session);
        std::free(session);
        name2id_entry_remove(names_, entry);
        daemon_.check(idpool_free_id(pool_, id) == 0, "an identifier was free already");
        open_[at] = open_.back();
        open_.pop_back();
    }

    std::size_t size() const { return open_.size(); }
    bool counts_right() const { return sessions_->count == open_.size(); }

private:
    static std::string name_of(int id) { return "session " + std::to_string(id); }

    const Daemon &daemon_;
    idpool *pool_;
    name2id_tbl *names_;
    hashtbl *sessions_;
    std::vector<int> open_;
};

void run_tables(const Daemon &daemon)
{
    Tables tables(daemon);
    Random random(daemon.index);
    repeat(daemon, kTableUser, 30ms, [&] {
        for (int i = 0; i < 20; i++) {
            if (random() % 400 >= tables.size())
                tables.open_session();
            else
                tables.close_session(random() % tables.size());
        }
        daemon.check(tables.counts_right(), "a table counts wrongly");
        daemon.shared->count(kTableOperations, 20);
    });
}

// ---- children ----

constexpr int kChildStatus = 7;

[[noreturn]] void be_a_child(unsigned seed)
{
    Random random(seed);
    std::array<void *, 20> blocks{};
    for (int i = 0; i < 200; i++) {
        void *&block = blocks[random() % blocks.size()];
        std::free(block);
        block = std::malloc(random() % 500);
    }
    for (void *block : blocks)
        std::free(block);
    ::_exit(kChildStatus);
}

bool run_child(unsigned seed)
{
    int status = 0;
    pid_t child = ::fork();
    if (child == 0)
        be_a_child(seed);
    return child > 0 && reap(child, &status) && WIFEXITED(status) && WEXITSTATUS(status) == kChildStatus;
}

void run_forker(const Daemon &daemon)
{
    unsigned n = 0;
    repeat(daemon, kForker, 300ms, [&] {
        n++;
        daemon.check(timed(daemon.shared->timings[kForkTime], [&] { return run_child(n); }), "a child is lost");
        daemon.shared->count(kForks);
        if (n % 20 != 0)
            return;
        daemon.check(run_shellcmd("/bin/true", "true", 1, 1) == 0, "a command is lost");
        daemon.shared->count(kCommands);
    });
}

// ---- logs: numbered lines, which must all be there ----

int print_to(const char *path, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    int length = console_print_args(0, path, format, arguments);
    va_end(arguments);
    return length;
}

class Log {
public:
    explicit Log(const Daemon &daemon)
        : daemon_(daemon), path_(std::string("/etc/soak.") + kDaemonNames[daemon.index] + ".log")
    {
        ::unlink(path_.c_str()); // that of a daemon which has died
    }

    void write_line()
    {
        timed(daemon_.shared->timings[kLogTime],
              [&] { return print_to(path_.c_str(), "line %u of %s\n", next_, kDaemonNames[daemon_.index]); });
        next_++;
        daemon_.shared->count(kLogLines);
    }

    // Checks the lines since the last call, and empties the file.
    void check()
    {
        for (const std::string &line : support::lines(support::read_file(path_))) {
            std::string expected = " line " + std::to_string(checked_) + " of " + kDaemonNames[daemon_.index];
            if (!line.ends_with(expected)) {
                daemon_.fail("the log has \"" + line + "\" in place of \"" + expected + "\"");
                break;
            }
            checked_++;
        }
        daemon_.check(checked_ == next_, "the log lacks lines");
        checked_ = next_;
        ::truncate(path_.c_str(), 0);
    }

private:
    const Daemon &daemon_;
    std::string path_;
    unsigned next_ = 0;
    unsigned checked_ = 0;
};

// The files, one a day, grow as long as the daemon runs. Only a line of them is kept in memory, so that the check does
// not look like a leak.
void check_trace_files(const Daemon &daemon, unsigned count)
{
    unsigned found = 0;
    std::string folder = "/var/sysinfo/logs/", start = "proc" + std::to_string(::getpid()) + ".", line;
    for (const std::string &name : support::list_dir(folder)) {
        if (!name.starts_with(start))
            continue;
        std::ifstream file(folder + name);
        while (std::getline(file, line))
            found += line.ends_with("trace " + std::to_string(found));
    }
    daemon.check(found == count, "the trace file lacks lines");
}

void run_logger(const Daemon &daemon)
{
    Log log(daemon);
    unsigned n = 0, traces = 0;
    repeat(daemon, kLogger, 100ms, [&] {
        log.write_line();
        n++;
        if (n % 10 == 0) {
            console_print("%s: second %u\n", kDaemonNames[daemon.index], n / 10);
            QV_TRACE(QV_TRACE_WARN, "trace %u\n", traces);
            traces++;
            daemon.shared->count(kTraceLines);
        }
        if (n % 300 == 0) {
            log.check();
            check_trace_files(daemon, traces);
        }
    });
    log.check();
    check_trace_files(daemon, traces);
}

// ---- settings, which another process writes and is killed at ----

void run_setting_reader(const Daemon &daemon)
{
    repeat(daemon, kSettingReader, 100ms, [&] {
        for (unsigned i = 0; i < kSettings; i++) {
            const char *value = qv_getenv(setting_name(i).c_str());
            // A killed writer may leave a name without its value, until the driver has repaired the file.
            if (value != nullptr && *value != '\0' && !is_setting_value(value))
                daemon.fail("setting " + setting_name(i) + " reads \"" + value + "\"");
            daemon.shared->count(kSettingReads);
        }
    });
}

// ---- a service in a virtual router ----

void answer(const Daemon &daemon, int fd)
{
    char text[200];
    sockaddr_in client{};
    socklen_t length = sizeof client;
    unsigned vrid = 0;
    ssize_t n = qv_recvfrom(fd, text, sizeof text, 0, reinterpret_cast<sockaddr *>(&client), &length, &vrid);
    if (n < 0) {
        daemon.fail(std::string("the VR server receives: ") + std::strerror(errno));
        return;
    }
    daemon.check(vrid == static_cast<unsigned>(kDaemonVrs[daemon.index]), "a request of another VR arrived");
    int result =
        qv_sendto(fd, text, static_cast<std::size_t>(n), 0, reinterpret_cast<sockaddr *>(&client), length, vrid);
    daemon.check(result == 0, "the VR server cannot answer");
}

void run_vr_server(const Daemon &daemon)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(kVrPort);
    daemon.check(qv_bindvr(fd, kDaemonVrs[daemon.index]) == 0, "the server has no VR");
    daemon.check(::bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any) == 0, "the server has no address");
    repeat(daemon, kVrServer, 0ms, [&] {
        pollfd wait = {fd, POLLIN, 0};
        if (::poll(&wait, 1, 500) > 0)
            answer(daemon, fd);
    });
    ::close(fd);
}

// ---- full tracing, and trace files ----

constexpr unsigned kForgotten = 10;
constexpr std::size_t kForgottenSize = 1009; // no other call chain holds such blocks

[[gnu::noinline]] void forget(std::vector<void *> &blocks)
{
    for (unsigned i = 0; i < kForgotten; i++)
        blocks.push_back(std::malloc(kForgottenSize));
}

bool is_forgotten(const leak_group &group)
{
    return group.blocks == kForgotten && group.bytes == kForgotten * kForgottenSize;
}

// Sleeps without seeming to hang.
void wait_beating(const Daemon &daemon, std::chrono::milliseconds time)
{
    for (auto end = steady::now() + time; steady::now() < end && !daemon.stops();) {
        std::this_thread::sleep_for(100ms);
        daemon.beat(kTracer);
    }
}

void trace_fully(const Daemon &daemon)
{
    mtrace_stat_record report;
    std::vector<void *> forgotten;
    forgotten.reserve(kForgotten);
    qv_mtrace_start();
    forget(forgotten);
    wait_beating(daemon, 5s);
    int result = timed(daemon.shared->timings[kLeakReportTime], [&] { return qv_mtrace_stat(&report, 0); });
    qv_mtrace_stop();
    daemon.check(result == MTRACE_LEAK_GROUPS, "full tracing has no report");
    bool found = std::any_of(report.row.groups, report.row.groups + report.rows, is_forgotten);
    if (!found && !daemon.stops()) // a run that stops ends the wait, and younger blocks are not reported
        daemon.fail("the report of " + std::to_string(report.rows) + " groups lacks the forgotten blocks");
    for (void *block : forgotten)
        std::free(block);
    qv_mtrace_reset();
    daemon.check(qv_mtrace_stat(&report, 0) == MTRACE_SIZE_CLASSES, "full tracing was not reset");
    daemon.shared->count(kFullTraces);
}

bool wait_for_text(const std::string &path, const std::string &text)
{
    for (auto end = steady::now() + 60s; steady::now() < end;) {
        if (support::read_file(path).find(text) != std::string::npos)
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

bool is_trace_line(const std::string &line)
{
    return line.starts_with("@ ") || line == "= Start" || line == "= End";
}

void write_trace_file(const Daemon &daemon)
{
    std::string path = "/etc/mtrace" + std::to_string(::getpid()) + ".log";
    ::kill(::getpid(), SIGUSR2);
    daemon.check(wait_for_text(path, "= Start\n"), "the trace file has no start"); // signals that wait are merged
    wait_beating(daemon, 500ms);
    ::kill(::getpid(), SIGUSR2);
    daemon.check(wait_for_text(path, "\n= End\n"), "the trace file has no end");
    for (const std::string &line : support::lines(support::read_file(path))) {
        if (!is_trace_line(line)) {
            daemon.fail("the trace file has \"" + line + "\"");
            break;
        }
    }
    ::unlink(path.c_str());
    daemon.shared->count(kTraceFiles);
}

void run_tracer(const Daemon &daemon)
{
    repeat(daemon, kTracer, 0ms, [&] {
        wait_beating(daemon, 4s);
        trace_fully(daemon);
        wait_beating(daemon, 4s);
        write_trace_file(daemon);
    });
}

// ---- a crash, for which the driver waits ----

// Read at run time: the compiler treats a write to a constant null as unreachable.
volatile int *volatile nowhere;

void keep_busy(unsigned seed)
{
    Random random(seed);
    std::array<void *, 64> blocks{};
    for (;;) {
        void *&block = blocks[random() % blocks.size()];
        std::free(block);
        block = std::malloc(random() % 2000 + 1);
        if (random() % 64 == 0)
            std::this_thread::sleep_for(200us);
    }
}

long mark_end(unsigned int phase, unsigned long arg, void *)
{
    if (phase == QV_COREDUMP_LAST)
        signal_printf(static_cast<int>(arg), "%s\n", kEndOfLog);
    return 0;
}
QV_COREDUMP_CALLBACK(mark_end);

void forbid_core_files()
{
    rlimit none = {0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
}

} // namespace

int run_daemon(Shared *shared, unsigned index)
{
    Daemon daemon{shared, index};
    forbid_core_files();
    install_sighandler();
    time_wait = 1;
    __qv_debug_where = QV_TRACE_TO_FILE;
    __qv_debug_level = QV_TRACE_WARN;

    std::vector<std::thread> threads;
    threads.emplace_back([&] { run_allocator(daemon, kAllocator1); });
    threads.emplace_back([&] { run_allocator(daemon, kAllocator2); });
    for (auto *work : {run_caches, run_tables, run_forker, run_logger, run_setting_reader, run_vr_server})
        threads.emplace_back([&daemon, work] { work(daemon); });
    if (daemon.is_traced())
        threads.emplace_back([&] { run_tracer(daemon); });
    run_timers(daemon);
    for (std::thread &thread : threads)
        thread.join();
    return 0;
}

int run_crash_host(Shared *shared, unsigned seed)
{
    forbid_core_files();
    install_sighandler();
    std::thread(keep_busy, seed).detach();
    std::thread(keep_busy, seed + 1).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(seed % 20));
    shared->crash_started = now_us();
    if (seed % 2 == 0)
        std::abort();
    *nowhere = 1;
    return 0;
}

} // namespace living
