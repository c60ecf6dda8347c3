// SPDX-License-Identifier: Apache-2.0
// soak SECONDS CRASHES - injects crashes into busy processes until the time or the number is reached (0: no limit).
//
// Each round starts a host in the sandbox: its threads load and unload a library, fork, and allocate under full
// tracing, and after a moment it crashes in one of several ways. Its log must be there and complete or, in the rounds
// in which the log's folder cannot be made, the console must say so. No host may hang.
//
// The first argument "host" makes this program a host: soak host SEED.
#include "support/support.h"

#include "sighandler.h"
#include "signal_printf.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr char kEndOfLog[] = "soak: end of log";
constexpr char kChildFile[] = "/tmp/soak.child"; // the process id of the child that crashes in place of the host
constexpr auto kHostLimit = 20s;
constexpr unsigned kWorkers = 2;

long mark_end(unsigned int phase, unsigned long arg, void *)
{
    if (phase == QV_COREDUMP_LAST)
        signal_printf(static_cast<int>(arg), "%s\n", kEndOfLog);
    return 0;
}
QV_COREDUMP_CALLBACK(mark_end);

// ---- the host ----

std::string plugin_path()
{
    return support::build_dir() + "/tests/soak_plugin.so";
}

[[noreturn]] void load_and_unload(const std::string &path)
{
    for (;;) {
        void *plugin = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (plugin == nullptr)
            continue;
        if (void *storage = ::dlsym(plugin, "soak_storage"))
            *reinterpret_cast<char *(*)()>(storage)() = 1;
        ::dlclose(plugin);
    }
}

