// SPDX-License-Identifier: Apache-2.0
// sampled - a small daemon on libcommon: it reports through the console, answers dump requests and leaves a crash log.
//
//     sampled [--period SECONDS] [--run-for SECONDS] [--crash-after SECONDS] [--name NAME]
//
// Times may have fractions. Try `kill -52 PID` while it runs, or --crash-after 2, and look into /etc/core.
#include <console_print.h>
#include <sighandler.h>
#include <signal_printf.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

// A namespace with a name, and a link that exports (-rdynamic): crash logs then name the daemon's own functions.
namespace sampled {

struct Options {
    double period = 1.0;
    double run_for = 0.0;     // 0: until a signal asks to stop
    double crash_after = 0.0; // 0: never
    const char *name = nullptr;
};

// What a crash log should tell of this daemon: plain numbers, so that the callback need not take a lock.
struct State {
    unsigned long samples = 0;
    unsigned long wakeups = 0;
} state;

// ---- its share of a crash log ----

static long add_state(unsigned int phase, unsigned long arg, void *)
{
    if (phase == QV_COREDUMP_LAST)
        signal_printf(static_cast<int>(arg), "sampled: %lu samples, %lu wakeups\n", state.samples, state.wakeups);
    return 0;
}

QV_COREDUMP_CALLBACK(add_state);

// ---- the work ----

[[gnu::noinline]] void store_sample(unsigned long *slot)
{
    *slot = state.samples;
}

[[gnu::noinline]] void take_sample(unsigned long *slot)
{
    state.samples++;
    store_sample(slot);
    console_print("sampled: sample %lu\n", state.samples);
}

// The bug that --crash-after asks for: a sample goes to where no memory is.
[[gnu::noinline]] void take_bad_sample()
{
    unsigned long *volatile nowhere = reinterpret_cast<unsigned long *>(0x10);
    take_sample(nowhere);
    state.wakeups = 0; // never reached
}

// ---- the event loop ----

enum Event { kSample, kStop, kCrash, kEnd, kEvents };

int timer(double first, double period)
{
    auto to_timespec = [](double seconds) {
        auto whole = static_cast<time_t>(seconds);
        return timespec{whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
    };
    int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec times = {to_timespec(period), to_timespec(first)};
    ::timerfd_settime(fd, 0, &times, nullptr); // a first time of 0 leaves it off
    return fd;
}

int stop_requests()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    return ::signalfd(-1, &signals, SFD_CLOEXEC);
}

void take_event(const pollfd &event)
{
    char taken[sizeof(signalfd_siginfo)]; // a timer hands out eight bytes
    if (::read(event.fd, taken, sizeof taken) < 0)
        console_print("sampled: read failed, %m\n");
}

int run(const Options &options)
{
    pollfd events[kEvents] = {};
    events[kSample].fd = timer(options.period, options.period);
    events[kStop].fd = stop_requests();
    events[kCrash].fd = timer(options.crash_after, 0);
    events[kEnd].fd = timer(options.run_for, 0);
    for (pollfd &event : events)
        event.events = POLLIN;

    unsigned long last_sample = 0;
    for (;;) {
        if (::poll(events, kEvents, -1) < 0) {
            if (errno == EINTR)
                continue; // a dump request was answered meanwhile
            console_print("sampled: poll failed, %m\n");
            return 1;
        }
        state.wakeups++;
        for (pollfd &event : events) {
            if (event.revents != 0)
                take_event(event);
        }
        if (events[kSample].revents != 0)
            take_sample(&last_sample);
        if (events[kCrash].revents != 0)
            take_bad_sample();
        if (events[kStop].revents != 0 || events[kEnd].revents != 0) {
            console_print("sampled: stopping after %lu samples\n", state.samples);
            return 0;
        }
    }
}

int usage()
{
    std::fprintf(stderr, "usage: sampled [--period S] [--run-for S] [--crash-after S] [--name NAME]\n");
    return 2;
}

} // namespace sampled

int main(int argc, char **argv)
{
    using namespace sampled;
    Options options;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc)
            return usage();
        const char *value = argv[i + 1];
        if (std::strcmp(argv[i], "--period") == 0)
            options.period = std::atof(value);
        else if (std::strcmp(argv[i], "--run-for") == 0)
            options.run_for = std::atof(value);
        else if (std::strcmp(argv[i], "--crash-after") == 0)
            options.crash_after = std::atof(value);
        else if (std::strcmp(argv[i], "--name") == 0)
            options.name = value;
        else
            return usage();
    }
    if (options.name != nullptr)
        ::prctl(PR_SET_NAME, options.name);

    install_sighandler();
    console_print("sampled: started, pid %d\n", ::getpid());
    return run(options);
}
