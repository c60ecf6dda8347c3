// SPDX-License-Identifier: Apache-2.0
// soak_living SECONDS SAMPLES [PERIOD] - keeps a system of processes alive for a time, disturbs it from outside, and
// writes a sample of it every PERIOD seconds (5), as a JSON object a line, to the file SAMPLES.
//
//     driver ── shared record ──┬── daemon "traced" ── children     threads that allocate, fork, log, trace, serve
//       │ samples, dump         ├── daemon "light" ── children      (daemon.cpp)
//       │ requests, checks      ├── VR client                       asks both daemons, in their virtual routers
//       │                       ├── setting writers                 each is killed while it writes
//       │                       ├── crash hosts
//       │                       └── qvstat
//
// The processes share a sandbox with a private network; the daemons and the client use vrkernel's tables. Each check
// that fails is a line of the file and of the output; the last line is the verdict, and the exit status follows it.
#include "shared.h"

#include "libcommon_version.h"
#include "qv_env.h"
#include "support/support.h"
#include "vrctl.h"
#include "vrsock.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace living {

using namespace std::chrono_literals;

constexpr auto kPatience = 60s; // after which something hangs, on a loaded machine too

std::uint64_t now_us()
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(steady::now().time_since_epoch()).count());
}

void Shared::fail(const std::string &text)
{
    unsigned n = failures++;
    if (n >= failure.size())
        return;
    std::snprintf(failure[n].text, sizeof failure[n].text, "%s", text.c_str());
    failure[n].complete = true;
}

bool reap(pid_t child, int *status)
{
    int fd = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
    pollfd wait = {fd, POLLIN, 0};
    auto end = steady::now() + kPatience;
    int ended = 0;
    while (ended <= 0 && steady::now() < end)
        ended = ::poll(&wait, 1, 1000);
    ::close(fd);
    if (ended <= 0)
        ::kill(child, SIGKILL);
    return ::waitpid(child, status, 0) == child && ended > 0;
}

// ---- settings ----

std::string setting_name(unsigned i)
{
    return "soak_" + std::to_string(i);
}

std::string setting_value(unsigned n)
{
    std::string value = std::to_string(n) + ":";
    return value + std::string(n % 40, static_cast<char>('a' + n % 26));
}

bool is_setting_value(const std::string &value)
{
    return value == setting_value(static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10)));
}

[[noreturn]] void write_settings(Shared *shared, unsigned first)
{
    for (unsigned n = first;; n++) {
        int result = timed(shared->timings[kSettingWriteTime],
                           [&] { return qv_setenv(setting_name(n % kSettings).c_str(), setting_value(n).c_str(), 1); });
        if (result != 0)
            shared->fail("a setting is not written");
        shared->count(kSettingWrites);
    }
}

// ---- the client of the services in the virtual routers ----

namespace {

// An answer within 20 seconds; a run that stops does not wait for it.
bool has_answer(const Shared *shared, int fd)
{
    pollfd wait = {fd, POLLIN, 0};
    for (int i = 0; i < 40; i++) {
        if (::poll(&wait, 1, 500) > 0)
            return true;
        if (shared->stop)
            break;
    }
    return false;
}

bool ask(const Shared *shared, int fd, unsigned vr, const std::string &text)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kVrPort);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (qv_sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to, vr) != 0)
        return false;
    if (!has_answer(shared, fd))
        return false;
    char answer[200];
    unsigned from_vr = 0;
    ssize_t n = qv_recvfrom(fd, answer, sizeof answer, 0, nullptr, nullptr, &from_vr);
    return n >= 0 && std::string(answer, static_cast<std::size_t>(n)) == text && from_vr == vr;
}

// VR 9 is the client's: no other process changes it.
bool use_tables(unsigned n)
{
    constexpr unsigned short kVr = 9;
    int changed = n % 2 == 0 ? qv_set_vr_shared(kVr) : qv_set_vr_unshared(kVr);
    const char *name = qv_vrid_2_name(kVr);
    unsigned vr = 0;
    return changed == 0 && qv_is_vr_shared(kVr) == (n % 2 == 0 ? 2 : 0) && name != nullptr &&
           std::string(name) == "clients" && qv_vrname_2_id(3, "clients") == kVr && qv_vrid_2_vsysid(kVr) == 3 &&
           qv_get_if_vr("eth0-1", &vr) == 0 && vr == 7;
}

} // namespace

