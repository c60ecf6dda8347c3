// SPDX-License-Identifier: Apache-2.0
// The handlers in detail: whose ids they print, every register, which calls they make in which order, and errno.
#include "fault/crash_support.h"

#include "backtrace.h"
#include "console_print.h"
#include "signal_printf.h"
#include "stack_info.h"
#include "support/machine.h"
#include "support/next_function.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <ucontext.h>

using namespace support;
using namespace crash;

namespace {

constexpr char kName[] = "routed";

// ---- recorded and refused calls ----

struct Calls {
    bool recorded = false;
    std::string text;
    int refused_sigaction = 0; // the signal that fails; -1 for all
    bool read_fails = false;
    bool mkdir_comes_late = false; // another thread makes the folder first
};

Calls calls;

std::string disposition_name(sighandler_t handler)
{
    if (handler == SIG_DFL)
        return "default";
    if (handler == SIG_IGN)
        return "ignore";
    return reinterpret_cast<void *>(handler) == reinterpret_cast<void *>(&signal_err)         ? "crash"
           : reinterpret_cast<void *>(handler) == reinterpret_cast<void *>(&signal_terminate) ? "terminate"
                                                                                              : "other";
}

void record(const char *call, int sig, sighandler_t handler)
{
    if (!calls.recorded)
        return;
    bool is_announced = read_file("/etc/consolelog").find("is dying") != std::string::npos;
    calls.text.append(is_announced ? "late " : "").append(call);
    calls.text.append(std::to_string(sig)).append(disposition_name(handler)).append(" ");
}

} // namespace

extern "C" {

sighandler_t signal(int sig, sighandler_t handler) noexcept
{
    static auto *real = support::next_function<sighandler_t(int, sighandler_t)>("signal");
    record("s", sig, handler);
    return real(sig, handler);
}

int sigaction(int sig, const struct sigaction *action, struct sigaction *old) noexcept
{
    static auto *real = support::next_function<int(int, const struct sigaction *, struct sigaction *)>("sigaction");
    if (action != nullptr)
        record("a", sig, action->sa_handler);
    if (action != nullptr && (calls.refused_sigaction == sig || calls.refused_sigaction == -1)) {
        errno = EINVAL;
        return -1;
    }
    return real(sig, action, old);
}

int mkdir(const char *path, mode_t mode) noexcept
{
    static auto *real = support::next_function<int(const char *, mode_t)>("mkdir");
    if (calls.mkdir_comes_late)
        real(path, mode);
    return real(path, mode);
}

ssize_t read(int fd, void *buffer, std::size_t size)
{
    static auto *real = support::next_function<ssize_t(int, void *, std::size_t)>("read");
    if (calls.read_fails) {
        errno = EIO;
        return -1;
    }
    return real(fd, buffer, size);
}
}

namespace {

// ---- a callback ----

struct Phase0 {
    const void *record;
    bool is_action;
    int calls;
} phase0;

long note_installation(unsigned phase, unsigned long arg, void *record)
{
    if (phase != QV_COREDUMP_INSTALLED)
        return 0;
    auto *action = reinterpret_cast<const struct sigaction *>(arg);
    phase0.calls++;
    phase0.record = record;
    phase0.is_action = action->sa_sigaction == &signal_err && action->sa_flags == SA_SIGINFO;
    if (calls.recorded)
        calls.text += "phase0 ";
    return 0;
}

QV_COREDUMP_CALLBACK(note_installation);

ChildResult named_child(const std::function<void()> &body)
{
    return run_child([&] {
        rename_process(kName);
        body();
    });
}

void run_thread(void *(*body)(void *))
{
    pthread_t thread;
    if (::pthread_create(&thread, nullptr, body, nullptr) != 0)
        ::_exit(90);
    ::pthread_join(thread, nullptr);
}

// A thread that records its id and then runs the body.
template <void (*action)()>
void *as_worker(void *)
{
    rename_process("worker");
    write_file("/tmp/tid", std::to_string(thread_id()));
    action();
    return nullptr;
}

int worker_id()
{
    return std::atoi(read_file("/tmp/tid").c_str());
}

template <int sig>
void raise_signal()
{
    ::raise(sig);
}

int mode_of(const std::string &path)
{
    struct stat info = {};
    ::stat(path.c_str(), &info);
    return static_cast<int>(info.st_mode & 07777);
}

} // namespace

