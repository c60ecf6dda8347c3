// SPDX-License-Identifier: Apache-2.0
// loop.h - the daemon's one thread: it sleeps until a descriptor is readable or the earliest timer expires.
//
// Sorted timers (stimer.h) wake the loop. One of them, each second, turns a wheel of cheap coarse timers (atimer.h) for
// timers that come in thousands.
#ifndef SAMPLED_LOOP_H
#define SAMPLED_LOOP_H

#include <atimer.h>
#include <stimer.h>

// A namespace with a name, and a link that exports (-rdynamic): crash logs then name the daemon's own functions.
namespace sampled {

bool loop_init();

// Calls ready(fd) whenever the descriptor is readable.
bool loop_watch(int fd, void (*ready)(int fd));

// Starts a timer in the caller's storage; its callback may start it again.
void loop_after(stimer &timer, double seconds, void (*callback)(void *arg), void *arg);

atimer_context &loop_wheel();

// Runs until SIGINT, SIGTERM or loop_stop_after(). Returns the daemon's exit code.
int loop_run();
void loop_stop_after(double seconds);

unsigned long loop_wakeups();

} // namespace sampled

#endif
