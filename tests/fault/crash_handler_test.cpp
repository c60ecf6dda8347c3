// SPDX-License-Identifier: Apache-2.0
// The fatal-signal handler: names and content of logs, dump requests, callbacks, failures.
#include "fault/crash_support.h"

#include "signal_printf.h"
#include "support/machine.h"

#include <cerrno>
#include <csetjmp>
#include <pthread.h>
#include <sys/stat.h>
#include <ucontext.h>

using namespace support;
using namespace crash;

namespace {

// ---- two callbacks in the table, steered by the running case ----

struct Call {
    char who;
    unsigned phase;
    unsigned long arg;
    void *record;
};

Call calls[64];
std::size_t call_count;
long first_result[8]; // the first callback's result, by phase
const char *path_to_set;
bool fill_whole_path;
bool is_reset_at_backtrace;
sigjmp_buf *way_out; // used by the last phase

struct sigaction disposition(int sig)
{
    struct sigaction action;
    ::sigaction(sig, nullptr, &action);
    return action;
}

long record_call(char who, unsigned phase, unsigned long arg, void *record)
{
    if (call_count < std::size(calls))
        calls[call_count++] = {who, phase, arg, record};
    return who == 'a' ? first_result[phase] : 0;
}

long callback_a(unsigned phase, unsigned long arg, void *record)
{
    auto *rec = static_cast<crash_record *>(record);
    if (phase == QV_COREDUMP_FIRST && path_to_set != nullptr)
        std::strcpy(rec->log_path, path_to_set);
    if (phase == QV_COREDUMP_FIRST && fill_whole_path) {
        std::memset(rec->log_path, 'p', sizeof rec->log_path);
        std::memcpy(rec->log_path, "/tmp/", 5);
    }
    if (phase == QV_COREDUMP_BACKTRACE && rec->signo == SIGSEGV)
        is_reset_at_backtrace = disposition(SIGSEGV).sa_handler == SIG_DFL;
    if (phase == QV_COREDUMP_BACKTRACE)
        signal_printf(static_cast<int>(arg), "depth %d\n", rec->depth);
    if (phase == QV_COREDUMP_LAST)
        signal_printf(static_cast<int>(arg), "last\n");
    if (phase == QV_COREDUMP_LAST && way_out != nullptr)
        siglongjmp(*way_out, 1);
    return record_call('a', phase, arg, record);
}

long callback_b(unsigned phase, unsigned long arg, void *record)
{
    return record_call('b', phase, arg, record);
}

QV_COREDUMP_CALLBACK(callback_a);
QV_COREDUMP_CALLBACK(callback_b);

std::string phases()
{
    std::string text;
    for (std::size_t i = 0; i < call_count; i++)
        text += std::string(1, calls[i].who) + std::to_string(calls[i].phase) + " ";
    return text;
}

// ---- the child that dies ----

constexpr char kName[] = "routed";
constexpr int kFaultSignals[] = {SIGBUS, SIGABRT, SIGSEGV, SIGILL};

ChildResult crash_child(const std::function<void()> &body)
{
    return run_child([&] {
        rename_process(kName);
        install_sighandler();
        body();
    });
}

std::string core_path(const ChildResult &child, const std::string &kind, int sig)
{
    return log_path(kName, child.pid, kind, sig);
}

void expect_dying_line(const ChildResult &child, int sig, std::uint64_t pc)
{
    char line[256];
    std::snprintf(line, sizeof line, "!!!!!!WARNING: process %d pid %d parent %d  is dying(%d), ePC :  %016lx\n",
                  child.pid, child.pid, ::getpid(), sig, static_cast<unsigned long>(pc));
    EXPECT_NE(std::string::npos, printed().find(line)) << line << printed();
}

void in_thread(void *(*body)(void *))
{
    pthread_t thread;
    ::pthread_create(&thread, nullptr, body, nullptr);
    ::pthread_join(thread, nullptr);
}

void *crash_as_worker(void *)
{
    rename_process("worker");
    write_file("/tmp/tid", std::to_string(thread_id()));
    write_null();
    return nullptr;
}

} // namespace

// ---- crashes ----

TEST(Crash, LogIsCompleteAndTheFaultStillKills)
{
    ChildResult child = crash_child([] { write_null(); });
    EXPECT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.err;
    Log log = read_log(core_path(child, "coredump", SIGSEGV));
    ASSERT_EQ("", log.error);
    EXPECT_FALSE(log.by_thread);
    EXPECT_EQ(child.pid, log.id);
    EXPECT_EQ(SIGSEGV, log.sig);
    EXPECT_EQ(0U, log.registers[0]);
    EXPECT_EQ(log.sp, log.registers[31]);
    EXPECT_EQ(kBadAddress, log.fault);
    ASSERT_GE(log.entries.size(), 3U);
    char pc[32];
    std::snprintf(pc, sizeof pc, "[0x%lx]", static_cast<unsigned long>(log.pc));
    EXPECT_NE(std::string::npos, log.entries[0].text.find(pc)) << log.entries[0].text;
    EXPECT_EQ("depth " + std::to_string(log.entries.size()) + "\nlast\n", log.rest);
    expect_dying_line(child, SIGSEGV, log.pc);
}

