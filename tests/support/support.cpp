// SPDX-License-Identifier: Apache-2.0
#include "support/support.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {
namespace {

using clock = std::chrono::steady_clock;

int memory_file()
{
    int fd = ::memfd_create("capture", MFD_CLOEXEC);
    EXPECT_GE(fd, 0);
    return fd;
}

std::string drain(int fd)
{
    std::string text;
    char chunk[4096];
    ::lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;)
        text.append(chunk, static_cast<std::size_t>(n));
    ::close(fd);
    return text;
}

std::string capture(int target, const std::function<void()> &body)
{
    std::fflush(nullptr);
    int file = memory_file();
    int saved = ::dup(target);
    ::dup2(file, target);
    body();
    std::fflush(nullptr);
    if (saved >= 0) {
        ::dup2(saved, target);
        ::close(saved);
    } else {
        ::close(target);
    }
    return drain(file);
}

// Polls in short steps: the children are quick, and not every emulator supports a pidfd. A limit is there to end what
// hangs: under emulation on a busy machine everything may take several times as long.
void await(ChildResult &result, int timeout_ms)
{
    auto end = clock::now() + std::chrono::milliseconds(timeout_ms) * (under_emulation() ? 4 : 1);
    useconds_t pause = 200;
    for (;;) {
        pid_t done = ::waitpid(result.pid, &result.status, WNOHANG);
        if (done == result.pid)
            return;
        if (done < 0 && errno != EINTR) {
            ADD_FAILURE() << "waitpid failed, errno " << errno;
            return;
        }
        if (clock::now() > end) {
            result.timed_out = true;
            ::kill(result.pid, SIGKILL);
            ::waitpid(result.pid, &result.status, 0);
            return;
        }
        ::usleep(pause);
        pause = std::min<useconds_t>(pause * 2, 5000);
    }
}

} // namespace

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    ASSERT_TRUE(out.good()) << path;
}

bool exists(const std::string &path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

std::vector<std::string> list_dir(const std::string &path)
{
    std::vector<std::string> names;
    if (DIR *dir = ::opendir(path.c_str())) {
        while (const dirent *entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> lines(const std::string &text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

void bind_over(const std::string &path, const std::string &content)
{
    static int count = 0;
    ::mkdir("/tmp/.bound", 0755);
    std::string file = "/tmp/.bound/" + std::to_string(::getpid()) + "." + std::to_string(count++);
    write_file(file, content);
    ASSERT_EQ(0, ::mount(file.c_str(), path.c_str(), nullptr, MS_BIND, nullptr)) << path << " errno " << errno;
}

void mount_tmpfs(const std::string &path, std::size_t size)
{
    ::mkdir(path.c_str(), 0755);
    std::string options = "mode=1777" + (size != 0 ? ",size=" + std::to_string(size) : std::string());
    ASSERT_EQ(0, ::mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str())) << path << " errno " << errno;
}

void remount(const std::string &path, bool read_only)
{
    unsigned long flags = MS_REMOUNT | MS_BIND | (read_only ? static_cast<unsigned long>(MS_RDONLY) : 0UL);
    ASSERT_EQ(0, ::mount(nullptr, path.c_str(), nullptr, flags, nullptr)) << path << " errno " << errno;
}

bool ChildResult::exited(int code) const
{
    return !timed_out && WIFEXITED(status) && WEXITSTATUS(status) == code;
}

bool ChildResult::killed_by(int signal) const
{
    return !timed_out && WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

ChildResult run_child(const std::function<void()> &body, int timeout_ms)
{
    int out = memory_file();
    int err = memory_file();
    std::fflush(nullptr);
    ChildResult result;
    result.pid = ::fork();
    if (result.pid == 0) {
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        body();
        std::fflush(nullptr);
        ::_exit(::testing::Test::HasFailure() ? 99 : 0);
    }
    EXPECT_GT(result.pid, 0);
    await(result, timeout_ms);
    result.out = drain(out);
    result.err = drain(err);
    return result;
}

ChildResult run_program(const std::vector<std::string> &argv, int timeout_ms)
{
    return run_child(
        [&] {
            std::vector<char *> args;
            for (const std::string &word : argv)
                args.push_back(const_cast<char *>(word.c_str()));
            args.push_back(nullptr);
            ::execvp(args[0], args.data());
            std::perror(args[0]);
            ::_exit(127);
        },
        timeout_ms);
}

std::string capture_stdout(const std::function<void()> &body)
{
    return capture(STDOUT_FILENO, body);
}

std::string capture_stderr(const std::function<void()> &body)
{
    return capture(STDERR_FILENO, body);
}

bool under_sanitizer()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
    return __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
    return false;
#endif
}

bool under_emulation()
{
    return std::getenv("LIBCOMMON_VM") != nullptr;
}

std::size_t effort(std::size_t n)
{
    std::size_t divisor = under_emulation() ? 50 : under_sanitizer() ? 10 : 1;
    return std::max<std::size_t>(n / divisor, 1);
}

std::string build_dir()
{
    static const std::string dir = [] {
        char path[4096] = {};
        ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
        std::string exe(path, n > 0 ? static_cast<std::size_t>(n) : 0);
        exe.erase(exe.rfind('/'));
        return exe.substr(0, exe.rfind('/'));
    }();
    return dir;
}

} // namespace support
