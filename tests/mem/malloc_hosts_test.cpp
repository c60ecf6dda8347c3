// SPDX-License-Identifier: Apache-2.0
// Hosts whose malloc() is not the library's.
#include "support/support.h"

using namespace support;

namespace {

std::string said_by(const std::string &host, const std::string &argument = "")
{
    ChildResult result = run_program({build_dir() + "/tests/" + host, argument});
    EXPECT_TRUE(result.exited(0)) << result.status << result.err;
    return result.out;
}

} // namespace

TEST(MallocHosts, OneThatLoadsTheLibraryLateIsNotIntercepted)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's run time must come before the library";
    EXPECT_EQ(said_by("late_host", build_dir() + "/libcommon.so.1"), "good\n");
}

TEST(MallocHosts, OneWithItsOwnAllocatorServesTheLibraryToo)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer has the allocator";
    EXPECT_EQ(said_by("own_allocator_host"), "good\n");
}
