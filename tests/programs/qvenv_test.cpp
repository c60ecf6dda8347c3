// SPDX-License-Identifier: Apache-2.0
// The qvenv command, run as a user would.
#include "support/support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;

namespace {

constexpr const char *kStore = "/tmp/qvenv";
constexpr const char *kUsage = "usage: qvenv [-f FILE] get NAME\n"
                               "       qvenv [-f FILE] list\n"
                               "       qvenv set [-n] NAME VALUE\n";

ChildResult qvenv(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), build_dir() + "/qvenv");
    return run_program(arguments);
}

void expect(const ChildResult &result, int code, const std::string &out, const std::string &err)
{
    EXPECT_TRUE(result.exited(code)) << result.status;
    EXPECT_EQ(out, result.out);
    EXPECT_EQ(err, result.err);
}

std::string text(std::size_t length)
{
    return std::string(length, 'x');
}

TEST(QvenvTool, SetsAndGets)
{
    expect(qvenv({"set", "slot", "3"}), 0, "", "");
    expect(qvenv({"get", "slot"}), 0, "3\n", "");
    expect(qvenv({"set", "slot", "two words"}), 0, "", "");
    expect(qvenv({"get", "slot"}), 0, "two words\n", "");
    EXPECT_EQ("slot=two words\n", read_file(kStore));
}

TEST(QvenvTool, GetOfAnUnsetNameIsSilent)
{
    expect(qvenv({"get", "slot"}), 1, "", "");
    EXPECT_FALSE(exists(kStore));
    write_file(kStore, "fan=1\n");
    expect(qvenv({"get", "slot"}), 1, "", "");
}

TEST(QvenvTool, AnEmptyValueIsAValue)
{
    expect(qvenv({"set", "slot", ""}), 0, "", "");
    expect(qvenv({"get", "slot"}), 0, "\n", "");
}

TEST(QvenvTool, ValuesMayBeginWithADash)
{
    expect(qvenv({"set", "delta", "-5"}), 0, "", "");
    expect(qvenv({"get", "delta"}), 0, "-5\n", "");
    expect(qvenv({"set", "-n", "-n"}), 0, "", "");
    expect(qvenv({"get", "-n"}), 0, "-n\n", "");
}

TEST(QvenvTool, SetWithoutOverwrite)
{
    expect(qvenv({"set", "-n", "slot", "3"}), 0, "", "");
    expect(qvenv({"set", "-n", "slot", "4"}), 1, "", "qvenv: slot: already set\n");
    expect(qvenv({"get", "slot"}), 0, "3\n", "");
}

TEST(QvenvTool, ListsTheFileAsItIs)
{
    std::string settings;
    for (int i = 0; i < 1000; i++)
        settings += "name" + std::to_string(i) + "=" + std::to_string(i * i) + "\n";
    settings += "unfinished=1";
    write_file(kStore, settings);
    expect(qvenv({"list"}), 0, settings, "");
}

TEST(QvenvTool, ListOfAMissingFileFails)
{
    expect(qvenv({"list"}), 2, "", "qvenv: /tmp/qvenv: No such file or directory\n");
    expect(qvenv({"-f", "/tmp", "list"}), 2, "", "qvenv: /tmp: Is a directory\n");
}

TEST(QvenvTool, GetFromAnUnreadableFileFails)
{
    expect(qvenv({"-f", "/tmp", "get", "a"}), 2, "", "qvenv: /tmp: Is a directory\n");
    ASSERT_EQ(0, ::mkdir(kStore, 0755));
    expect(qvenv({"get", "a"}), 2, "", "qvenv: /tmp/qvenv: Is a directory\n");
    expect(qvenv({"set", "a", "1"}), 2, "", "qvenv: /tmp/qvenv: Is a directory\n");
}

TEST(QvenvTool, AnEmptyNameIsNoName)
{
    write_file(kStore, "a=1\n=2\n");
    expect(qvenv({"get", ""}), 2, "", "qvenv: : not a valid name\n");
    expect(qvenv({"-f", kStore, "get", ""}), 2, "", "qvenv: : not a valid name\n");
}

TEST(QvenvTool, SetReportsAFullDisk)
{
    const std::string full = "qvenv: /tmp/qvenv: No space left on device\n";
    mount_tmpfs("/tmp", 64 * 1024);
    std::string settings;
    while (settings.size() < 4090)
        settings += "n" + std::to_string(10000 + settings.size()) + "=1\n";
    settings.resize(4090, '\n');
    write_file(kStore, settings);
    run_program({"/bin/sh", "-c", "cat /dev/zero >/tmp/ballast 2>/dev/null"});
    expect(qvenv({"set", "slot", "number three"}), 2, "", full);
    EXPECT_EQ(settings + "slot=n", read_file(kStore)) << "the part that fits into the last page";
    expect(qvenv({"set", "-n", "fan", "1"}), 2, "", full);
    ::unlink("/tmp/ballast");
    expect(qvenv({"set", "fan", "1"}), 0, "", "");
    expect(qvenv({"get", "fan"}), 0, "1\n", "");

    ::unlink(kStore);
    run_program({"/bin/sh", "-c", "cat /dev/zero >/tmp/ballast 2>/dev/null"});
    expect(qvenv({"set", "slot", "3"}), 2, "", full);
}

// Any user may be the first to make something of that name.
TEST(QvenvTool, RefusesALinkAsTheStore)
{
    write_file("/etc/other", "slot=1\n");
    ASSERT_EQ(0, ::symlink("/etc/other", kStore));
    const std::string refused = "qvenv: /tmp/qvenv: a symbolic link\n";
    expect(qvenv({"set", "slot", "3"}), 2, "", refused);
    expect(qvenv({"get", "slot"}), 2, "", refused);
    expect(qvenv({"list"}), 2, "", refused);
    EXPECT_EQ("slot=1\n", read_file("/etc/other"));
    ::unlink(kStore);

    ASSERT_EQ(0, ::symlink("/dev/full", kStore)) << "a device that never ends";
    expect(qvenv({"set", "slot", "3"}), 2, "", refused);
}

