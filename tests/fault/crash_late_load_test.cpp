// SPDX-License-Identifier: Apache-2.0
// A process that loads the library by dlopen(): its handlers use no thread-local data that must be allocated.
#include "fault/crash_support.h"

using namespace support;
using namespace crash;

TEST(LateLoad, ASecondThreadThatAbortsInsideMallocLeavesItsLog)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's run time has to be loaded with the program";
    for (const char *thread_start : {"early", "late"}) {
        ChildResult child =
            run_program({build_dir() + "/tests/crash_late_host", build_dir() + "/libcommon.so", thread_start}, 20000);
        EXPECT_TRUE(child.killed_by(SIGABRT)) << thread_start << child.status << child.timed_out;
        EXPECT_EQ("", read_log(log_path("crash_late_host", child.pid, "coredump", SIGABRT)).error) << thread_start;
        EXPECT_NE(std::string::npos, printed().find(" pid " + std::to_string(child.pid) + " parent"));
    }
}
