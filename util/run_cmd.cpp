// SPDX-License-Identifier: Apache-2.0
// Starting other programs: the split of command lines, the child's side of a fork, and the parent's.
#include "run_cmd.h"

#include "console_print.h"
#include "util/parse_line.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

namespace util {

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
        // Asked before it is known whether another word follows: 32 words with blanks behind them are refused as well.
        if (count == kMaxWords) {
            std::printf("** Too many args (max. %d) **\n", kMaxWords);
            return -1;
        }
    }
    argv[count] = nullptr;
    return count;
}

} // namespace util

namespace {

constexpr int kFirstExtraFd = STDERR_FILENO + 1;
constexpr int kShellFailedLine = 197;    // the number that log readers know run_shell()'s failure by
constexpr std::size_t kStackCopy = 4096; // longer command lines are copied to the heap

// Closes the descriptors that the folder lists, but for its own.
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

// The same in two system calls; false where the kernel lacks them.
bool close_around(int own)
{
    if (own > kFirstExtraFd && ::close_range(kFirstExtraFd, static_cast<unsigned>(own) - 1, 0) != 0)
        return false;
    unsigned above = static_cast<unsigned>(own < kFirstExtraFd ? kFirstExtraFd : own + 1);
    return ::close_range(above, UINT_MAX, 0) == 0;
}

[[noreturn]] void become(const char *path, char *const argv[], int dfl_sigint)
{
    if (dfl_sigint != 0)
        std::signal(SIGINT, SIG_DFL);
    close_extra_fds();
    ::execv(path, argv);
    console_print("execv %s error: %m\n", path);
    std::exit(-1);
}

// The child's id, or -1 after a report.
pid_t start(const char *path, char *const argv[], int dfl_sigint)
{
    pid_t child = ::fork();
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

// Calls run(words) on the words of a copy of the command line. What parse_line() says of too many words is a warning,
// no refusal: the program runs with those that fit.
template <typename Run>
int with_words(const char *cmdline, Run run)
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
    int result = run(words.data());
    std::free(long_copy);
    return result;
}

} // namespace

extern "C" {

int close_extra_fds(void)
{
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/fd", ::getpid());
    DIR *folder = ::opendir(path);
    if (folder == nullptr) {
        console_print("%s: opendir %s, error: %m\n", __func__, path);
        return -1;
    }
    // The folder's own descriptor goes last: closed on the way it would end the listing with descriptors still open.
    if (!close_around(::dirfd(folder)))
        close_listed(folder);
    ::closedir(folder);
    return 0;
}

int run_execv(const char *path, char *const argv[], int wait, int dfl_sigint)
{
    pid_t child = start(path, argv, dfl_sigint);
    if (child < 0)
        return -1;
    return wait != 0 ? wait_for(child) : 0;
}

int run_shellcmd(const char *path, const char *cmdline, int wait, int dfl_sigint)
{
    return with_words(cmdline, [&](char **words) { return run_execv(path, words, wait, dfl_sigint); });
}

int run_execv_ex(const char *path, char *const argv[], int dfl_sigint, pid_t *pid)
{
    pid_t child = start(path, argv, dfl_sigint);
    if (child < 0)
        return -1;
    *pid = child;
    return 0;
}

int run_shellcmd_ex(const char *path, const char *cmdline, int dfl_sigint, pid_t *pid)
{
    return with_words(cmdline, [&](char **words) { return run_execv_ex(path, words, dfl_sigint, pid); });
}

pid_t run_shellcmd_ex_wait(pid_t pid, int *status)
{
    return ::waitpid(pid, status, WNOHANG);
}

int run_shell(const char *cmd)
{
    pid_t child = ::fork();
    if (child < 0)
        return -1;
    if (child > 0)
        return wait_for(child);

    close_extra_fds();
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char *const argv[] = {shell, option, const_cast<char *>(cmd), nullptr};
    ::execv(shell, argv);
    // No exit here: callers know a child by this -1 and end it in their own way.
    std::printf("%d: execv failed, %s\n", kShellFailedLine, std::strerror(errno));
    return -1;
}
}