int run_vr_client(Shared *shared)
{
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    ::bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any);
    for (unsigned n = 0; !shared->stop; n++) {
        for (int vr : kDaemonVrs) {
            std::string text = "request " + std::to_string(n);
            if (!timed(shared->timings[kVrTime], [&] { return ask(shared, fd, static_cast<unsigned>(vr), text); }) &&
                !shared->stop)
                shared->fail("no answer in VR " + std::to_string(vr) + " to " + text);
            shared->count(kVrRequests);
        }
        if (!use_tables(n))
            shared->fail("a table of the stand-in kernel is wrong");
        shared->count(kVrTables);
        std::this_thread::sleep_for(100ms);
    }
    return 0;
}

// ---- the driver ----

namespace {

// The signals that end a run early are blocked in all of its processes, which inherit the mask, so that a terminal's ^C
// does not end a daemon. The driver polls them.
void block_interrupts()
{
    sigset_t set;
    ::sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        ::sigaddset(&set, sig);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

bool is_interrupted()
{
    sigset_t set;
    ::sigpending(&set);
    return ::sigismember(&set, SIGINT) == 1 || ::sigismember(&set, SIGTERM) == 1 || ::sigismember(&set, SIGHUP) == 1;
}

void die_with_parent()
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
}

std::string quoted(const std::string &text)
{
    std::string result = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
    return result + "\"";
}

template <typename T>
std::string member(const std::string &name, T value)
{
    return quoted(name) + ": " + std::to_string(value);
}

// The number after a word in a text, 0 without it.
unsigned long number_after(const std::string &text, const std::string &word)
{
    std::size_t at = text.find(word);
    return at == std::string::npos ? 0 : std::strtoul(text.c_str() + at + word.size(), nullptr, 10);
}

// The value of the lowest bucket at or below which a share of the counts lies.
std::uint32_t percentile(const Series::Counts &counts, double share)
{
    std::uint64_t total = 0, below = 0;
    for (std::uint32_t count : counts)
        total += count;
    auto wanted = static_cast<std::uint64_t>(share * static_cast<double>(total));
    for (unsigned i = 0; i < counts.size(); i++) {
        below += counts[i];
        if (counts[i] != 0 && below > std::min(wanted, total - 1))
            return Series::value_of(i);
    }
    return 0;
}

class Driver {
public:
    Driver(Shared *shared, int shared_fd, int samples, double seconds, double period)
        : shared_(shared), shared_fd_(shared_fd), samples_(samples), seconds_(seconds), period_(period),
          start_(steady::now())
    {}

    int run();

private:
    struct Task {
        double period;
        void (Driver::*work)();
        steady::time_point due;
    };

    void describe_run();
    void start_processes();
    void loop();
    void stop_processes();
    int judge();

    void sample();
    void check_processes();
    void ask_for_dump();
    void kill_setting_writer();
    void inspect();
    void crash();
    void empty_logs();

    pid_t start(const std::vector<std::string> &arguments, bool on_stand_in_kernel);
    void start_daemon(unsigned i);
    void wait_for_service(unsigned i);
    void check_daemon(unsigned i);
    void check_settings();
    std::string daemon_sample(unsigned i);
    std::string timing_sample();
    bool run_qvstat(const std::vector<std::string> &arguments, std::string *out);
    void drain_failures();
    void put(const std::string &line);
    double elapsed() const { return std::chrono::duration<double>(steady::now() - start_).count(); }

