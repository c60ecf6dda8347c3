// SPDX-License-Identifier: Apache-2.0
// Starting other programs: splitting command lines, and the child's and the parent's side of a fork.
#include "run_cmd.h"

#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "console_print.h"
#include "log/console_output.h"
#include "log/debug_trace_file.h"
#include "mem/trace_file.h"
#include "util/parse_line.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <stdio_ext.h>
#include <sys/single_threaded.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace qv;

// All streams of the process, linked by FILE::_chain. The C library exports it for its own inline functions.
extern "C" std::FILE *_IO_list_all;

namespace qv::util {

int parse_line(char *line, char **argv)
{
    constexpr const char *kBlanks = " \t";
    int count = 0;
    for (;;) {
        line += std::strspn(line, kBlanks);
        if (*line == '\0')
            break;
        argv[count++] = line;
        line += std::strcspn(line, kBlanks);
        if (*line == '\0')
            break;
        *line++ = '\0';
        // Contract: tested before it is known whether another word follows, so 32 words followed by blanks fail too.
        if (count == kMaxWords) {
            std::printf("** Too many args (max. %d) **\n", kMaxWords);
            return -1;
        }
    }
    argv[count] = nullptr;
    return count;
}

} // namespace qv::util

namespace {

constexpr int kFirstExtraFd = STDERR_FILENO + 1;
constexpr int kShellFailedLine = 197;    // contract: log readers identify run_shell()'s failure by it
constexpr std::size_t kStackCopy = 4096; // longer command lines are copied to the heap

// Closes the descriptors that the folder lists, except its own.
void close_listed(DIR *folder)
{
    while (const dirent *entry = ::readdir(folder)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        long fd = std::strtol(entry->d_name, nullptr, 10);
        if (fd >= kFirstExtraFd && fd != ::dirfd(folder))
            ::close(static_cast<int>(fd));
    }
}

// The same with two system calls; false where the kernel lacks close_range().
bool close_around(int own)
{
    if (own > kFirstExtraFd && ::close_range(kFirstExtraFd, static_cast<unsigned>(own) - 1, 0) != 0)
        return false;
    unsigned above = static_cast<unsigned>(own < kFirstExtraFd ? kFirstExtraFd : own + 1);
    return ::close_range(above, UINT_MAX, 0) == 0;
}

// Closes all when the folder could not be opened because no descriptor was free. Preserves errno.
bool close_without_folder(int error)
{
    base::errno_guard keep;
    return (error == EMFILE || error == ENFILE) && ::close_range(kFirstExtraFd, UINT_MAX, 0) == 0;
}

// ---- forks ----

// Pending text in the caller's streams belongs to the caller alone. It is written before the fork, so that it precedes
// the program's output. With other threads the flush could block without limit on a stream that one of them reads.
void flush_streams()
{
    if (__libc_single_threaded)
        std::fflush(nullptr);
}

// In the child: drops the pending text of streams whose descriptor is `first` or above. exit() would write it a second
// time, or to a file that reuses the number of a closed descriptor.
void drop_pending(int first)
{
    for (std::FILE *stream = _IO_list_all; stream != nullptr; stream = stream->_chain) {
        if (::fileno_unlocked(stream) >= first)
            ::__fpurge(stream);
    }
}

pid_t fork_flushed()
{
    flush_streams();
    return ::fork();
}

void close_inherited()
{
    drop_pending(kFirstExtraFd);
    close_extra_fds();
}

[[noreturn]] void become(const char *path, char *const argv[], int dfl_sigint)
{
    if (dfl_sigint != 0)
        std::signal(SIGINT, SIG_DFL);
    close_inherited();
    ::execv(path, argv);
    console_print("execv %s error: %m\n", path);
    drop_pending(STDIN_FILENO);
    std::exit(-1); // contract: not _exit(), the caller's exit handlers run
}

// The child's id, or -1 after a report.
pid_t start(const char *path, char *const argv[], int dfl_sigint)
{
    pid_t child = fork_flushed();
    if (child == 0)
        become(path, argv, dfl_sigint);
    if (child < 0)
        console_print("fork %s error\n", path);
    return child;
}

int wait_for(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

// Starts a program with the words of a copy of the command line. A failure of parse_line() is only a warning: the
// program runs with the words that fit. The copy is freed before anyone waits for the child.
pid_t start_words(const char *path, const char *cmdline, int dfl_sigint)
{
    std::size_t size = std::strlen(cmdline) + 1;
    char short_copy[kStackCopy];
    char *long_copy = size > sizeof short_copy ? static_cast<char *>(std::malloc(size)) : nullptr;
    if (size > sizeof short_copy && long_copy == nullptr)
        return -1;
    char *copy = long_copy != nullptr ? long_copy : short_copy;
    std::memcpy(copy, cmdline, size);

    util::word_list words{};
    util::parse_line(copy, words.data());
    pid_t child = start(path, words.data(), dfl_sigint);
    std::free(long_copy);
    return child;
}

int result_of(pid_t child, int wait)
{
    if (child < 0)
        return -1;
    return wait != 0 ? wait_for(child) : 0;
}

int hand_out(pid_t child, pid_t *pid)
{
    if (child < 0)
        return -1;
    *pid = child;
    return 0;
}

} // namespace

extern "C" {

int close_extra_fds(void)
{
    base::cancel_guard whole;
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/fd", ::getpid());
    trace::close_file(kFirstExtraFd);
    trace_file::close_file(kFirstExtraFd);
    DIR *folder = ::opendir(path);
    if (folder == nullptr && !close_without_folder(errno)) {
        console_print("%s: opendir %s, error: %m\n", __func__, path);
        return -1;
    }
    if (folder != nullptr) {
        // The folder's own descriptor is closed last: without it the listing would end while descriptors are open.
        if (!close_around(::dirfd(folder)))
            close_listed(folder);
        ::closedir(folder);
    }
    console::forget_devices(kFirstExtraFd);
    return 0;
}

int run_execv(const char *path, char *const argv[], int wait, int dfl_sigint)
{
    return result_of(start(path, argv, dfl_sigint), wait);
}

int run_shellcmd(const char *path, const char *cmdline, int wait, int dfl_sigint)
{
    return result_of(start_words(path, cmdline, dfl_sigint), wait);
}

int run_execv_ex(const char *path, char *const argv[], int dfl_sigint, pid_t *pid)
{
    return hand_out(start(path, argv, dfl_sigint), pid);
}

int run_shellcmd_ex(const char *path, const char *cmdline, int dfl_sigint, pid_t *pid)
{
    return hand_out(start_words(path, cmdline, dfl_sigint), pid);
}

pid_t run_shellcmd_ex_wait(pid_t pid, int *status)
{
    return ::waitpid(pid, status, WNOHANG);
}

int run_shell(const char *cmd)
{
    pid_t child = fork_flushed();
    if (child != 0)
        return result_of(child, 1);

    close_inherited();
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char *const argv[] = {shell, option, const_cast<char *>(cmd), nullptr};
    ::execv(shell, argv);
    // Contract: no exit here. Callers recognise the child by this -1 and end it themselves.
    std::printf("%d: execv failed, %s\n", kShellFailedLine, std::strerror(errno));
    return -1;
}

} // extern "C"
