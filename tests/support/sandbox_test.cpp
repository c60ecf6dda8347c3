// SPDX-License-Identifier: Apache-2.0
// The test support itself: what the other tests rely on.
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
    EXPECT_EQ(read_file("/etc/consolelog"), "x");
    EXPECT_EQ(read_file("/flash/x"), "y");
}

TEST(Sandbox, ConsoleDevicesAreEmptyFiles)
{
    for (const char *device : {kConsole, kSerial}) {
        struct stat info;
        ASSERT_EQ(::stat(device, &info), 0) << device;
        EXPECT_TRUE(S_ISREG(info.st_mode)) << device;
        EXPECT_EQ(info.st_size, 0) << device;
    }
}

TEST(Sandbox, BuildFolderIsReachable)
{
    EXPECT_TRUE(exists(build_dir() + "/tests"));
}

TEST(Sandbox, BindOverReplacesAFileOfProc)
{
    bind_over("/proc/cmdline", "quiet qv_output\n");
    EXPECT_EQ(read_file("/proc/cmdline"), "quiet qv_output\n");
}

TEST(Sandbox, RemountMakesAFolderReadOnlyAndBack)
{
    remount("/etc", true);
    EXPECT_EQ(std::fopen("/etc/x", "w"), nullptr);
    remount("/etc", false);
    write_file("/etc/x", "1");
    EXPECT_EQ(read_file("/etc/x"), "1");
}

TEST(Child, OutputAndExitCodeAreTold)
{
    ChildResult child = run_child([] {
        std::printf("to out");
        std::fprintf(stderr, "to err");
        std::fflush(nullptr);
        ::_exit(3);
    });
    EXPECT_TRUE(child.exited(3));
    EXPECT_EQ(child.out, "to out");
    EXPECT_EQ(child.err, "to err");
}

TEST(Child, DeathBySignalIsTold)
{
    EXPECT_TRUE(run_child([] { ::kill(::getpid(), SIGKILL); }).killed_by(SIGKILL));
}

TEST(Child, AHangIsEndedAndTold)
{
    EXPECT_TRUE(run_child([] { ::pause(); }, 50).timed_out);
}

TEST(Capture, StandardStreamsOfThisProcess)
{
    EXPECT_EQ(capture_stdout([] { std::printf("one"); }), "one");
    EXPECT_EQ(capture_stderr([] { std::fprintf(stderr, "two"); }), "two");
}
