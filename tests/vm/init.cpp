// SPDX-License-Identifier: Apache-2.0
// The first process of the emulated AArch64 machine: sets up the system, runs every test case in a separate process
// (or one script), and powers off. What it prints on the console is for people and for tools/vm:
//
//     VM: START <case>
//     VM: PASS|FAIL|SKIP|TIMEOUT <case> <milliseconds>
//     VM: passed <n> failed <n> skipped <n>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <net/if.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;

constexpr const char *kHome = "/opt/libcommon";
constexpr const char *kReady = "/run/libcommon-ready"; // a case writes its pid here when process 1 may send it SIGTERM
constexpr std::size_t kWorkers = 2;
constexpr std::chrono::seconds kCaseLimit{300};

struct Case {
    std::string program;
    std::string name;
};

struct Running {
    Case test;
    std::string output;
    steady::time_point since;
    long pid = -1;
    bool late = false;
};

struct Totals {
    int passed = 0;
    int failed = 0;
    int skipped = 0;
};

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void check(int result, const char *what)
{
    if (result < 0)
        std::printf("VM: %s: %s\n", what, std::strerror(errno));
}

void bring_loopback_up()
{
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    check(::ioctl(fd, SIOCSIFFLAGS, &request), "loopback");
    ::close(fd);
}

void set_up()
{
    check(::mount("proc", "/proc", "proc", 0, nullptr), "/proc");
    check(::mount("sysfs", "/sys", "sysfs", 0, nullptr), "/sys");
    check(::mount("devtmpfs", "/dev", "devtmpfs", 0, nullptr), "/dev");
    // The sandbox moves mounts, which the initial root does not support: a tmpfs replaces it where that
    // matters.
    for (const char *folder : {"/tmp", "/run", "/etc", "/mnt", "/var"})
        check(::mount("tmpfs", folder, "tmpfs", 0, "mode=1777"), folder);
    int console = ::open("/dev/console", O_RDWR);
    for (int fd = 0; fd < 3; fd++)
        ::dup2(console, fd);
    if (console > 2)
        ::close(console);
    ::setenv("PATH", "/bin:/sbin:/usr/bin:/usr/sbin", 1);
    ::setenv("HOME", "/", 1);
    ::setenv("LIBCOMMON_VM", "1", 1);
    if (read_file("/proc/cmdline").find("libcommon.epoch") != std::string::npos)
        ::setenv("LIBCOMMON_VM_EPOCH", "1", 1);
    bring_loopback_up();
    for (const char *folder : {"/sbin", "/usr", "/usr/bin", "/usr/sbin"})
        ::mkdir(folder, 0755);
    if (::fork() == 0) {
        ::execl("/bin/busybox", "busybox", "--install", "-s", static_cast<char *>(nullptr));
        ::_exit(127);
    }
    while (::wait(nullptr) < 0 && errno == EINTR)
        ;
}

std::string filter()
{
    const std::string key = "libcommon.filter=";
    std::string line = read_file("/proc/cmdline");
    std::size_t at = line.find(key);
    return at == std::string::npos ? "*"
                                   : line.substr(at + key.size(), line.find_first_of(" \n", at) - at - key.size());
}

// Starts argv with its output in a file; process 1 is its parent.
pid_t start(const std::vector<std::string> &argv, const std::string &output)
{
    pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    ::setsid();
    int file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666);
    ::dup2(file, 1);
    ::dup2(file, 2);
    ::close(file);
    ::dup2(::open("/dev/null", O_RDONLY), 0);
    std::vector<char *> words;
    for (const std::string &word : argv)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    ::execv(words[0], words.data());
    std::perror(words[0]);
    ::_exit(127);
}

std::vector<std::string> list_programs()
{
    std::vector<std::string> programs;
    std::string folder = std::string(kHome) + "/tests";
    if (DIR *dir = ::opendir(folder.c_str())) {
        while (const dirent *entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name.size() > 5 && name.compare(name.size() - 5, 5, "_test") == 0)
                programs.push_back(folder + "/" + name);
        }
        ::closedir(dir);
    }
    std::sort(programs.begin(), programs.end());
    return programs;
}

std::deque<Case> list_cases(const std::string &program, Totals &totals)
{
    const std::string output = "/tmp/list";
    int status = 0;
    pid_t pid = start({program, "--gtest_list_tests", "--gtest_filter=" + filter()}, output);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR)
        ;
    std::deque<Case> cases;
    if (status != 0) {
        std::printf("VM: FAIL %s 0\n%s\n(status 0x%x)\n", program.c_str(), read_file(output).c_str(),
                    static_cast<unsigned>(status));
        totals.failed++;
    }
    std::istringstream lines(read_file(output));
    std::string suite;
    for (std::string line; std::getline(lines, line);) {
        line = line.substr(0, line.find("  #"));
        if (line.rfind("  ", 0) == 0)
            cases.push_back({program, suite + line.substr(2)});
        else if (!line.empty() && line.back() == '.')
            suite = line;
    }
    return cases;
}

// The cases of all programs. A program is listed when the cases before it have begun, so the other worker goes on
// meanwhile.
class Cases {
public:
    bool take(Case *next, Totals &totals)
    {
        while (cases_.empty()) {
            if (program_ == programs_.size())
                return false;
            cases_ = list_cases(programs_[program_++], totals);
        }
        *next = cases_.front();
        cases_.pop_front();
        return true;
    }

private:
    std::vector<std::string> programs_ = list_programs();
    std::size_t program_ = 0;
    std::deque<Case> cases_;
};

