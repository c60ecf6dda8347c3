// SPDX-License-Identifier: Apache-2.0
// sampled - a small daemon on libcommon: it takes samples of its clients, keeps a session for each, reports through the
// console, answers dump requests and leaves a crash log.
//
//     sampled [--period SECONDS] [--clients N] [--run-for SECONDS] [--crash-after SECONDS] [--name NAME]
//             [--leak BYTES] [--port N] [--vr ID]... [--ifname NAME]...
//
// In each virtual router that is given, by its id or by an interface in it, it answers echo requests (UDP port 7007).
// That needs the appliance's kernel or the stand-in for it. With --leak it leaks some memory at each sample and
// reports on SIGUSR1 where that was allocated. Times may have fractions. Try `kill -52 PID` while it runs, or
// --crash-after 2, and look into /etc/core.
#include "echo.h"
#include "leak.h"
#include "loop.h"
#include "sampler.h"
#include "sessions.h"

#include <console_print.h>
#include <crash_details.h>
#include <cxx/crash_note.hpp>
#include <sighandler.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sys/prctl.h>
#include <unistd.h>

QV_CRASH_DETAILS;

namespace {

constexpr std::size_t kMostPlaces = 8;

// Where to answer echo requests: a VR, given by its id or by an interface.
struct echo_place {
    const char *name;
    bool is_interface;
};

struct options {
    double period = 1.0;
    unsigned clients = 4;
    double run_for = 0.0;     // 0: until a stop signal arrives
    double crash_after = 0.0; // 0: never
    long leak = 0;            // bytes per sample
    const char *name = nullptr;
    int port = sampled::kEchoPort;
    std::array<echo_place, kMostPlaces> places{};
    std::size_t place_count = 0;
};

int usage()
{
    std::fputs("usage: sampled [--period S] [--clients N] [--run-for S] [--crash-after S] [--name NAME]\n"
               "               [--leak BYTES] [--port N] [--vr ID]... [--ifname NAME]...\n",
               stderr);
    return 2;
}

bool parse(int argc, char **argv, options &options)
{
    for (int i = 1; i < argc; i += 2) {
        auto is = [&](const char *name) { return std::strcmp(argv[i], name) == 0; };
        if (i + 1 == argc)
            return false;
        const char *value = argv[i + 1];
        if (is("--period"))
            options.period = std::atof(value);
        else if (is("--clients"))
            options.clients = static_cast<unsigned>(std::atoi(value));
        else if (is("--run-for"))
            options.run_for = std::atof(value);
        else if (is("--crash-after"))
            options.crash_after = std::atof(value);
        else if (is("--leak"))
            options.leak = std::atol(value);
        else if (is("--name"))
            options.name = value;
        else if (is("--port"))
            options.port = std::atoi(value);
        else if ((is("--vr") || is("--ifname")) && options.place_count < kMostPlaces)
            options.places[options.place_count++] = {value, is("--ifname")};
        else
            return false;
    }
    return options.period > 0 && options.clients > 0 && options.port > 0 && options.port <= UINT16_MAX;
}

bool answer_echoes(const options &options)
{
    for (const echo_place &place : std::span(options.places).first(options.place_count)) {
        bool good = place.is_interface ? sampled::echo_at_interface(place.name, options.port)
                                       : sampled::echo_in_vr(std::atoi(place.name), options.port);
        if (!good)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    options options;
    if (!parse(argc, argv, options))
        return usage();
    if (options.name != nullptr)
        ::prctl(PR_SET_NAME, options.name);

    install_sighandler();
    qv_crash_more_signals();
    qv_crash_walk_threads();
    qv::note_uncaught_exceptions();
    qv_crash_note("serving %u clients", options.clients);
    if (!sampled::loop_init() || !sampled::sessions_init())
        return 1;
    console_print("sampled: started, pid %d\n", ::getpid());
    if (!answer_echoes(options))
        return 1;
    if (options.leak > 0 && !sampled::leak_start(static_cast<std::size_t>(options.leak)))
        return 1;
    sampled::sampler_start(options.period, options.clients);
    if (options.run_for > 0)
        sampled::loop_stop_after(options.run_for);
    if (options.crash_after > 0)
        sampled::sampler_crash_after(options.crash_after);
    int code = sampled::loop_run();
    sampled::sampler_finish();
    sampled::sessions_finish();
    return code;
}