// ---- ids: on a second thread, the thread's id differs from the process's ----

TEST(Ids, ADyingThread)
{
    ChildResult child = named_child([] {
        install_sighandler();
        run_thread(as_worker<write_null>);
    });
    ASSERT_NE(worker_id(), child.pid);
    char line[128];
    std::snprintf(line, sizeof line, "!!!!!!WARNING: process %d pid %d parent %d  is dying(11), ePC :  ", worker_id(),
                  child.pid, ::getpid());
    EXPECT_NE(std::string::npos, printed().find(line)) << line << printed();
    EXPECT_EQ(read_log(log_path("routed", child.pid, "coredump", SIGSEGV)).id, child.pid);
}

TEST(Ids, AnAttachingThreadByProcessAndByThread)
{
    for (bool by_thread : {false, true}) {
        ChildResult child = named_child([by_thread] {
            install_sighandler();
            if (by_thread)
                qv_set_handle_thread_trace();
            run_thread(as_worker<raise_signal<kBacktraceSignal>>);
        });
        ASSERT_NE(worker_id(), child.pid);
        std::string line = " PID " + std::to_string(worker_id()) + " is attaching (52)\n";
        EXPECT_NE(std::string::npos, printed().find(line)) << line << printed();
        int id = by_thread ? worker_id() : child.pid;
        Log log = read_log(log_path(by_thread ? "worker" : "routed", id, "attach", kBacktraceSignal));
        EXPECT_EQ("", log.error);
        EXPECT_EQ(log.id, id);
        EXPECT_EQ(log.by_thread, by_thread);
    }
}

TEST(Ids, ATerminatedThreadByProcessAndByThread)
{
    for (bool by_thread : {false, true}) {
        ChildResult child = named_child([by_thread] {
            pstrace_terminate_signal();
            if (by_thread)
                qv_set_handle_thread_trace();
            run_thread(as_worker<raise_signal<SIGTERM>>);
        });
        EXPECT_TRUE(child.killed_by(SIGTERM));
        std::string path = log_path(by_thread ? "worker" : "routed", by_thread ? worker_id() : child.pid, "term",
                                    SIGTERM, "/flash/core");
        ASSERT_TRUE(exists(path)) << path;
        std::string line = "Process " + std::to_string(worker_id()) + " receive signal(15) from pid " +
                           std::to_string(child.pid) + ",";
        EXPECT_EQ(lines(read_file(path))[0], line);
    }
}

// ---- what a log holds ----

