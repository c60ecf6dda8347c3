// SPDX-License-Identifier: Apache-2.0
#include "sampler.h"

#include "leak.h"
#include "loop.h"
#include "sessions.h"

#include <console_print.h>
#include <sighandler.h>
#include <signal_printf.h>

#include <cstdio>

namespace sampled {
namespace {

stimer next_sample;
stimer crash;
unsigned clients;
unsigned long samples;
unsigned long last_sample;

} // namespace

// ---- its share of a crash log: plain numbers, so that the callback need not take a lock ----

static long add_state(unsigned int phase, unsigned long arg, void *)
{
    if (phase == QV_COREDUMP_LAST)
        signal_printf(static_cast<int>(arg), "sampled: %lu samples, %lu wakeups, %u sessions\n", samples,
                      loop_wakeups(), sessions_count());
    return 0;
}

QV_COREDUMP_CALLBACK(add_state);

// ---- the work ----

[[gnu::noinline]] void store_sample(unsigned long *slot)
{
    *slot = samples;
}

[[gnu::noinline]] void take_sample(unsigned long *slot)
{
    char client[32];
    std::snprintf(client, sizeof client, "client-%lu", samples % clients);
    samples++;
    store_sample(slot);
    leak_some();
    console_print("sampled: sample %lu of %s, session %d\n", samples, client, sessions_touch(client));
}

// The bug that --crash-after requests: a sample is stored at an unmapped address.
[[gnu::noinline]] void take_bad_sample(void *)
{
    unsigned long *volatile nowhere = reinterpret_cast<unsigned long *>(0x10);
    take_sample(nowhere);
    last_sample = 0; // never reached
}

static void take_next_sample(void *)
{
    take_sample(&last_sample);
    start_stimer(&next_sample);
}

void sampler_start(double period, unsigned number_of_clients)
{
    clients = number_of_clients;
    loop_after(next_sample, period, take_next_sample, nullptr);
}

void sampler_crash_after(double seconds)
{
    loop_after(crash, seconds, take_bad_sample, nullptr);
}

void sampler_finish()
{
    console_print("sampled: stopping after %lu samples\n", samples);
}

} // namespace sampled
