// SPDX-License-Identifier: Apache-2.0
// qvcrash bundle: what the archive of a log and of a running process holds, and what does not get into it.
#include "compressed.h"
#include "qvstat/processes.h"

#include <archive.h>
#include <archive_entry.h>
#include <map>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;
using nlohmann::json;
using testing::HasSubstr;

namespace {

const std::string kArchive = "/tmp/case.tar.zst";
const std::string kLog = "PID 77 for signal(11).\nBacktracing:\n\tStack bottom is at 0x0\n\nDetails 1:\n"
                         "self   : pid 77 tid 77 name routed\n"
                         "module : 0000000000010000 0000000000020000 abcdef /usr/sbin/routed\nDetails end\n";

ChildResult bundle(const std::string &subject)
{
    ::unlink(kArchive.c_str());
    return run_program({build_dir() + "/qvcrash", "bundle", "--out", kArchive, subject});
}

// The members of the archive by name.
std::map<std::string, std::string> open_archive()
{
    std::map<std::string, std::string> members;
    archive *reader = ::archive_read_new();
    ::archive_read_support_format_tar(reader);
    ::archive_read_support_filter_zstd(reader);
    EXPECT_EQ(ARCHIVE_OK, ::archive_read_open_filename(reader, kArchive.c_str(), 65536));
    archive_entry *entry;
    while (::archive_read_next_header(reader, &entry) == ARCHIVE_OK) {
        std::string text(static_cast<std::size_t>(::archive_entry_size(entry)), '\0');
        EXPECT_EQ(static_cast<la_ssize_t>(text.size()), ::archive_read_data(reader, text.data(), text.size()));
        members[::archive_entry_pathname(entry)] = text;
    }
    ::archive_read_free(reader);
    return members;
}

void make_logs()
{
    ::mkdir("/etc/core", 0755);
    write_file("/etc/core/routed77.coredump.11.log", kLog);
}

TEST(QvcrashBundle, OfALog)
{
    make_logs();
    write_file("/etc/core/routed77.attach.52.log", kLog);
    write_file("/etc/core/routed770.coredump.11.log", "another process");
    write_file("/etc/mtrace77.log", "= Start\n= End\n");
    write_file("/etc/consolelog", "last words\n");
    ChildResult made = bundle("/etc/core/routed77.coredump.11.log");
    ASSERT_TRUE(made.exited(0)) << made.err;
    EXPECT_THAT(made.out, HasSubstr("logs/routed77.coredump.11.log\n"));
    std::map<std::string, std::string> members = open_archive();
    EXPECT_EQ(kLog, members["logs/routed77.coredump.11.log"]);
    EXPECT_EQ(kLog, members["logs/routed77.attach.52.log"]);
    EXPECT_FALSE(members.contains("logs/routed770.coredump.11.log"));
    EXPECT_EQ("= Start\n= End\n", members["traces/mtrace77.log"]);
    EXPECT_EQ("last words\n", members["console.txt"]);
    EXPECT_EQ("abcdef /usr/sbin/routed\n", members["modules.txt"]);
    json manifest = json::parse(members["manifest.json"]);
    EXPECT_EQ("qvcrash-bundle-1", manifest["format"]);
    EXPECT_EQ("routed", manifest["process"]);
    EXPECT_EQ(77, manifest["id"]);
    struct stat status;
    ASSERT_EQ(0, ::stat(kArchive.c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 0777);
}

// The archive has them as they are; who crashed is read from the text.
TEST(QvcrashBundle, OfCompressedLogs)
{
    make_logs();
    for (const compression &form : kForms) {
        std::string name = std::string("routed77.coredump.11.log.1") + form.ending;
        write_compressed("/etc/core/" + name, form, kLog);
        ChildResult made = bundle("/etc/core/" + name);
        ASSERT_TRUE(made.exited(0)) << made.err;
        std::map<std::string, std::string> members = open_archive();
        EXPECT_EQ(read_file("/etc/core/" + name), members["logs/" + name]);
        EXPECT_EQ(kLog, members["logs/routed77.coredump.11.log"]);
        EXPECT_EQ("abcdef /usr/sbin/routed\n", members["modules.txt"]);
        EXPECT_EQ("routed", json::parse(members["manifest.json"])["process"]);
    }
}

TEST(QvcrashBundle, ALogThatCannotBeDecompressedIsNamed)
{
    make_logs();
    std::string damaged = "/etc/core/routed77.coredump.11.log.1.gz";
    write_file(damaged, "\x1f\x8b\x08 no more");
    ChildResult made = bundle(damaged);
    EXPECT_TRUE(made.exited(1));
    EXPECT_THAT(made.err, testing::StartsWith("qvcrash: " + damaged + " cannot be decompressed: "));
    EXPECT_FALSE(exists(kArchive));

    made = bundle("/etc/core/routed77.coredump.11.log");
    EXPECT_TRUE(made.exited(1));
    EXPECT_THAT(made.err, HasSubstr(damaged + " cannot be decompressed: "));
    EXPECT_TRUE(open_archive().contains("logs/routed77.coredump.11.log.1.gz")) << "someone may repair it";
}

void expect_bundle_of_process()
{
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execl("/bin/sleep", "sleep", "60", static_cast<char *>(nullptr));
        ::_exit(127);
    }
    std::string folder = "/proc/" + std::to_string(pid);
    while (read_file(folder + "/comm") != "sleep\n")
        ::usleep(1000);
    ChildResult made = bundle(std::to_string(pid));
    EXPECT_TRUE(made.exited(0)) << made.err;
    std::map<std::string, std::string> members = open_archive();
    EXPECT_THAT(members["process/maps"], HasSubstr("/sleep\n"));
    EXPECT_THAT(members["process/limits"], HasSubstr("Max open files"));
    EXPECT_THAT(members["modules.txt"], HasSubstr("/sleep\n"));
    EXPECT_FALSE(members.contains("process/environ"));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

TEST(QvcrashBundle, OfAProcess)
{
    expect_bundle_of_process();
}

// Root of a container, who reads only processes whose capabilities it has.
TEST(QvcrashBundle, OfAProcessWithoutTheRightToTrace)
{
    ChildResult result = run_child([] {
        if (!give_up_tracing())
            ::_exit(77);
        expect_bundle_of_process();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    });
    if (result.exited(77))
        GTEST_SKIP() << "the capability cannot be dropped here, or reading then takes more";
    EXPECT_TRUE(result.exited(0)) << result.out;
}

TEST(QvcrashBundle, LinksOutOfTheFoldersAreNotFollowed)
{
    make_logs();
    write_file("/etc/secret", "password\n");
    for (const char *target : {"/etc/secret", "../secret", "../../etc/secret"}) {
        std::string link = "/etc/core/routed77.attach.52.log", trace = "/etc/mtrace77.log";
        ASSERT_EQ(0, ::symlink(target, link.c_str()));
        ASSERT_EQ(0, ::symlink("/etc/secret", trace.c_str()));
        ChildResult made = bundle("/etc/core/routed77.coredump.11.log");
        EXPECT_TRUE(made.exited(1));
        EXPECT_THAT(made.err, HasSubstr(link));
        EXPECT_THAT(made.err, HasSubstr(trace));
        for (const auto &[name, content] : open_archive())
            EXPECT_THAT(content, testing::Not(HasSubstr("password"))) << name;
        EXPECT_TRUE(bundle(link).exited(1));
        EXPECT_FALSE(exists(kArchive));
        ::unlink(link.c_str());
        ::unlink(trace.c_str());
    }
}

TEST(QvcrashBundle, NothingIsOverwritten)
{
    make_logs();
    write_file("/tmp/kept", "kept");
    EXPECT_TRUE(
        run_program({build_dir() + "/qvcrash", "bundle", "--out", "/tmp/kept", "/etc/core/routed77.coredump.11.log"})
            .exited(1));
    EXPECT_EQ("kept", read_file("/tmp/kept"));
}

TEST(QvcrashBundle, OfNothing)
{
    write_file("/tmp/other.txt", "no log\n");
    EXPECT_TRUE(bundle("/tmp/other.txt").exited(1));
    EXPECT_TRUE(bundle("/tmp/missing.log").exited(1));
    EXPECT_TRUE(bundle("999999999").exited(1));
    EXPECT_FALSE(exists(kArchive));
}

} // namespace