TEST(Registers, EachSlotHoldsItsRegister)
{
    ChildResult child = named_child([] {
        ucontext_t context;
        ::getcontext(&context);
        number_registers(context);
        siginfo_t info = {};
        signal_err(kBacktraceSignal, &info, &context);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    Log log = read_log(log_path(kName, child.pid, "attach", kBacktraceSignal));
    ASSERT_EQ("", log.error);
    ucontext_t context;
    LoggedRegisters logged = number_registers(context);
    for (unsigned i = 0; i < logged.slots.size(); i++)
        EXPECT_EQ(logged.slots[i], log.registers[i]) << "slot " << i;
    EXPECT_EQ(logged.sp, log.sp);
    EXPECT_EQ(logged.pc, log.pc);
    EXPECT_EQ(logged.pstate, log.pstate);
    EXPECT_EQ(logged.fault, log.fault);
}

// A thread has a table of code only after the handler has read its mappings.
TEST(Mappings, TheHandlerReadsTheMappingsOfItsThread)
{
    ChildResult child = named_child([] {
        install_sighandler();
        run_thread(as_worker<jump_wild>);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    Log log = read_log(log_path(kName, child.pid, "coredump", SIGSEGV));
    ASSERT_EQ("", log.error);
    EXPECT_EQ(kWildAddress, log.pc);
    for (const Log::Entry &entry : log.entries)
        EXPECT_EQ(std::string::npos, entry.text.find("[0x123450]")) << entry.text;
}

TEST(Mappings, EachRunOfTheHandlerReadsTheMappingsAgain)
{
    ChildResult child = named_child([] {
        install_sighandler();
        ::raise(kBacktraceSignal);
        void *code = ::mmap(nullptr, 65536, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ucontext_t context;
        ::getcontext(&context);
        set_program_counter(context, reinterpret_cast<unsigned long>(code));
        siginfo_t info = {};
        signal_err(kAttachSignal, &info, &context);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    Log log = read_log(log_path(kName, child.pid, "attach", kAttachSignal));
    ASSERT_EQ("", log.error);
    ASSERT_FALSE(log.entries.empty());
    char address[32];
    std::snprintf(address, sizeof address, "0x%lx", static_cast<unsigned long>(log.pc));
    EXPECT_NE(std::string::npos, log.entries[0].text.find(address)) << log.entries[0].text;
}

TEST(Files, ModesGrantEverythingThatTheUmaskAllows)
{
    for (mode_t mask : {mode_t{0000}, mode_t{0027}}) {
        mount_tmpfs("/etc");
        mount_tmpfs("/flash");
        ChildResult child = named_child([mask] {
            ::umask(mask);
            install_sighandler();
            ::raise(kBacktraceSignal);
            pstrace_terminate_signal();
            ::raise(SIGTERM);
        });
        EXPECT_TRUE(child.killed_by(SIGTERM));
        int mode = 0777 & ~static_cast<int>(mask);
        EXPECT_EQ(mode_of("/etc/core"), mode);
        EXPECT_EQ(mode_of(log_path(kName, child.pid, "attach", kBacktraceSignal)), mode);
        EXPECT_EQ(mode_of("/flash/core"), mode);
        EXPECT_EQ(mode_of(log_path(kName, child.pid, "term", SIGTERM, "/flash/core")), mode);
    }
}

TEST(Files, AFolderThatAnotherThreadMadeMeanwhileIsNoFailure)
{
    ChildResult child = named_child([] {
        install_sighandler();
        calls.mkdir_comes_late = true;
        ::raise(kBacktraceSignal);
        pstrace_terminate_signal();
        ::raise(SIGTERM);
    });
    EXPECT_TRUE(child.killed_by(SIGTERM));
    EXPECT_EQ("", read_log(log_path(kName, child.pid, "attach", kBacktraceSignal)).error);
    EXPECT_TRUE(exists(log_path(kName, child.pid, "term", SIGTERM, "/flash/core")));
    EXPECT_EQ(std::string::npos, printed().find("mkdir"));
}

// ---- arming ----

TEST(Arming, MakesItsCallsInOrder)
{
    ChildResult child = named_child([] {
        calls.recorded = true;
        install_sighandler();
        EXPECT_EQ("a14crash a6crash a11crash a7crash a4crash a51crash a52crash phase0 s12other s1ignore ", calls.text);
        calls.text.clear();
        pstrace_terminate_signal();
        std::string wanted;
        std::vector<int> signals = {SIGHUP,  SIGINT,    SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM,
                                    SIGTERM, SIGVTALRM, SIGIO,   SIGIO,   SIGPWR};
        for (int sig = SIGRTMIN; sig <= SIGRTMAX; sig++)
            signals.push_back(sig);
        for (int sig : signals)
            wanted += "a" + std::to_string(sig) + "terminate ";
        EXPECT_EQ(wanted, calls.text);
        calls.text.clear();
        uninstall_sighandler();
        EXPECT_EQ("s7default s4default s11default s6default ", calls.text);
        calls.text.clear();
        ignore_signal();
        EXPECT_EQ("s7ignore s4ignore s11ignore s6ignore s14ignore s1ignore s17ignore s13ignore s50ignore "
                  "s51ignore s52ignore ",
                  calls.text);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Arming, TheResultsAreTheLastCalls)
{
    ChildResult child = named_child([] {
        sighandler_t mine = [](int) {};
        ::signal(SIGHUP, mine);
        EXPECT_EQ(install_sighandler(), reinterpret_cast<void *>(mine));
        ::signal(SIGABRT, mine);
        EXPECT_EQ(uninstall_sighandler(), reinterpret_cast<void *>(mine));
        ::signal(kBacktraceSignal, mine);
        EXPECT_EQ(ignore_signal(), reinterpret_cast<void *>(mine));
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Arming, TheResetComesInItsOrderAndBeforeTheWarning)
{
    ChildResult child = named_child([] {
        install_sighandler();
        calls.recorded = true;
        ::raise(SIGILL);
        EXPECT_EQ("s7default s6default s11default s4default ", calls.text);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_NE(std::string::npos, printed().find("is dying(4)"));
}

TEST(Arming, EachFailureHasItsText)
{
    const std::pair<int, const char *> texts[] = {
        {SIGABRT, "abort"},
        {SIGSEGV, "sigsegv"},
        {SIGBUS, "sigbus"},
        {SIGILL, "sigill"},
        {kDumpFileSignal, "sig_dumpfile"},
        {kBacktraceSignal, "sig_backtrace"},
    };
    for (auto &[sig, name] : texts) {
        mount_tmpfs("/etc");
        ChildResult child = named_child([sig = sig] {
            calls.refused_sigaction = sig;
            install_sighandler();
        });
        EXPECT_TRUE(child.exited(0));
        EXPECT_EQ("install signal handler for " + std::string(name) + " failed.\n", printed());
    }
    mount_tmpfs("/etc");
    ChildResult child = named_child([] {
        calls.refused_sigaction = -1;
        install_sighandler2(SIGUSR1);
    });
    EXPECT_TRUE(child.exited(0));
    std::string all = "install signal handler for 10 failed.\n";
    for (auto &[sig, name] : texts)
        all += "install signal handler for " + std::string(name) + " failed.\n";
    EXPECT_EQ(printed(), all);
}

TEST(Arming, Phase0GetsTheActionAndNoRecord)
{
    ChildResult child = named_child([] {
        install_sighandler2(SIGUSR2);
        EXPECT_EQ(1, phase0.calls);
        EXPECT_TRUE(phase0.is_action);
        EXPECT_EQ(nullptr, phase0.record);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Arming, RecordsTheMainStackUnlessAnAttachSignalIsChosen)
{
    ChildResult child = named_child([] {
        install_sighandler2(SIGUSR1);
        EXPECT_EQ(0U, g_process_stack_start);
        install_sighandler();
        auto here = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
        EXPECT_LE(g_process_stack_start, here);
        EXPECT_GT(g_process_stack_end, here);
        EXPECT_NE(0U, section_rec[0].start);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

// ---- the plain handler ----

namespace {

NO_SANITIZERS int raise_at_depth(int levels)
{
    if (levels == 0)
        return ::raise(SIGUSR1);
    int result = raise_at_depth(levels - 1);
    asm volatile("" ::: "memory");
    return result;
}

} // namespace

TEST(PlainHandler, PrintsTwentyFramesOfADeepStack)
{
    ChildResult child = named_child([] {
        ::signal(SIGUSR1, signal_handler);
        raise_at_depth(40);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    std::vector<std::string> text = lines(read_file(kConsole));
    ASSERT_EQ(21U, text.size());
    EXPECT_EQ("crash_details_test Caught signal 10", text[0]);
    for (int i = 1; i <= 20; i++) {
        char head[32];
        std::snprintf(head, sizeof head, "Frame %2d: 0x", i);
        const std::string &line = text[static_cast<std::size_t>(i)];
        EXPECT_EQ(0U, line.rfind(head, 0)) << line;
        // The address and, after a blank, the symbol's text, which ends with the same address.
        std::string address = line.substr(10, line.find(' ', 10) - 10);
        EXPECT_NE(std::string::npos, line.find("[" + address + "]")) << line;
    }
}

TEST(PlainHandler, ReportsWhyItCannotReadTheName)
{
    ChildResult child = named_child([] {
        ::signal(SIGUSR1, signal_handler);
        calls.read_fails = true;
        ::raise(SIGUSR1);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    // A line is built by two calls: one for the name, which is empty, and one for the signal.
    EXPECT_EQ(0U, printed().rfind("read file /proc/self/cmdline failed, Input/output error\n", 0)) << printed();
    EXPECT_NE(std::string::npos, printed().find(" Caught signal 10\n")) << printed();
}

// ---- errno ----

namespace {

void expect_errno_kept(const char *what, const std::function<void()> &call)
{
    errno = E2BIG;
    call();
    EXPECT_EQ(E2BIG, errno) << what;
}

} // namespace

TEST(Errno, IsKeptByWhatHandlersCall)
{
    ChildResult child = named_child([] {
        install_sighandler();
        char text[128];
        unsigned long words[20], start = 0, end = 0;
        expect_errno_kept("printf", [] { signal_printf(-1, "text"); });
        expect_errno_kept("snprintf", [&] { signal_snprintf(text, sizeof text, "%d", 1); });
        expect_errno_kept("walk", [&] { qv_backtrace_spec(0x10, 0x10, 0, words, nullptr, 20, nullptr); });
        expect_errno_kept("stack", [&] { qv_get_stack_info(&start, &end); });
        expect_errno_kept("thread stack", [&] { qv_get_thread_stack_info(0x10, &start, &end); });
        expect_errno_kept("dump", [] { hex_dump_to_file(-1, "title", nullptr, nullptr, 0); });
        bind_over("/proc/self/comm", "");
        ::close(0);
        expect_errno_kept("name", [&] { get_proc_comm_name(text, sizeof text); });
        expect_errno_kept("table", [] { call_signal_table(QV_COREDUMP_FIRST, 0, nullptr); });
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

namespace {

int spoil_errno(const char *, va_list)
{
    errno = EDOM;
    return 0;
}

} // namespace

TEST(Errno, IsKeptByTheHandlersWhateverFails)
{
    for (const char *broken : {"nothing", "folder", "file"}) {
        mount_tmpfs("/etc");
        mount_tmpfs("/flash");
        std::string what = broken;
        ChildResult child = named_child([&] {
            if (what == "file") {
                ::mkdir("/etc/core", 0777);
                ::mkdir("/flash/core", 0777);
            }
            console_print_mfunc_set(spoil_errno);
            install_sighandler();
            console_print("opened\n");
            if (what != "nothing") {
                remount("/etc", true);
                remount("/flash", true);
            }
            expect_errno_kept("dump request", [] { ::raise(kBacktraceSignal); });
            pstrace_terminate_signal();
            if (what != "nothing")
                expect_errno_kept("termination", [] { ::raise(SIGTERM); });
        });
        EXPECT_TRUE(child.exited(0)) << what << child.status << child.out;
        std::string console = read_file(kConsole);
        std::string told = "mkdir /flash/core  failed, Read-only file system\nFail to create ";
        EXPECT_EQ(console.find(told) != std::string::npos, what == "folder") << console;
        remount("/etc", false);
        remount("/flash", false);
    }
}
