// SPDX-License-Identifier: Apache-2.0
#include "threads.h"

#include "process.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>

namespace qvstat {
namespace {

struct named_call {
    long number;
    const char *name;
};

// Those in which threads wait.
constexpr named_call kCalls[] = {
    {SYS_accept, "accept"},
    {SYS_accept4, "accept4"},
    {SYS_clock_nanosleep, "clock_nanosleep"},
    {SYS_close, "close"},
    {SYS_connect, "connect"},
    {SYS_epoll_pwait, "epoll_pwait"},
#ifdef SYS_epoll_wait
    {SYS_epoll_wait, "epoll_wait"},
#endif
    {SYS_fcntl, "fcntl"},
    {SYS_fdatasync, "fdatasync"},
    {SYS_flock, "flock"},
    {SYS_fsync, "fsync"},
    {SYS_futex, "futex"},
    {SYS_io_getevents, "io_getevents"},
    {SYS_ioctl, "ioctl"},
    {SYS_mq_timedreceive, "mq_timedreceive"},
    {SYS_msgrcv, "msgrcv"},
    {SYS_msgsnd, "msgsnd"},
    {SYS_munmap, "munmap"},
    {SYS_nanosleep, "nanosleep"},
    {SYS_openat, "openat"},
#ifdef SYS_pause
    {SYS_pause, "pause"},
#endif
#ifdef SYS_poll
    {SYS_poll, "poll"},
#endif
    {SYS_ppoll, "ppoll"},
    {SYS_pread64, "pread64"},
    {SYS_pselect6, "pselect6"},
    {SYS_pwrite64, "pwrite64"},
    {SYS_read, "read"},
    {SYS_readv, "readv"},
    {SYS_recvfrom, "recvfrom"},
    {SYS_recvmmsg, "recvmmsg"},
    {SYS_recvmsg, "recvmsg"},
    {SYS_restart_syscall, "restart_syscall"},
    {SYS_rt_sigsuspend, "rt_sigsuspend"},
    {SYS_rt_sigtimedwait, "rt_sigtimedwait"},
#ifdef SYS_select
    {SYS_select, "select"},
#endif
    {SYS_semtimedop, "semtimedop"},
    {SYS_sendmsg, "sendmsg"},
    {SYS_sendto, "sendto"},
    {SYS_wait4, "wait4"},
    {SYS_waitid, "waitid"},
    {SYS_write, "write"},
    {SYS_writev, "writev"},
};

// "TID (NAME) S ...": the name may hold anything, so the state follows the last parenthesis.
char state_in(const std::string &stat)
{
    std::size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() ? stat[close + 2] : '?';
}

// "NUMBER A0 A1 A2 A3 A4 A5 SP PC", "-1 SP PC" outside a system call, or "running".
void parse_system_call(const std::string &text, thread_view *thread)
{
    long number;
    unsigned long v[8];
    int count = std::sscanf(text.c_str(), "%ld %lx %lx %lx %lx %lx %lx %lx %lx", &number, &v[0], &v[1], &v[2], &v[3],
                            &v[4], &v[5], &v[6], &v[7]);
    if (count == 9) {
        thread->system_call = number;
        std::copy_n(v, thread->arguments.size(), thread->arguments.begin());
        thread->sp = v[6];
        thread->pc = v[7];
    } else if (count == 3 && number == -1) {
        thread->sp = v[0];
        thread->pc = v[1];
    }
}

bool is_among(const std::vector<thread_view> &threads, pid_t id)
{
    return std::any_of(threads.begin(), threads.end(), [id](const thread_view &thread) { return thread.id == id; });
}

// The owner of a mutex of the C library follows its word; with priority inheritance it is in the word. 0 for any other
// word.
pid_t owner_of(const thread_view &thread, std::uint32_t word, const memory_source &memory)
{
    constexpr std::uint32_t kLockedWithWaiters = 2;
    auto command = static_cast<int>(thread.arguments[1]) & FUTEX_CMD_MASK;
    if (command == FUTEX_LOCK_PI || command == FUTEX_LOCK_PI2)
        return static_cast<pid_t>(word & FUTEX_TID_MASK);
    if (word != kLockedWithWaiters)
        return 0;
    return load<pid_t>(memory, thread.arguments[0] + offsetof(pthread_mutex_t, __data.__owner)).value_or(0);
}

void read_wait(thread_view *thread, const std::vector<thread_view> &all, const memory_source &memory)
{
    if (thread->system_call != SYS_futex)
        return;
    auto word = load<std::uint32_t>(memory, thread->arguments[0]);
    if (!word)
        return;
    pid_t owner = owner_of(*thread, *word, memory);
    thread->waits = {thread->arguments[0], *word, is_among(all, owner) ? owner : 0};
}

pid_t owner_for(const std::vector<thread_view> &threads, pid_t id)
{
    auto found =
        std::find_if(threads.begin(), threads.end(), [id](const thread_view &thread) { return thread.id == id; });
    return found != threads.end() && found->waits ? found->waits->owner : 0;
}

} // namespace

std::vector<thread_view> read_threads(pid_t process, const memory_source &memory)
{
    std::vector<thread_view> threads;
    std::error_code error;
    std::filesystem::directory_iterator folder("/proc/" + std::to_string(process) + "/task", error);
    for (auto entry = begin(folder); !error && entry != end(folder); entry.increment(error)) {
        std::string id = entry->path().filename();
        thread_view thread;
        std::from_chars(id.data(), id.data() + id.size(), thread.id);
        std::string file = "task/" + id;
        thread.name = read_name(process, file + "/comm");
        thread.state = state_in(read_process_file(process, file + "/stat"));
        parse_system_call(read_process_file(process, file + "/syscall"), &thread);
        threads.push_back(std::move(thread));
    }
    std::sort(threads.begin(), threads.end(), [](const thread_view &a, const thread_view &b) { return a.id < b.id; });
    for (thread_view &thread : threads)
        read_wait(&thread, threads, memory);
    return threads;
}

std::vector<std::vector<pid_t>> find_deadlocks(const std::vector<thread_view> &threads)
{
    std::vector<std::vector<pid_t>> circles;
    for (const thread_view &first : threads) {
        std::vector<pid_t> circle = {first.id};
        pid_t next = owner_for(threads, first.id);
        while (next > first.id && circle.size() <= threads.size()) {
            circle.push_back(next);
            next = owner_for(threads, next);
        }
        if (next == first.id)
            circles.push_back(std::move(circle));
    }
    return circles;
}

std::string system_call_name(long number)
{
    for (const named_call &call : kCalls) {
        if (call.number == number)
            return call.name;
    }
    return "system call " + std::to_string(number);
}

} // namespace qvstat