    Shared *shared_;
    int shared_fd_, samples_;
    double seconds_, period_;
    steady::time_point start_;
    std::array<pid_t, kDaemons> daemons_{};
    pid_t client_ = -1;
    std::array<std::array<std::uint64_t, kWorkers>, kDaemons> last_beats_{};
    std::array<std::array<steady::time_point, kWorkers>, kDaemons> beaten_{};
    std::array<unsigned long, kDaemons> light_heap_{};
    std::array<Series::Counts, kTimings> last_counts_{};
    std::minstd_rand random_{1};
    unsigned reported_ = 0, writers_ = 0, dumps_ = 0, crashes_ = 0, inspections_ = 0;
};

void Driver::put(const std::string &line)
{
    std::string text = line + "\n";
    if (::write(samples_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        std::perror("soak_living: samples");
}

// ---- processes ----

std::string program()
{
    return support::build_dir() + "/tests/soak_living";
}

pid_t Driver::start(const std::vector<std::string> &arguments, bool on_stand_in_kernel)
{
    pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    die_with_parent();
    int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, 2);
    if (on_stand_in_kernel) {
        ::setenv("VRKERNEL_CONFIG", kVrConfiguration, 1);
        ::setenv("LD_PRELOAD", (support::build_dir() + "/libvrkernel.so").c_str(), 1);
    }
    std::vector<std::string> all = arguments;
    all.insert(all.begin() + 1, std::to_string(shared_fd_));
    all.insert(all.begin(), program());
    std::vector<char *> argv;
    for (std::string &argument : all)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

void Driver::start_daemon(unsigned i)
{
    daemons_[i] = start({"daemon", std::to_string(i)}, true);
    beaten_[i].fill(steady::now());
}

// Until the daemon's service is bound: a request before that is lost.
void Driver::wait_for_service(unsigned i)
{
    for (auto end = steady::now() + kPatience; shared_->daemons[i].beats[kVrServer] == 0 && steady::now() < end;)
        std::this_thread::sleep_for(10ms);
}

void Driver::start_processes()
{
    ::mkdir("/etc/core", 0755);
    ::mkdir("/tmp/dump", 0755);
    ::mkdir("/var/sysinfo/logs", 0755);
    support::write_file(kVrConfiguration, "vsys root id=0 default-vr=1\nvsys branch id=3 default-vr=7\n"
                                          "vr default id=1 vsys=0\nvr trust id=7 vsys=3\nvr guests id=8 vsys=3\n"
                                          "vr clients id=9 vsys=3\ninterface eth0-1 id=17 vsys=3 vr=7\n");
    for (unsigned i = 0; i < kDaemons; i++)
        start_daemon(i);
    for (unsigned i = 0; i < kDaemons; i++)
        wait_for_service(i);
    client_ = start({"client"}, true);
}

void Driver::check_daemon(unsigned i)
{
    int status = 0;
    if (::waitpid(daemons_[i], &status, WNOHANG) == daemons_[i]) {
        shared_->fail(std::string("the daemon \"") + kDaemonNames[i] + "\" ended with status " +
                      std::to_string(status));
        start_daemon(i);
        return;
    }
    for (unsigned worker = 0; worker < kWorkers; worker++) {
        std::uint64_t beats = shared_->daemons[i].beats[worker];
        if (beats != last_beats_[i][worker] || (worker == kTracer && i != kTracedDaemon)) {
            last_beats_[i][worker] = beats;
            beaten_[i][worker] = steady::now();
        } else if (steady::now() - beaten_[i][worker] > kPatience + 10s) {
            shared_->fail(std::string(kDaemonNames[i]) + ": the worker \"" + kWorkerNames[worker] + "\" hangs");
            beaten_[i][worker] = steady::now();
        }
    }
}

void Driver::check_processes()
{
    for (unsigned i = 0; i < kDaemons; i++)
        check_daemon(i);
    int status = 0;
    if (::waitpid(client_, &status, WNOHANG) == client_) {
        shared_->fail("the VR client ended with status " + std::to_string(status));
        client_ = start({"client"}, true);
    }
    drain_failures();
}

void Driver::stop_processes()
{
    shared_->stop = true;
    std::vector<pid_t> all(daemons_.begin(), daemons_.end());
    all.push_back(client_);
    for (pid_t pid : all) {
        int status = 0;
        if (!reap(pid, &status))
            shared_->fail("process " + std::to_string(pid) + " does not stop");
        else if (status != 0)
            shared_->fail("process " + std::to_string(pid) + " stopped with status " + std::to_string(status));
    }
}

// ---- dump requests ----

// A random thread of a process, or the process itself.
int signal_somewhere(pid_t pid, int sig, unsigned random)
{
    std::vector<std::string> threads = support::list_dir("/proc/" + std::to_string(pid) + "/task");
    if (threads.empty() || random % 3 == 0)
        return ::kill(pid, sig);
    return static_cast<int>(::syscall(SYS_tgkill, pid, std::atoi(threads[random % threads.size()].c_str()), sig));
}

std::string wait_for_log(const std::string &path)
{
    std::string log;
    for (auto end = steady::now() + kPatience; steady::now() < end;) {
        log = support::read_file(path);
        if (log.find(kEndOfLog) != std::string::npos)
            return log;
        std::this_thread::sleep_for(500us);
    }
    return log;
}

bool is_complete_log(const std::string &log, pid_t pid)
{
    return log.starts_with("PID " + std::to_string(pid) + " ") && log.find(kEndOfLog) != std::string::npos;
}

std::string end_of(const std::string &text)
{
    return text.empty() ? "empty" : "\"" + text.substr(text.size() - std::min<std::size_t>(text.size(), 300)) + "\"";
}

void Driver::ask_for_dump()
{
    constexpr std::array<int, 3> kRequests = {14, 51, 52};
    int sig = kRequests[dumps_ / kDaemons % kRequests.size()];
    unsigned i = dumps_++ % kDaemons;
    std::string path = std::string(sig == 51 ? "/tmp/dump" : "/etc/core") + "/soak_living" +
                       std::to_string(daemons_[i]) + ".attach." + std::to_string(sig) + ".log";
    ::unlink(path.c_str());
    std::string log = timed(shared_->timings[kDumpTime], [&] {
        signal_somewhere(daemons_[i], sig, static_cast<unsigned>(random_()));
        return wait_for_log(path);
    });
    if (!is_complete_log(log, daemons_[i]))
        shared_->fail(std::string(kDaemonNames[i]) + ": the dump of signal " + std::to_string(sig) + " ends in " +
                      end_of(log));
    ::unlink(path.c_str());
    shared_->count(kDumps);
}

// ---- settings ----

struct Lines {
    std::vector<std::string> whole;
    std::string rest; // text without a newline at its end
};

Lines lines_of(const std::string &text)
{
    std::size_t end = text.rfind('\n') + 1; // 0 without any newline
    return {support::lines(text.substr(0, end)), text.substr(end)};
}

// The first damage to the file, or an empty text. A killed writer may leave the file short, with a part of one record
// at the end, but never a record twice or another text.
std::string damage(const Lines &lines)
{
    std::array<unsigned, kSettings> seen{};
    for (const std::string &line : lines.whole) {
        std::size_t sign = line.find('=');
        unsigned i = static_cast<unsigned>(number_after(line, "soak_"));
        if (sign == std::string::npos || i >= kSettings || line.substr(0, sign) != setting_name(i) ||
            !is_setting_value(line.substr(sign + 1)) || seen[i]++ != 0)
            return line;
    }
    return !lines.rest.empty() && !std::string("soak_").starts_with(lines.rest.substr(0, 5)) ? lines.rest : "";
}

// The lock, as soon as no reader shares it. A killed writer's lock is gone.
bool lock_settings(int fd)
{
    for (auto end = steady::now() + kPatience; steady::now() < end;) {
        if (file_lock(fd, F_WRLCK, 0) == 0)
            return true;
        std::this_thread::sleep_for(200us);
    }
    return false;
}

// Through the descriptor that holds the lock: closing another one of the same file drops the lock.
std::string read_settings(int fd)
{
    std::string text(64 * 1024, '\0');
    ssize_t length = ::pread(fd, text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

// Checks the file after a kill, and removes the part of a record, so that the next one does not continue its line.
void Driver::check_settings()
{
    int fd = ::open(QV_ENV_FILE, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return; // the writer was killed before the first record
    if (!lock_settings(fd))
        shared_->fail("a killed writer has left its lock");
    std::string text = read_settings(fd);
    Lines lines = lines_of(text);
    std::string bad = damage(lines);
    if (!bad.empty())
        shared_->fail("the settings file has \"" + bad + "\"");
    if (lines.whole.size() < kSettings)
        shared_->count(kSettingCuts);
    if (!lines.rest.empty() && ::ftruncate(fd, static_cast<off_t>(text.size() - lines.rest.size())) != 0)
        shared_->fail("the settings file cannot be repaired");
    ::close(fd);
}

void Driver::kill_setting_writer()
{
    pid_t writer = ::fork();
    if (writer == 0) {
        die_with_parent();
        write_settings(shared_, writers_ * 1000);
    }
    writers_++;
    std::this_thread::sleep_for(std::chrono::microseconds(500 + random_() % 8000));
    ::kill(writer, SIGKILL);
    int status = 0;
    ::waitpid(writer, &status, 0);
    shared_->count(kSettingKills);
    check_settings();
}

// ---- inspection from outside ----

bool Driver::run_qvstat(const std::vector<std::string> &arguments, std::string *out)
{
    std::vector<std::string> argv = {support::build_dir() + "/qvstat"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    support::ChildResult result =
        timed(shared_->timings[kInspectionTime], [&] { return support::run_program(argv, 60000); });
    shared_->count(kInspections);
    *out = result.out;
    return result.exited(0);
}

void Driver::inspect()
{
    inspections_++;
    for (unsigned i = 0; i < kDaemons; i++) {
        std::string pid = std::to_string(daemons_[i]), out;
        if (!run_qvstat({pid, "--json"}, &out))
            shared_->fail("qvstat " + pid + " fails: " + out);
        if (i != kTracedDaemon)
            light_heap_[i] = number_after(out.substr(std::min(out.find("\"heap\""), out.size())), "\"bytes\":");
        if (inspections_ % 6 == 0 && !run_qvstat({pid, "--threads"}, &out))
            shared_->fail("qvstat " + pid + " --threads fails: " + out);
    }
    std::string out;
    if (inspections_ % 6 == 3)
        run_qvstat({std::to_string(daemons_[kTracedDaemon]), "leaks"}, &out); // fails when no trace is on
}

// ---- crashes ----

void Driver::crash()
{
    unsigned seed = crashes_++;
    pid_t host = start({"crash", std::to_string(seed)}, false);
    int status = 0;
    bool ended = reap(host, &status);
    shared_->timings[kCrashTime].add(now_us() - shared_->crash_started);
    shared_->count(kCrashes);
    int expected = seed % 2 == 0 ? SIGABRT : SIGSEGV;
    std::string path =
        "/etc/core/soak_living" + std::to_string(host) + ".coredump." + std::to_string(expected) + ".log";
    std::string log = support::read_file(path);
    if (!ended || !WIFSIGNALED(status) || WTERMSIG(status) != expected)
        shared_->fail("a crash host " + std::string(ended ? "ended with status " + std::to_string(status) : "hung"));
    else if (!is_complete_log(log, host))
        shared_->fail("the log of a crash ends in " + end_of(log));
    ::unlink(path.c_str());
}

// Rounds of the other soak run (soak.cpp), one every period, in a sandbox apart from this one.
void run_crash_rounds(Shared *shared, std::chrono::seconds period)
{
    unsigned seed = 0;
    auto due = steady::now() + period;
    while (!shared->stop) {
        std::this_thread::sleep_for(200ms);
        if (steady::now() < due)
            continue;
        due += period;
        support::ChildResult result =
            support::run_program({support::build_dir() + "/tests/soak", "0", "1", std::to_string(seed)}, 120000);
        if (!result.exited(0))
            shared->fail("crash round of seed " + std::to_string(seed) + ": " + result.out);
        shared->count(kCrashRounds);
        seed++;
    }
}

// ---- samples ----

// The console and the common log grow as on any machine; something else empties them there too.
void Driver::empty_logs()
{
    for (const char *path : {support::kConsole, support::kSerial, "/etc/consolelog"})
        ::truncate(path, 0);
}

unsigned count_lines(const std::string &text)
{
    return static_cast<unsigned>(std::count(text.begin(), text.end(), '\n'));
}

// CPU time of a process and its reaped children, in seconds.
double cpu_of(pid_t pid)
{
    std::string stat = support::read_file("/proc/" + std::to_string(pid) + "/stat");
    unsigned long times[4] = {};
    std::size_t name_end = stat.rfind(')');
    if (name_end == std::string::npos ||
        std::sscanf(stat.c_str() + name_end + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %lu %lu",
                    &times[0], &times[1], &times[2], &times[3]) != 4)
        return 0;
    return static_cast<double>(times[0] + times[1] + times[2] + times[3]) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::string Driver::daemon_sample(unsigned i)
{
    std::string proc = "/proc/" + std::to_string(daemons_[i]);
    std::string status = support::read_file(proc + "/status");
    std::string rollup = support::read_file(proc + "/smaps_rollup");
    return quoted(kDaemonNames[i]) + ": {" + member("rss", number_after(status, "VmRSS:") * 1024) + ", " +
           member("private_dirty", number_after(rollup, "Private_Dirty:") * 1024) + ", " +
           member("mappings", count_lines(support::read_file(proc + "/maps"))) + ", " +
           member("heap", shared_->daemons[i].heap.load()) + ", " + member("light_heap", light_heap_[i]) + ", " +
           member("descriptors", support::list_dir(proc + "/fd").size()) + ", " +
           member("threads", number_after(status, "Threads:")) + "}";
}

std::string Driver::timing_sample()
{
    std::string text;
    for (unsigned i = 0; i < kTimings; i++) {
        Series::Counts counts = shared_->timings[i].counts(), difference = counts;
        std::uint32_t n = 0;
        for (unsigned bucket = 0; bucket < Series::kBuckets; bucket++) {
            difference[bucket] -= last_counts_[i][bucket];
            n += difference[bucket];
        }
        last_counts_[i] = counts;
        std::uint32_t most = shared_->timings[i].take_most();
        text += std::string(text.empty() ? "" : ", ") + quoted(kTimingNames[i]) + ": {" + member("n", n);
        if (n != 0)
            text += ", " + member("p50", percentile(difference, 0.5)) + ", " +
                    member("p99", percentile(difference, 0.99)) + ", " + member("max", most) + ", " +
                    member("all_p50", percentile(counts, 0.5)) + ", " + member("all_p99", percentile(counts, 0.99)) +
                    ", " + member("all_p999", percentile(counts, 0.999));
        text += "}";
    }
    return text;
}

std::size_t files_in_sandbox()
{
    std::size_t n = 0;
    for (const char *folder : {"/etc", "/etc/core", "/tmp", "/tmp/dump", "/flash", "/var/sysinfo/logs", "/dev/shm"})
        n += support::list_dir(folder).size();
    return n;
}

void Driver::sample()
{
    double load = 0, cpu = cpu_of(::getpid()) + cpu_of(client_);
    std::sscanf(support::read_file("/proc/loadavg").c_str(), "%lf", &load);
    std::string daemons, activities;
    for (unsigned i = 0; i < kDaemons; i++) {
        daemons += ", " + daemon_sample(i);
        cpu += cpu_of(daemons_[i]);
    }
    for (unsigned i = 0; i < kActivities; i++)
        activities += (i == 0 ? "" : ", ") + member(kActivityNames[i], shared_->activities[i].load());
    put("{\"kind\": \"sample\", " + member("seconds", elapsed()) + ", " + member("load", load) + ", " +
        member("cpu_seconds", cpu) + ", " + member("failures", shared_->failures.load()) + ", " +
        member("files", files_in_sandbox()) + daemons + ", \"counts\": {" + activities + "}, \"latencies\": {" +
        timing_sample() + "}}");
}

void Driver::drain_failures()
{
    while (reported_ < shared_->failure.size() && shared_->failure[reported_].complete) {
        const char *text = shared_->failure[reported_++].text;
        std::printf("soak_living: after %.0f seconds: %s\n", elapsed(), text);
        std::fflush(stdout);
        put("{\"kind\": \"failure\", " + member("seconds", elapsed()) + ", \"text\": " + quoted(text) + "}");
    }
}

// ---- the run ----

std::string first_line_after(const std::string &path, const std::string &word)
{
    for (const std::string &line : support::lines(support::read_file(path))) {
        std::size_t colon = line.find(": ");
        if (line.starts_with(word) && colon != std::string::npos)
            return line.substr(colon + 2);
    }
    return "";
}

void Driver::describe_run()
{
    utsname machine;
    ::uname(&machine);
    put("{\"kind\": \"start\", " + member("time", std::time(nullptr)) +
        ", \"kernel\": " + quoted(std::string(machine.sysname) + " " + machine.release) +
        ", \"machine\": " + quoted(machine.machine) + ", \"version\": " + quoted(libcommon_version()) +
        ", \"processor\": " + quoted(first_line_after("/proc/cpuinfo", "model name")) + ", " +
        member("processors", ::sysconf(_SC_NPROCESSORS_ONLN)) + ", " +
        member("memory", number_after(support::read_file("/proc/meminfo"), "MemTotal:") * 1024) + ", " +
        member("planned", seconds_) + ", " + member("period", period_) + "}");
}

void Driver::loop()
{
    std::vector<Task> tasks = {
        {period_, &Driver::sample, {}},          {2, &Driver::check_processes, {}}, {3, &Driver::ask_for_dump, {}},
        {0.9, &Driver::kill_setting_writer, {}}, {10, &Driver::inspect, {}},        {30, &Driver::crash, {}},
        {60, &Driver::empty_logs, {}},
    };
    for (Task &task : tasks)
        task.due = steady::now() + std::chrono::milliseconds(static_cast<int>(std::min(task.period, 2.0) * 1000));
    const auto end = steady::now() + std::chrono::microseconds(static_cast<std::int64_t>(seconds_ * 1e6));
    while (steady::now() < end && !is_interrupted()) {
        for (Task &task : tasks) {
            if (steady::now() < task.due)
                continue;
            (this->*task.work)();
            task.due = steady::now() + std::chrono::milliseconds(static_cast<int>(task.period * 1000));
        }
        std::this_thread::sleep_for(50ms);
    }
}

int Driver::judge()
{
    for (Activity needed :
         {kAllocations, kTimersFired, kForks, kLogLines, kDumps, kSettingKills, kVrRequests, kInspections}) {
        if (shared_->activities[needed] == 0)
            shared_->fail(std::string("nothing is done: ") + kActivityNames[needed]);
    }
    drain_failures();
    unsigned failures = shared_->failures;
    put("{\"kind\": \"end\", " + member("seconds", elapsed()) + ", " + member("failures", failures) + "}");
    std::printf("soak_living: %.0f seconds, %llu allocations, %llu forks, %llu dumps, %llu kills, %u failures\n",
                elapsed(), static_cast<unsigned long long>(shared_->activities[kAllocations]),
                static_cast<unsigned long long>(shared_->activities[kForks]),
                static_cast<unsigned long long>(shared_->activities[kDumps]),
                static_cast<unsigned long long>(shared_->activities[kSettingKills]), failures);
    return failures == 0 ? 0 : 1;
}

int Driver::run()
{
    describe_run();
    start_processes();
    loop();
    sample();
    stop_processes();
    return judge();
}

// ---- start ----

Shared *map_shared(int fd)
{
    void *map = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        std::perror("soak_living: the shared record");
        std::exit(125);
    }
    return static_cast<Shared *>(map);
}

// A process of the run: soak_living WHAT DESCRIPTOR [NUMBER].
int run_process(const std::string &what, int fd, unsigned number)
{
    Shared *shared = map_shared(fd);
    ::close(fd);
    if (what == "daemon")
        return run_daemon(shared, number);
    if (what == "client")
        return run_vr_client(shared);
    return run_crash_host(shared, number);
}

int run(double seconds, const char *samples_path, double period)
{
    int samples = ::open(samples_path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    int fd = ::memfd_create("soak", 0);
    if (samples < 0 || fd < 0 || ::ftruncate(fd, sizeof(Shared)) != 0) {
        std::perror("soak_living");
        return 125;
    }
    Shared *shared = map_shared(fd);
    block_interrupts();
    pid_t rounds = ::fork();
    if (rounds == 0) {
        die_with_parent();
        run_crash_rounds(shared, 120s);
        ::_exit(0);
    }
    support::enter_sandbox();
    if (!support::enter_own_network())
        std::perror("soak_living: a network");
    int result = Driver(shared, fd, samples, seconds, period).run();
    int status = 0;
    ::waitpid(rounds, &status, 0);
    return result;
}

} // namespace
} // namespace living

int main(int argc, char **argv)
{
    if (argc >= 3 && std::isalpha(static_cast<unsigned char>(argv[1][0])) != 0)
        return living::run_process(argv[1], std::atoi(argv[2]),
                                   argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 0);
    if (argc < 3) {
        std::fprintf(stderr, "usage: soak_living SECONDS SAMPLES [PERIOD]\n");
        return 2;
    }
    return living::run(std::strtod(argv[1], nullptr), argv[2], argc > 3 ? std::strtod(argv[3], nullptr) : 5);
}
