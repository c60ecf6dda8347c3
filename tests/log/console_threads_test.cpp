// SPDX-License-Identifier: Apache-2.0
// Printing from several threads. Separate from the other console tests, whose replacements of C library functions the
// thread sanitizer does not support.
#include "bootargs.h"
#include "console_print.h"

#include "support/print_fatal.h"
#include "support/support.h"

#include <atomic>
#include <fcntl.h>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace support;

TEST(ConsoleThreads, LinesNeverInterleaveInside)
{
    const std::size_t rounds = effort(500);
    console_print_t("open\n");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (std::size_t i = 0; i < rounds; i++)
                qv_ilog("<%d %060zu>\n", t, i);
        });
    for (std::thread &thread : threads)
        thread.join();
    std::string log = read_file("/etc/ilog.txt");
    std::size_t found = 0;
    for (std::size_t at = 0; (at = log.find('<', at)) != std::string::npos; at++) {
        EXPECT_EQ(0, log.compare(at + 63, 2, ">\n"));
        found++;
    }
    EXPECT_EQ(4 * rounds, found);
}

// ---- cancellation ----

namespace {

void print_everywhere()
{
    console_print("%s\n", "console");
    qv_clog("%s\n", "log");
    qv_output(4, "%s\n", "output");
    print_fatal(1, "/etc/fatal", "%s\n", "fatal");
    qv_clog("%s\n", std::string(3000, 'x').c_str()); // from the heap
}

std::size_t open_descriptors()
{
    return list_dir("/proc/self/fd").size();
}

} // namespace

TEST(ConsoleCancellation, CancelledThreadsLeaveNoDescriptor)
{
    print_everywhere(); // opens the devices
    std::size_t before = open_descriptors();
    const std::string long_text(3000, 'x');
    for (std::size_t i = 0; i < effort(200); i++) {
        std::atomic<bool> running{false};
        std::thread printing([&] {
            running = true;
            for (;;)
                qv_clog("%s\n", long_text.c_str());
        });
        while (!running)
            ::sched_yield();
        ::pthread_cancel(printing.native_handle());
        printing.join();
        if (i % 50 == 0)
            ::truncate("/etc/consolelog", 0);
    }
    EXPECT_EQ(before, open_descriptors());
}

TEST(ConsoleCancellation, ActsAfterTheMessage)
{
    print_everywhere();
    for (auto path : {"/etc/consolelog", "/etc/fatal"})
        write_file(path, "");
    std::size_t before = open_descriptors();
    std::thread printing([] {
        ::pthread_cancel(::pthread_self());
        print_fatal(1, "/etc/fatal", "%s\n", "fatal"); // no cancellation point: its callers are handlers
        qv_parse_cmdline("/proc/cmdline", "no such key");
        qv_clog("%s\n", std::string(3000, 'x').c_str());
        ADD_FAILURE() << "the cancellation request is lost";
    });
    printing.join();
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(1u, lines(read_file("/etc/consolelog")).size());
    EXPECT_EQ(1u, lines(read_file("/etc/fatal")).size());
}

TEST(ConsoleCancellation, LeavesTheThreadsStateAlone)
{
    int state = -1;
    print_everywhere();
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, state);
    print_everywhere();
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, state);
}