TEST(Crash, RegisterNamesAreThoseOfTheArchitecture)
{
    ChildResult child = crash_child([] { write_null(); });
    Log log = read_log(core_path(child, "coredump", SIGSEGV));
    ASSERT_EQ("", log.error);
    EXPECT_EQ(log.names, register_names());
    if (kProgramCounterSlot != kNoSlot) {
        EXPECT_EQ(log.registers[static_cast<unsigned>(kProgramCounterSlot)], log.pc);
    }
}

TEST(Crash, AnOlderLongerLogKeepsItsTail)
{
    ::mkdir("/etc/core", 0777);
    path_to_set = "/etc/core/again.log";
    std::string old(20000, 'o');
    write_file(path_to_set, old);
    ChildResult child = crash_child([] { write_null(); });
    std::string text = read_file(path_to_set);
    EXPECT_EQ(old.size(), text.size());
    std::size_t end = text.find("last\n");
    ASSERT_NE(std::string::npos, end);
    EXPECT_EQ(std::string(old.size() - end - 5, 'o'), text.substr(end + 5));
}

TEST(Crash, EveryFaultSignalIsLoggedAndResetsAllFour)
{
    for (int sig : kFaultSignals) {
        // The signal is sent, not a fault: the process continues after the handler and can read the dispositions.
        ChildResult child = crash_child([sig] {
            ::raise(sig);
            for (int other : kFaultSignals)
                EXPECT_EQ(SIG_DFL, disposition(other).sa_handler) << other;
            EXPECT_EQ(&signal_err, disposition(kBacktraceSignal).sa_sigaction);
        });
        EXPECT_TRUE(child.exited(0)) << child.out;
        Log log = read_log(core_path(child, "coredump", sig));
        EXPECT_EQ("", log.error) << sig;
        expect_dying_line(child, sig, log.pc);
    }
}

