// SPDX-License-Identifier: Apache-2.0
// The test support itself: what the other tests rely on.
#include "support/random.h"
#include "support/support.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

TEST(Sandbox, FoldersAreFreshAndWritable)
{
    for (const char *folder : {"/etc", "/flash"})
        EXPECT_TRUE(list_dir(folder).empty()) << folder;
    write_file("/etc/consolelog", "x");
    write_file("/flash/x", "y");
    EXPECT_EQ("x", read_file("/etc/consolelog"));
    EXPECT_EQ("y", read_file("/flash/x"));
}

TEST(Sandbox, ConsoleDevicesAreEmptyFiles)
{
    for (const char *device : {kConsole, kSerial}) {
        struct stat info;
        ASSERT_EQ(0, ::stat(device, &info)) << device;
        EXPECT_TRUE(S_ISREG(info.st_mode)) << device;
        EXPECT_EQ(0, info.st_size) << device;
    }
}

TEST(Sandbox, BuildFolderIsReachable)
{
    EXPECT_TRUE(exists(build_dir() + "/tests"));
}

TEST(Sandbox, BindOverReplacesAFileOfProc)
{
    bind_over("/proc/cmdline", "quiet qv_output\n");
    EXPECT_EQ("quiet qv_output\n", read_file("/proc/cmdline"));
}

TEST(Sandbox, RemountMakesAFolderReadOnlyAndBack)
{
    remount("/etc", true);
    EXPECT_EQ(nullptr, std::fopen("/etc/x", "w"));
    remount("/etc", false);
    write_file("/etc/x", "1");
    EXPECT_EQ("1", read_file("/etc/x"));
}

TEST(Child, OutputAndExitCodeAreReported)
{
    ChildResult child = run_child([] {
        std::printf("to out");
        std::fprintf(stderr, "to err");
        std::fflush(nullptr);
        ::_exit(3);
    });
    EXPECT_TRUE(child.exited(3));
    EXPECT_EQ("to out", child.out);
    EXPECT_EQ("to err", child.err);
}

TEST(Child, DeathBySignalIsReported)
{
    EXPECT_TRUE(run_child([] { ::kill(::getpid(), SIGKILL); }).killed_by(SIGKILL));
}

TEST(Child, AHangIsEndedAndReported)
{
    EXPECT_TRUE(run_child([] { ::pause(); }, 50).timed_out);
}

TEST(Capture, StandardStreamsOfThisProcess)
{
    EXPECT_EQ("one", capture_stdout([] { std::printf("one"); }));
    EXPECT_EQ("two", capture_stderr([] { std::fprintf(stderr, "two"); }));
}

TEST(Random, AFailureNamesTheSeedAndTheOperation)
{
    ::unsetenv("LIBCOMMON_SEED");
    EXPECT_EQ("", RandomWork::describe_all());
    {
        Random random(3);
        EXPECT_EQ("seed 3\n", RandomWork::describe_all());
        random.doing("insert");
        random.doing("free", 17, -1);
        EXPECT_EQ("seed 3, step 2: free 17 -1\n", RandomWork::describe_all());
    }
    EXPECT_EQ("", RandomWork::describe_all());
}

TEST(Random, TheEnvironmentReplacesTheSeed)
{
    ::setenv("LIBCOMMON_SEED", "99", 1);
    Random random(3);
    EXPECT_EQ(99UL, random.seed());
    EXPECT_EQ(std::mt19937(99)(), random());
}