// A program that forks a process for each case: the emulator takes longer to start a program than to run most cases.
class Server {
public:
    explicit Server(const std::string &program) : program_(program)
    {
        int requests[2], answers[2];
        check(::pipe2(requests, O_CLOEXEC), "pipe");
        check(::pipe2(answers, O_CLOEXEC), "pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(requests[0], 0);
            ::dup2(answers[1], 1);
            ::execl(program.c_str(), program.c_str(), "--serve-cases", static_cast<char *>(nullptr));
            ::_exit(127);
        }
        ::close(requests[0]);
        ::close(answers[1]);
        requests_ = requests[1];
        answers_ = answers[0];
    }

    ~Server()
    {
        ::close(requests_);
        ::close(answers_);
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR)
            ;
    }

    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    const std::string &program() const { return program_; }

    // Starts a case. @return its process, or -1
    long run(const std::string &name, const std::string &output)
    {
        std::string request = name + " " + output + "\n";
        if (::write(requests_, request.data(), request.size()) < 0)
            return -1;
        return answer();
    }

    // Whether the case has ended.
    bool has_answer() const
    {
        pollfd waited = {answers_, POLLIN, 0};
        return ::poll(&waited, 1, 0) > 0;
    }

    // The next number, or -1 when the program has ended.
    long answer() const
    {
        std::string text;
        for (char c; ::read(answers_, &c, 1) == 1 && c != '\n';)
            text += c;
        return text.empty() ? -1 : std::stol(text);
    }

private:
    std::string program_;
    pid_t pid_ = -1;
    int requests_ = -1;
    int answers_ = -1;
};

// One case at a time, by the server of its program.
struct Worker {
    std::unique_ptr<Server> server;
    bool is_busy = false;
    Running run;
};

void report(const Running &run, int status, Totals &totals)
{
    auto taken = std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - run.since).count();
    std::string output = read_file(run.output);
    bool good = status == 0 && !run.late;
    bool skipped = good && output.find("[  SKIPPED ]") != std::string::npos;
    const char *verdict = run.late ? "TIMEOUT" : !good ? "FAIL" : skipped ? "SKIP" : "PASS";
    std::printf("VM: %s %s %lld\n", verdict, run.test.name.c_str(), static_cast<long long>(taken));
    if (!good)
        std::printf("%s\n(status 0x%x)\n", output.c_str(), static_cast<unsigned>(status));
    if (skipped) {
        std::size_t at = output.find("Skipped\n");
        std::printf("    %s\n", output.substr(at + 8, output.find('\n', at + 8) - at - 8).c_str());
    }
    (skipped ? totals.skipped : good ? totals.passed : totals.failed)++;
}

void serve_ready_file()
{
    std::string pid = read_file(kReady);
    if (pid.empty())
        return;
    ::unlink(kReady);
    ::kill(static_cast<pid_t>(std::atol(pid.c_str())), SIGTERM);
}

void begin(Worker &worker, const Case &test, const std::string &output)
{
    // Flushed at once: when the kernel hangs, this line is the only hint at the case.
    std::printf("VM: START %s\n", test.name.c_str());
    std::fflush(stdout);
    if (worker.server == nullptr || worker.server->program() != test.program)
        worker.server = std::make_unique<Server>(test.program);
    worker.run = {test, output, steady::now(), worker.server->run(test.name, output)};
    worker.is_busy = true;
}

void end(Worker &worker, long status, Totals &totals)
{
    report(worker.run, static_cast<int>(status), totals);
    if (worker.run.pid > 0)
        ::kill(static_cast<pid_t>(-worker.run.pid), SIGKILL);
    if (status < 0)
        worker.server.reset();
    ::unlink(worker.run.output.c_str());
    worker.is_busy = false;
}

void kill_late(Running &run)
{
    if (run.late || run.pid <= 0 || steady::now() - run.since <= kCaseLimit)
        return;
    run.late = true;
    ::kill(static_cast<pid_t>(-run.pid), SIGKILL);
}

// Processes that the cases leave behind: process 1 inherits them.
void reap_orphans()
{
    while (::waitpid(-1, nullptr, WNOHANG) > 0)
        ;
}

Totals run_cases()
{
    Totals totals;
    Cases cases;
    std::array<Worker, kWorkers> workers;
    std::size_t begun = 0;
    for (bool is_busy = true; is_busy;) {
        is_busy = false;
        for (Worker &worker : workers) {
            if (worker.is_busy && worker.server->has_answer())
                end(worker, worker.server->answer(), totals);
            Case next;
            if (!worker.is_busy && cases.take(&next, totals))
                begin(worker, next, "/tmp/case." + std::to_string(begun++));
            if (worker.is_busy)
                kill_late(worker.run);
            is_busy = is_busy || worker.is_busy;
        }
        reap_orphans();
        serve_ready_file();
        ::usleep(2000);
    }
    return totals;
}

Totals run_script()
{
    Totals totals;
    int status = 0;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::setsid();
        ::execl("/opt/libcommon/tests/sandbox_run", "sandbox_run", "/bin/sh", "/opt/libcommon/script",
                static_cast<char *>(nullptr));
        ::_exit(127);
    }
    for (pid_t ended; (ended = ::wait(&status)) != pid;) {
        if (ended < 0 && errno != EINTR)
            break;
    }
    (status == 0 ? totals.passed : totals.failed)++;
    return totals;
}

} // namespace

int main()
{
    set_up();
    bool script = ::access("/opt/libcommon/script", F_OK) == 0;
    Totals totals = script ? run_script() : run_cases();
    std::printf("VM: passed %d failed %d skipped %d\n", totals.passed, totals.failed, totals.skipped);
    std::fflush(stdout);
    ::sync();
    ::usleep(200000); // so that the serial line drains
    ::reboot(RB_POWER_OFF);
}