TEST(Crash, WithThreadModeTheThreadIsNamed)
{
    ChildResult child = run_child([] {
        qv_set_handle_thread_trace();
        install_sighandler();
        in_thread(crash_as_worker);
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    int tid = std::atoi(read_file("/tmp/tid").c_str());
    EXPECT_NE(child.pid, tid);
    std::string path = log_path("worker", tid, "coredump", SIGSEGV);
    Log log = read_log(path);
    EXPECT_EQ("", log.error);
    EXPECT_TRUE(log.by_thread);
    EXPECT_EQ(tid, log.id);
    EXPECT_EQ(path, log.label);
}

TEST(Crash, WithoutThreadModeTheProcessIsNamed)
{
    ChildResult child = crash_child([] { in_thread(crash_as_worker); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    EXPECT_EQ("", read_log(core_path(child, "coredump", SIGSEGV)).error);
}

TEST(Crash, ASlashInANameBecomesAnUnderscoreInTheFileName)
{
    ChildResult child = run_child([] {
        qv_set_handle_thread_trace();
        install_sighandler();
        rename_process("/rx/eth0/");
        ::raise(kBacktraceSignal);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    std::string path = log_path("_rx_eth0_", child.pid, "attach", kBacktraceSignal);
    Log log = read_log(path);
    EXPECT_EQ("", log.error);
    EXPECT_EQ(path, log.label);
}

TEST(Crash, ErrnoAndTheSignalContextFlagAreRestored)
{
    ChildResult child = crash_child([] {
        for (bool read_only : {false, true}) {
            remount("/etc", read_only);
            errno = E2BIG;
            ::raise(kBacktraceSignal);
            EXPECT_EQ(E2BIG, errno);
            EXPECT_EQ(0, in_signal_context());
        }
        remount("/etc", false);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

namespace {

void raise_and_leave(int sig)
{
    static sigjmp_buf out;
    way_out = &out;
    if (sigsetjmp(out, 1) == 0)
        ::raise(sig);
    way_out = nullptr;
}

} // namespace

TEST(Crash, TheNextHandlerForgetsOneThatACallbackLeft)
{
    ChildResult child = crash_child([] {
        for (int i = 0; i < 3; i++) {
            raise_and_leave(kBacktraceSignal);
            EXPECT_EQ(1, in_signal_context());
            ::raise(kBacktraceSignal);
            EXPECT_EQ(0, in_signal_context());
        }
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

// ---- dump requests ----

TEST(Dump, RequestsAreLoggedAndTheProcessGoesOn)
{
    for (int sig : {kAttachSignal, kBacktraceSignal}) {
        ChildResult child = crash_child([sig] {
            for (int i = 0; i < 3; i++)
                ::raise(sig);
            EXPECT_EQ(&signal_err, disposition(SIGSEGV).sa_sigaction);
        });
        EXPECT_TRUE(child.exited(0)) << child.out;
        EXPECT_EQ("", read_log(core_path(child, "attach", sig)).error);
        std::string line =
            std::string(" PID ").append(std::to_string(child.pid)) + " is attaching (" + std::to_string(sig) + ")\n";
        EXPECT_NE(std::string::npos, printed().find(line));
    }
    EXPECT_EQ(std::string::npos, printed().find("dying"));
}

TEST(Dump, Signal51GoesBelowTheDumpFolderOnlyWhenThatExists)
{
    ChildResult child = crash_child([] {
        ::raise(kDumpFileSignal);
        EXPECT_EQ(0, in_signal_context());
        EXPECT_EQ(&signal_err, disposition(kDumpFileSignal).sa_sigaction);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    std::string path = log_path(kName, child.pid, "attach", kDumpFileSignal, "/tmp/dump");
    EXPECT_EQ(std::string(" PID ").append(std::to_string(child.pid)) + " is attaching (51)\n" +
                  "dir /tmp/dump not exists! \nFail to create " + path + " \n",
              printed());
    EXPECT_FALSE(exists("/tmp/dump"));
    EXPECT_FALSE(exists("/etc/core"));

    ::mkdir("/tmp/dump", 0777);
    child = crash_child([] { ::raise(kDumpFileSignal); });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("", read_log(log_path(kName, child.pid, "attach", kDumpFileSignal, "/tmp/dump")).error);
    EXPECT_FALSE(exists("/etc/core"));
}

TEST(Dump, Signal14CountsBeforeAnythingIsArmed)
{
    ChildResult child = run_child([] {
        rename_process(kName);
        struct sigaction action = {};
        action.sa_sigaction = signal_err;
        action.sa_flags = SA_SIGINFO;
        ::sigaction(kAttachSignal, &action, nullptr);
        ::raise(kAttachSignal);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("", read_log(core_path(child, "attach", kAttachSignal)).error);
}

TEST(Dump, AnotherAttachSignalReplaces14)
{
    ChildResult child = run_child([] {
        rename_process(kName);
        install_sighandler2(SIGUSR1);
        ::raise(SIGUSR1);
        EXPECT_EQ(SIG_DFL, disposition(kAttachSignal).sa_handler);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_EQ("", read_log(core_path(child, "attach", SIGUSR1)).error);
}

// ---- callbacks ----

TEST(Callback, PhasesComeInOrderWithTheirArguments)
{
    ChildResult child = crash_child([] {
        EXPECT_EQ("a0 b0 ", phases());
        EXPECT_NE(0U, calls[0].arg);
        EXPECT_EQ(nullptr, calls[0].record);
        call_count = 0;
        ::raise(SIGSEGV);
        EXPECT_EQ("a1 b1 a4 b4 a2 b2 ", phases());
        EXPECT_EQ(0U, calls[0].arg);
        EXPECT_NE(nullptr, calls[0].record);
        EXPECT_EQ(calls[4].arg, calls[2].arg);
        EXPECT_TRUE(is_reset_at_backtrace); // the handlers of a process without threads are disarmed before the log
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Callback, DumpSignals51And52SkipPhase4AndTheAttachSignalDoesNot)
{
    ::mkdir("/tmp/dump", 0777);
    ChildResult child = crash_child([] {
        for (int sig : {kDumpFileSignal, kBacktraceSignal, kAttachSignal}) {
            call_count = 0;
            ::raise(sig);
            EXPECT_EQ(sig == kAttachSignal ? "a1 b1 a4 b4 a2 b2 " : "a1 b1 a2 b2 ", phases()) << sig;
        }
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Callback, AResultOfPhase1SuppressesWarningAndReset)
{
    ChildResult child = crash_child([] {
        call_count = 0;
        first_result[QV_COREDUMP_FIRST] = 7;
        ::raise(SIGSEGV);
        EXPECT_EQ("a1 a4 b4 a2 b2 ", phases());
        EXPECT_EQ(&signal_err, disposition(SIGSEGV).sa_sigaction);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
    EXPECT_EQ("", printed());
    EXPECT_EQ("", read_log(core_path(child, "coredump", SIGSEGV)).error);
}

TEST(Callback, AResultEndsTheWalk)
{
    ChildResult child = crash_child([] {
        call_count = 0;
        first_result[QV_COREDUMP_BACKTRACE] = 1;
        first_result[QV_COREDUMP_LAST] = -1;
        ::raise(SIGSEGV);
        EXPECT_EQ("a1 b1 a4 a2 ", phases());
        call_count = 0;
        first_result[6] = -5;
        EXPECT_EQ(-5, call_signal_table(6, 77, &call_count));
        EXPECT_EQ("a6 ", phases());
        EXPECT_EQ(0, call_signal_table(5, 77, nullptr));
        EXPECT_EQ(77U, calls[1].arg);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(Callback, PathOfPhase1IsUsedAndTheFolderStillMade)
{
    path_to_set = "/tmp/mine.log";
    ChildResult child = crash_child([] { write_null(); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    EXPECT_EQ("", read_log("/tmp/mine.log").error);
    EXPECT_TRUE(exists("/etc/core"));
    EXPECT_EQ(std::vector<std::string>(), list_dir("/etc/core"));
}

TEST(Callback, APathWithoutTerminationIsBounded)
{
    fill_whole_path = true;
    ChildResult child = crash_child([] { write_null(); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    EXPECT_EQ("", read_log("/tmp/" + std::string(127 - 5, 'p')).error);
}

// ---- failures ----

TEST(Failure, AFolderThatCannotBeMadeIsReported)
{
    remount("/etc", true);
    ChildResult child = crash_child([] { write_null(); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    std::string path = core_path(child, "coredump", SIGSEGV);
    EXPECT_NE(std::string::npos, read_file(kConsole).find(
                                     "mkdir /etc/core\tfailed, Read-only file system\nFail to create " + path + " \n"))
        << read_file(kConsole);
}

TEST(Failure, ADanglingLinkIsNoFolder)
{
    ASSERT_EQ(0, ::symlink("/nowhere/core", "/etc/core"));
    ChildResult child = crash_child([] { write_null(); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    std::string path = core_path(child, "coredump", SIGSEGV);
    EXPECT_NE(std::string::npos, printed().find("mkdir /etc/core\tfailed, File exists\nFail to create " + path + " \n"))
        << printed();
}

TEST(Failure, AFileThatCannotBeMadeIsReported)
{
    ::mkdir("/etc/core", 0777);
    remount("/etc", true);
    ChildResult child = crash_child([] { write_null(); });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    std::string path = core_path(child, "coredump", SIGSEGV);
    EXPECT_NE(std::string::npos, read_file(kConsole).find("!!!!!!WARNING: failed to core dump log file in " + path +
                                                          ".\nFail to create " + path + " \n"))
        << read_file(kConsole);
}

TEST(Failure, LongNamesAreCutAtThePathsSize)
{
    ChildResult child = run_child([] {
        bind_over("/proc/self/comm", std::string(300, 'n'));
        install_sighandler();
        write_null();
    });
    EXPECT_TRUE(child.killed_by(SIGSEGV));
    std::vector<std::string> logs = list_dir("/etc/core");
    ASSERT_EQ(1U, logs.size());
    EXPECT_EQ(std::string(127 - std::strlen("/etc/core/"), 'n'), logs[0]);
}

// ---- the record's backtrace, written on its own ----

TEST(BacktraceSection, NegativeDescriptorDoesNothing)
{
    crash_record rec = {};
    rec.depth = 7;
    EXPECT_EQ(0, coredump_backtrace_to_file(-1, &rec));
    EXPECT_EQ(7U, rec.depth);
}

TEST(BacktraceSection, FillsTheRecordAndWritesIt)
{
    ucontext_t context;
    ::getcontext(&context);
    crash_record rec = {};
    rec.uctx = &context;
    int depth = 0;
    std::string text = capture_stdout([&] { depth = coredump_backtrace_to_file(STDOUT_FILENO, &rec); });
    EXPECT_GT(depth, 1);
    EXPECT_EQ(depth, static_cast<int>(rec.depth));
    EXPECT_NE(0U, rec.fault_fp);
    std::vector<std::string> written = lines(text);
    ASSERT_EQ(depth + 3, static_cast<int>(written.size()));
    EXPECT_EQ("Backtracing:", written[0]);
    for (unsigned i = 0; i < rec.depth; i++) {
        char head[64];
        std::snprintf(head, sizeof head, "\t<0x%lX> -> ", static_cast<unsigned long>(rec.frames[i]));
        EXPECT_EQ(0U, written[i + 1].rfind(head, 0)) << written[i + 1];
    }
    char bottom[64];
    std::snprintf(bottom, sizeof bottom, "\tStack bottom is at 0x%lX", static_cast<unsigned long>(rec.stack_bottom));
    EXPECT_EQ(bottom, written[written.size() - 2]);
    EXPECT_EQ("", written.back());
}