[[noreturn]] void fork_children()
{
    for (;;) {
        pid_t child = ::fork();
        if (child == 0) {
            std::free(std::malloc(100));
            ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
    }
}

[[noreturn]] void allocate(unsigned seed)
{
    void *blocks[64] = {};
    for (;;) {
        void *&block = blocks[::rand_r(&seed) % 64];
        std::free(block);
        block = std::malloc(static_cast<std::size_t>(::rand_r(&seed)) % 2000 + 1);
    }
}

// Read at run time: the compiler treats a write to a constant null as unreachable.
volatile int *volatile nowhere;

void write_to_null()
{
    *nowhere = 1;
}

void read_beyond_a_file()
{
    int fd = ::memfd_create("empty", 0);
    void *page = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    static_cast<void>(*static_cast<volatile char *>(page));
}

void free_twice()
{
    void *volatile block = std::malloc(24);
    std::free(block);
    std::free(block);
}

// The C library detects the damage when one of the blocks is freed, and aborts while it holds its locks.
void smash_the_heap()
{
    void *blocks[8];
    for (void *&block : blocks)
        block = std::malloc(24);
    auto *bytes = static_cast<volatile char *>(blocks[0]);
    for (int i = 0; i < 200; i++)
        bytes[i] = 0x41;
    for (void *block : blocks)
        std::free(block);
    std::abort();
}

void fault_while_loading()
{
    ::setenv("SOAK_FAULT_ON_LOAD", "1", 1);
    for (std::string path = plugin_path();;) {
        if (void *plugin = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
            ::dlclose(plugin);
    }
}

void ask_for_a_dump_first()
{
    ::kill(::getpid(), 52);
    write_to_null();
}

// The child has none of the other threads, but the locks that they held are still locked.
void crash_in_a_child()
{
    pid_t child = ::fork();
    if (child == 0) {
        support::write_file(kChildFile, std::to_string(::getpid()));
        write_to_null();
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ::signal(WTERMSIG(status), SIG_DFL);
    ::raise(WTERMSIG(status));
}

void (*const kCrashes[])() = {
    write_to_null, read_beyond_a_file,  free_twice,           smash_the_heap,
    std::abort,    fault_while_loading, ask_for_a_dump_first, crash_in_a_child,
};

int run_host(unsigned seed)
{
    rlimit no_core = {0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
    install_sighandler();
    constexpr auto kKinds = static_cast<unsigned>(std::size(kCrashes));
    void (*crash)() = kCrashes[seed % kKinds];
    unsigned way = seed / kKinds;
    if (way % 3 != 0)
        ::kill(::getpid(), SIGUSR2); // full tracing, with a trace file

    std::string path = plugin_path();
    std::thread([path] { load_and_unload(path); }).detach();
    std::thread([path] { load_and_unload(path); }).detach();
    std::thread(fork_children).detach();
    std::thread(allocate, seed).detach();
    ::usleep(way * 7919 % 20000);

    unsigned crashers = way % (crash == crash_in_a_child ? 2 : 4); // only one child, whose log is checked
    for (unsigned i = 0; i < crashers; i++)
        std::thread(crash).detach();
    if (crashers == 0)
        crash();
    for (;;)
        ::pause();
}

// ---- the driver ----

struct Outcome {
    bool good;
    std::string problem;
};

// The log of a host or of its child, found by the process id in its name. Its other logs (dumps) do not count.
std::string crash_log(pid_t pid, int sig)
{
    return support::read_file("/etc/core/soak" + std::to_string(pid) + ".coredump." + std::to_string(sig) + ".log");
}

void wait_for(pid_t host, int *status, bool *hung)
{
    auto end = steady::now() + kHostLimit;
    while (::waitpid(host, status, WNOHANG) == 0) {
        if (steady::now() > end) {
            *hung = true;
            ::kill(host, SIGKILL);
            ::waitpid(host, status, 0);
            return;
        }
        ::usleep(1000);
    }
}

Outcome judge(pid_t host, bool has_folder)
{
    int status = 0;
    bool hung = false;
    wait_for(host, &status, &hung);
    if (hung)
        return {false, "hung"};
    if (!WIFSIGNALED(status))
        return {false, "did not die of a signal: status " + std::to_string(status)};
    std::string child = support::read_file(kChildFile);
    pid_t pid = child.empty() ? host : static_cast<pid_t>(std::atol(child.c_str()));
    std::string console = support::read_file(support::kConsole);
    if (!has_folder)
        return {console.find("Fail to create") != std::string::npos, "neither log nor message"};
    std::string log = crash_log(pid, WTERMSIG(status));
    return {log.find(kEndOfLog) != std::string::npos,
            "signal " + std::to_string(WTERMSIG(status)) + ", console \"" + console + "\", log \"" + log + "\""};
}

Outcome run_round(unsigned seed)
{
    bool has_folder = seed % 16 != 9;
    for (std::string folder : {"/etc/core", "/tmp", "/etc"}) {
        for (const std::string &name : support::list_dir(folder))
            ::unlink((folder + "/" + name).c_str());
    }
    ::rmdir("/etc/core");
    ::truncate(support::kConsole, 0);
    if (!has_folder)
        support::write_file("/etc/core", ""); // a file in place of the folder, so that no log can be made in it
    std::fflush(nullptr);
    pid_t host = ::fork();
    if (host == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 2);
        ::execl((support::build_dir() + "/tests/soak").c_str(), "soak", "host", std::to_string(seed).c_str(),
                static_cast<char *>(nullptr));
        ::_exit(127);
    }
    return judge(host, has_folder);
}

struct Totals {
    std::atomic<unsigned> crashes;
    std::atomic<unsigned> failures;
};

void work(Totals *totals, unsigned crashes, steady::time_point end, unsigned first_seed)
{
    support::enter_sandbox();
    for (;;) {
        unsigned number = totals->crashes++;
        if ((crashes != 0 && number >= crashes) || steady::now() > end) {
            totals->crashes--;
            return;
        }
        Outcome outcome = run_round(first_seed + number);
        if (outcome.good)
            continue;
        totals->failures++;
        std::printf("soak: seed %u: %s\n", first_seed + number, outcome.problem.c_str());
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "host") == 0)
        return run_host(static_cast<unsigned>(std::atol(argv[2])));
    if (argc < 3) {
        std::fprintf(stderr, "usage: soak SECONDS CRASHES [FIRST-SEED]\n");
        return 2;
    }
    long seconds = std::atol(argv[1]);
    auto end = steady::now() + std::chrono::seconds(seconds == 0 ? 1000000 : seconds);
    auto crashes = static_cast<unsigned>(std::atol(argv[2]));
    auto first_seed = static_cast<unsigned>(argc > 3 ? std::atol(argv[3]) : 0);

    void *shared = ::mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *totals = new (shared) Totals{};
    for (unsigned i = 0; i < kWorkers; i++) {
        if (::fork() == 0) {
            work(totals, crashes, end, first_seed);
            std::fflush(nullptr);
            ::_exit(0);
        }
    }
    int status = 0;
    bool workers_ended = true;
    while (::wait(&status) > 0)
        workers_ended = workers_ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    unsigned run = totals->crashes;
    unsigned failed = totals->failures;
    std::printf("soak: %u crashes, %u without their log, seeds %u to %u\n", run, failed, first_seed,
                first_seed + run - 1);
    return workers_ended && run > 0 && failed == 0 ? 0 : 1;
}
