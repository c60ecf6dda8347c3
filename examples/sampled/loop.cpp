// SPDX-License-Identifier: Apache-2.0
#include "loop.h"

#include <console_print.h>
#include <qv_time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace sampled {
namespace {

constexpr std::size_t kMostWatched = 16;
constexpr unsigned kWheelLevels = 2;
constexpr int kWheelBits = 8; // 65,536 seconds

void *timers;
atimer_context wheel;
stimer second;
stimer end;
bool stopping;
unsigned long wakeups;

// watched[i] is the watcher of events[i].
std::array<pollfd, kMostWatched> events;
std::array<void (*)(int), kMostWatched> watched;
std::size_t watched_count;

void stop(void *)
{
    stopping = true;
}

void stop_asked(int fd)
{
    signalfd_siginfo signal;
    if (::read(fd, &signal, sizeof signal) == sizeof signal)
        stop(nullptr);
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

void turn_wheel(void *)
{
    process_atimer(&wheel);
    start_stimer(&second);
}

// Milliseconds to the next expiry, rounded up so that the timer is due when poll returns; -1 when there is none.
int wait_time()
{
    timeval next, now;
    if (stimer_get_next_expire(&timers, &next) != 0)
        return -1;
    qv_gettimeofday(&now);
    long micros = (next.tv_sec - now.tv_sec) * 1000000 + (next.tv_usec - now.tv_usec);
    return static_cast<int>(std::clamp((micros + 999) / 1000, 0L, 60000L));
}

} // namespace

bool loop_init()
{
    if (stimer_context_init(&timers) != 0 || atimer_init(&wheel, kWheelLevels, kWheelBits) != 0)
        return false;
    loop_after(second, 1.0, turn_wheel, nullptr);
    return loop_watch(stop_requests(), stop_asked);
}

bool loop_watch(int fd, void (*ready)(int fd))
{
    if (fd < 0 || watched_count == kMostWatched)
        return false;
    events[watched_count] = {fd, POLLIN, 0};
    watched[watched_count++] = ready;
    return true;
}

void loop_after(stimer &timer, double seconds, void (*callback)(void *arg), void *arg)
{
    auto whole = static_cast<int>(seconds);
    init_stimer(&timer, &timers, whole, callback, arg);
    timer.interval.tv_usec = static_cast<long>((seconds - whole) * 1e6);
    start_stimer(&timer);
}

atimer_context &loop_wheel()
{
    return wheel;
}

int loop_run()
{
    while (!stopping) {
        int ready = ::poll(events.data(), watched_count, wait_time());
        if (ready < 0 && errno != EINTR) { // EINTR: a dump request was answered meanwhile
            console_print("sampled: poll failed, %m\n");
            return 1;
        }
        wakeups++;
        for (std::size_t i = 0; ready > 0 && i < watched_count; i++)
            if (events[i].revents != 0)
                watched[i](events[i].fd);
        process_stimer(&timers);
    }
    return 0;
}

void loop_stop_after(double seconds)
{
    loop_after(end, seconds, stop, nullptr);
}

unsigned long loop_wakeups()
{
    return wakeups;
}

} // namespace sampled