TEST(QvenvTool, SetRefusesASecondName)
{
    write_file("/tmp/other", "slot=1\n");
    ASSERT_EQ(0, ::link("/tmp/other", kStore));
    expect(qvenv({"set", "slot", "3"}), 2, "", "qvenv: /tmp/qvenv: has a second name\n");
    EXPECT_EQ("slot=1\n", read_file("/tmp/other"));
    expect(qvenv({"get", "slot"}), 0, "1\n", "");
}

TEST(QvenvTool, DoesNotWaitAtAPipe)
{
    ASSERT_EQ(0, ::mkfifo(kStore, 0666));
    const std::string refused = "qvenv: /tmp/qvenv: not a regular file\n";
    expect(qvenv({"set", "slot", "3"}), 2, "", refused);
    expect(qvenv({"get", "slot"}), 2, "", refused);
    expect(qvenv({"list"}), 2, "", refused);
}

TEST(QvenvTool, RootDoesNotSetInAnothersFile)
{
    constexpr uid_t kOther = 1000;
    write_file(kStore, "slot=1\n");
    if (::geteuid() != 0 || ::chown(kStore, kOther, kOther) != 0)
        GTEST_SKIP() << "there is no second user here";
    ChildResult result = qvenv({"set", "slot", "3"});
    EXPECT_TRUE(result.exited(2));
    EXPECT_EQ("slot=1\n", read_file(kStore));
    expect(qvenv({"get", "slot"}), 0, "1\n", "");
}

TEST(QvenvTool, ReadsAnotherFile)
{
    write_file("/tmp/saved", "abc=1\nab=2\n");
    expect(qvenv({"-f", "/tmp/saved", "list"}), 0, "abc=1\nab=2\n", "");
    expect(qvenv({"-f", "/tmp/saved", "get", "abc"}), 0, "1\n", "");
    expect(qvenv({"-f/tmp/saved", "get", "ab"}), 1, "", "");
    expect(qvenv({"-f", "/tmp/none", "get", "ab"}), 2, "", "qvenv: /tmp/none: No such file or directory\n");
}

TEST(QvenvTool, ChangesTheStoreOnly)
{
    write_file("/tmp/saved", "a=1\n");
    expect(qvenv({"-f", "/tmp/saved", "set", "a", "2"}), 2, "",
           "qvenv: set: -f is for reading; only /tmp/qvenv can be changed\n");
    EXPECT_EQ("a=1\n", read_file("/tmp/saved"));
    EXPECT_FALSE(exists(kStore));
}

TEST(QvenvTool, BoundsOfNameAndValue)
{
    expect(qvenv({"set", text(30), text(63)}), 0, "", "");
    expect(qvenv({"get", text(30)}), 0, text(63) + "\n", "");
    expect(qvenv({"set", text(31), "1"}), 2, "", "qvenv: " + text(31) + ": name too long\n");
    expect(qvenv({"set", "v", text(65)}), 2, "", "qvenv: v: value too long\n");
    expect(qvenv({"set", "v", text(64)}), 0, "", "qvenv: v: warning: a value of 64 characters reads as not set\n");
    expect(qvenv({"get", "v"}), 1, "", "");
}

TEST(QvenvTool, RefusesValuesThatWouldReadBackDifferently)
{
    expect(qvenv({"set", "", "1"}), 2, "", "qvenv: : not a valid name\n");
    expect(qvenv({"set", "a=b", "1"}), 2, "", "qvenv: a=b: not a valid name\n");
    expect(qvenv({"set", "a\nb", "1"}), 2, "", "qvenv: a\nb: not a valid name\n");
    expect(qvenv({"set", "a", "1\nb=2"}), 2, "", "qvenv: a: a value has one line\n");
    EXPECT_FALSE(exists(kStore));
}

TEST(QvenvTool, Usage)
{
    for (const std::vector<std::string> &wrong : std::vector<std::vector<std::string>>{
             {}, {"get"}, {"get", "a", "b"}, {"list", "a"}, {"set", "a"}, {"set", "-x", "a", "1"}, {"unset", "a"}})
        expect(qvenv(wrong), 2, "", kUsage);
    ChildResult unknown = qvenv({"-x"});
    EXPECT_TRUE(unknown.exited(2));
    EXPECT_EQ("", unknown.out);
    EXPECT_THAT(unknown.err, testing::EndsWith(kUsage));
}

TEST(QvenvTool, Help)
{
    for (const char *option : {"-h", "--help"}) {
        ChildResult help = qvenv({option});
        EXPECT_TRUE(help.exited(0)) << option;
        EXPECT_THAT(help.out, testing::StartsWith(kUsage));
        EXPECT_EQ("", help.err);
    }
    // After the command it is a value.
    expect(qvenv({"set", "slot", "--help"}), 0, "", "");
    expect(qvenv({"get", "slot"}), 0, "--help\n", "");
}

TEST(QvenvTool, ReportsOutputThatCannotBeWritten)
{
    write_file(kStore, "a=1\n");
    ChildResult full = run_program({"/bin/sh", "-c", build_dir() + "/qvenv get a >/dev/full"});
    expect(full, 2, "", "qvenv: write: No space left on device\n");
    full = run_program({"/bin/sh", "-c", build_dir() + "/qvenv list >/dev/full"});
    expect(full, 2, "", "qvenv: write: No space left on device\n");
}

} // namespace
