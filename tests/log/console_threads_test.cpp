// SPDX-License-Identifier: Apache-2.0
// Printing from several threads. Apart from the other console tests, whose stand-ins for the C library's functions the
// thread sanitizer does not bear.
#include "console_print.h"

#include "support/support.h"

#include <thread>
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
        EXPECT_EQ(log.compare(at + 63, 2, ">\n"), 0);
        found++;
    }
    EXPECT_EQ(found, 4 * rounds);
}
