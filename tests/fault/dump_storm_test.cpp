// SPDX-License-Identifier: Apache-2.0
// A busy process receives dump requests at random moments: it survives, leaks nothing, and every log is complete.
#include "fault/crash_support.h"
#include "support/random.h"

#include "console_print.h"
#include "signal_printf.h"

#include <atomic>
#include <pthread.h>
#include <random>
#include <sys/stat.h>

using namespace support;
using namespace crash;

namespace {

constexpr unsigned kPathSize = QV_COREDUMP_PATH_SIZE;

std::atomic<unsigned> begun, ended;
std::atomic<bool> stop;

// Every request gets a separate file.
long number_logs(unsigned phase, unsigned long, void *record)
{
    if (phase == QV_COREDUMP_FIRST)
        signal_snprintf(static_cast<crash_record *>(record)->log_path, kPathSize, "/tmp/logs/%d", begun.fetch_add(1));
    if (phase == QV_COREDUMP_LAST)
        ended++;
    return 0;
}

QV_COREDUMP_CALLBACK(number_logs);

// ---- busy threads ----

void *allocate(void *)
{
    std::minstd_rand random(1);
    void *blocks[64] = {};
    while (!stop) {
        void *&slot = blocks[random() % 64];
        std::free(slot);
        slot = std::malloc(random() % 20000);
    }
    for (void *block : blocks)
        std::free(block);
    return nullptr;
}

void *print(void *)
{
    for (unsigned i = 0; !stop; i++)
        console_print("line %u of a busy daemon\n", i);
    return nullptr;
}

void *sleep_lightly(void *)
{
    while (!stop)
        ::usleep(100);
    return nullptr;
}

void *format(void *)
{
    char text[128];
    for (unsigned i = 0; !stop; i++)
        std::snprintf(text, sizeof text, "%u %f", i, static_cast<double>(i) / 7);
    return nullptr;
}

void storm(unsigned requests)
{
    install_sighandler();
    ::raise(kBacktraceSignal); // opens the descriptors that stay open
    console_print("started\n");
    std::size_t descriptors = list_dir("/proc/self/fd").size();

    pthread_t threads[4];
    void *(*const bodies[4])(void *) = {allocate, print, sleep_lightly, format};
    for (int i = 0; i < 4; i++)
        ::pthread_create(&threads[i], nullptr, bodies[i], nullptr);
    sigset_t request;
    ::sigemptyset(&request);
    ::sigaddset(&request, kBacktraceSignal);
    ::pthread_sigmask(SIG_BLOCK, &request, nullptr); // so that the busy threads receive them

    Random random(2);
    for (unsigned i = 1; i < requests; i++) {
        random.doing("request", i);
        ::kill(::getpid(), kBacktraceSignal);
        ::usleep(static_cast<useconds_t>(random() % 300));
    }
    while (ended < requests)
        ::usleep(1000);
    stop = true;
    for (pthread_t thread : threads)
        ::pthread_join(thread, nullptr);
    EXPECT_EQ(0, in_signal_context());
    EXPECT_EQ(descriptors, list_dir("/proc/self/fd").size());
}

} // namespace

TEST(Storm, AThousandRequestsToABusyProcess)
{
    const unsigned requests = 1 + (under_emulation() ? 80 : 1000); // one of them precedes the storm
    ::mkdir("/tmp/logs", 0777);
    ChildResult child = run_child([requests] { storm(requests); }, 60000);
    ASSERT_TRUE(child.exited(0)) << child.status << child.timed_out << child.out << child.err;
    ASSERT_EQ(requests, list_dir("/tmp/logs").size());
    for (unsigned i = 0; i < requests; i++) {
        Log log = read_log(std::string("/tmp/logs/").append(std::to_string(i)));
        ASSERT_EQ("", log.error) << i;
        ASSERT_EQ(kBacktraceSignal, log.sig);
    }
}
