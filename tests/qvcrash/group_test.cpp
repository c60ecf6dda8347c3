// SPDX-License-Identifier: Apache-2.0
// Signatures of logs, and qvcrash group on folders and archives of logs.
#include "signature.h"

#include "compressed.h"
#include "support/support.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/stat.h>

using namespace support;
using namespace qvcrash;
using nlohmann::json;

namespace {

crash_log log_with(int signal, std::initializer_list<const char *> references)
{
    std::string text = "PID 1 for signal(" + std::to_string(signal) + ").\nBacktracing:\n";
    for (const char *reference : references)
        text += std::string("\t<0x10> -> ") + reference + "\n";
    return parse_crash_log(text + "\tStack bottom is at 0x10\n\n", "x1.coredump." + std::to_string(signal) + ".log");
}

std::string signature_of(int signal, std::initializer_list<const char *> references)
{
    return signature_maker()(log_with(signal, references));
}

TEST(CrashSignature, NamesModulesAndFunctions)
{
    EXPECT_EQ("SIGSEGV routed!handle | routed!main",
              signature_of(11, {"/usr/sbin/routed(handle+0x8) [0x1008]", "/usr/sbin/routed(main+0x10) [0x2010]"}));
    EXPECT_EQ("SIGSEGV routed+0x301f", signature_of(11, {"/usr/sbin/routed(+0x301f) [0x1008]"}));
}

TEST(CrashSignature, DoesNotDependOnWhereThingsAreLoadedOrHowFarTheFunctionWas)
{
    EXPECT_EQ(signature_of(11, {"/usr/sbin/routed(handle+0x8) [0x1008]"}),
              signature_of(11, {"/opt/routed(handle+0x9c) [0x7fff1000]"}));
}

TEST(CrashSignature, SkipsWhatOnlyEndsAProcess)
{
    EXPECT_EQ("SIGABRT routed!check",
              signature_of(6, {"/lib/libc.so.6(+0x8aeec) [0x10]", "/lib/libc.so.6(abort+0xd3) [0x20]",
                               "/usr/sbin/routed(__assert_fail+0x4) [0x25]", "/usr/sbin/routed(check+0x4) [0x30]"}));
}

TEST(CrashSignature, NeedsOnlyPartsOfALog)
{
    for (const std::string &name : list_dir(LIBCOMMON_LOGS)) {
        std::string text = read_file(std::string(LIBCOMMON_LOGS) + '/' + name);
        std::string signature = signature_maker()(parse_crash_log(text, name));
        EXPECT_THAT(signature, testing::HasSubstr("!"));
        EXPECT_EQ(signature, signature_maker()(parse_crash_log(text, name, log_extent::signature)));
    }
}

TEST(CrashSignature, AtMostSoManyFrames)
{
    auto log = log_with(11, {"/r(a+0x1) [0x1]", "/r(b+0x1) [0x1]", "/r(c+0x1) [0x1]", "/r(d+0x1) [0x1]"});
    EXPECT_EQ("SIGSEGV r!a | r!b | r!c", signature_maker()(log));
    EXPECT_EQ("SIGSEGV r!a", signature_maker(1)(log));
}

TEST(CrashSignature, MisuseOfAnObjectCacheIsTheCallers)
{
    EXPECT_EQ(
        "SIGSEGV object cache misuse at free: routed!close",
        signature_of(11, {"/lib/libcommon.so.1(mcache_error+0xf) [0x10]", "/lib/libcommon.so.1(mcache_free+0x5) [0x20]",
                          "/usr/sbin/routed(close+0x8) [0x1008]"}));
}

TEST(CrashSignature, WithoutAUsableFrame)
{
    EXPECT_EQ("SIGSEGV unattributable", signature_of(11, {}));
    EXPECT_EQ("SIGSEGV unattributable", signature_of(11, {"0x7f0012345678"}));
    EXPECT_EQ("SIGABRT unattributable", signature_of(6, {"/lib/libc.so.6(abort+0xd3) [0x20]"}));
}

crash_log log_with_details(int signal, const std::string &frames, const std::string &details)
{
    return parse_crash_log("PID 1 for signal(" + std::to_string(signal) + ").\nBacktracing:\n" + frames +
                               "\tStack bottom is at 0x10\n\nDetails 1:\n" + details + "Details end\n",
                           "x1.coredump." + std::to_string(signal) + ".log");
}

constexpr char kRoutedModule[] = "module : 0000000000400000 0000000000500000 0123456789abcdef /usr/sbin/routed\n";

TEST(CrashSignature, BuildIdsGoWithOffsets)
{
    crash_log log = log_with_details(11, "\t<0x10> -> /usr/sbin/routed(+0x301f) [0x40301f]\n", kRoutedModule);
    EXPECT_EQ("SIGSEGV routed+0x301f@01234567", signature_maker()(log));
    log = log_with_details(11, "\t<0x10> -> /usr/sbin/routed(handle+0x1f) [0x40301f]\n", kRoutedModule);
    EXPECT_EQ("SIGSEGV routed!handle", signature_maker()(log)) << "a function is the same in the next build";
}

// The caller of abort() ends with the call, so that the next function begins at the return address.
TEST(CrashSignature, AFunctionsStartIsNotItsOwnFrame)
{
    crash_log log = log_with_details(6,
                                     "\t<0x10> -> /lib/libc.so.6(abort+0xd3) [0x20]\n"
                                     "\t<0x20> -> /usr/sbin/routed(next_function+0) [0x403010]\n"
                                     "\t<0x30> -> /usr/sbin/routed(main+0x10) [0x404000]\n",
                                     kRoutedModule);
    EXPECT_EQ("SIGABRT routed+0x3010@01234567 | routed!main", signature_maker()(log));
}

// Its return address lies after it, and would be another one in each build.
TEST(CrashSignature, ATerminateHandlerWithoutANameIsNotTheBug)
{
    std::string frames = "\t<0x10> -> /lib/libc.so.6(abort+0xd3) [0x20]\n"
                         "\t<0x20> -> /usr/sbin/routed(+0x3010) [0x403010]\n"
                         "\t<0x30> -> /lib/libstdc++.so.6(+0xa8e1a) [0x90000]\n"
                         "\t<0x40> -> /usr/sbin/routed(handle+0x10) [0x404000]\n";
    std::string self = "self   : pid 7 tid 7 name routed\n";
    auto signature = [&](const std::string &note) {
        return signature_maker()(log_with_details(6, frames, self + note + kRoutedModule));
    };
    EXPECT_EQ("SIGABRT routed!handle", signature("note   : 7 uncaught std::bad_alloc: std::bad_alloc\n"));
    EXPECT_EQ("SIGABRT routed!handle", signature("note   : 7 std::terminate() without an exception\n"));
    std::string other = "SIGABRT routed+0x3010@01234567 | routed!handle";
    EXPECT_EQ(other, signature("note   : 8 uncaught std::bad_alloc: std::bad_alloc\n")) << "another thread's";
    EXPECT_EQ(other, signature("")) << "a thread that the C++ library started may call abort()";
}

// The walk follows pointers to main() there.
TEST(CrashSignature, NothingIsAboveTheOutermostFunction)
{
    std::string expected = signature_of(11, {"/r(f+0x1) [0x1]", "/r(main+0x10) [0x20]"});
    EXPECT_EQ("SIGSEGV r!f | r!main", expected);
    EXPECT_EQ(expected, signature_of(11, {"/r(f+0x1) [0x1]", "/r(main+0x10) [0x20]", "/libc.so.6(+0x2724a) [0x99]",
                                          "/r(main+0) [0x10]", "/libc.so.6(__libc_start_main+0x85) [0x98]",
                                          "/r(main+0) [0x10]"}));
    EXPECT_EQ("SIGSEGV r+0x1 | r+0x20 | r+0x10",
              signature_of(11, {"/r(+0x1) [0x1]", "/r(+0x20) [0x20]", "/libc.so.6(+0x2724a) [0x99]", "/r(+0x10) [0x10]",
                                "/libc.so.6(__libc_start_main+0x85) [0x98]", "/r(+0x10) [0x10]"}));
}

TEST(CrashSignature, AProgramThatWasReplacedWhileItRanIsTheSame)
{
    crash_log log =
        log_with_details(11, "\t<0x10> -> 0x40301f\n",
                         "module : 0000000000400000 0000000000500000 0123456789abcdef /usr/sbin/routed (deleted)\n");
    EXPECT_EQ("SIGSEGV routed+0x301f@01234567", signature_maker()(log));
}

TEST(CrashSignature, LinesMayEndAsOnAnotherSystem)
{
    std::string name = "failing_host127.coredump.6.log", text = read_file(std::string(LIBCOMMON_LOGS) + '/' + name);
    std::string expected = signature_maker()(parse_crash_log(text, name));
    std::string other;
    for (const std::string &line : lines(text))
        other += line + "\r\n";
    EXPECT_EQ(expected, signature_maker()(parse_crash_log(other, name)));
    EXPECT_EQ(parse_crash_log(text, name).frames.size(), parse_crash_log(other, name).frames.size());
}

TEST(CrashSignature, WordsOfTheStackWhereTheWalkHasNone)
{
    std::string found = "found  : 0000007ffffff010 0000000000401234\n"
                        "found  : 0000007ffffff020 0000000077777777\n";
    crash_log log = log_with_details(11, "", kRoutedModule + found);
    EXPECT_EQ("SIGSEGV routed+0x1234@01234567", signature_maker()(log));
    log = log_with_details(11, "\t<0x10> -> /usr/sbin/routed(handle+0x1f) [0x40301f]\n", kRoutedModule + found);
    EXPECT_EQ("SIGSEGV routed!handle", signature_maker()(log));
}

TEST(CrashSignature, AssertionsByTheirCondition)
{
    auto signature = [](const std::string &message) {
        return signature_maker()(
            log_with_details(6, "\t<0x10> -> /r(check+0x1) [0x1]\n", "abort  : " + message + "\n"));
    };
    EXPECT_EQ("SIGABRT assertion \"value == 17\": r!check",
              signature("routed: a.c:101: check: Assertion `value == 17' failed."));
    EXPECT_EQ(signature("routed: a.c:101: check: Assertion `value == 17' failed."),
              signature("routed: a.c:99: check: Assertion `value == 17' failed."));
    EXPECT_EQ("SIGABRT r!check", signature("Assertion `' failed"));
    EXPECT_EQ("SIGABRT r!check", signature("free(): invalid pointer"));
}

TEST(CrashSignature, DoubleFreesAndOverrunsOfAnObjectCache)
{
    auto signature = [](const char *code_and_guard) {
        return signature_maker()(log_with_details(11, "\t<0x10> -> /r(close+0x1) [0x1]\n", code_and_guard));
    };
    EXPECT_EQ("SIGSEGV object cache double free in \"sessions\": r!close",
              signature("cache  : code 5 object 00000000000000f0 guard deaddeaddeaddead name sessions\n"));
    EXPECT_EQ("SIGSEGV object cache overrun in \"sessions\": r!close",
              signature("cache  : code 5 object 00000000000000f0 guard 1111111111111111 name sessions\n"));
    EXPECT_EQ("SIGSEGV object cache misuse 4 in \"sessions\": r!close",
              signature("cache  : code 4 object 00000000000000f0 guard 0000000000000000 name sessions\n"));
}

// A walk over functions that have one letter each.
std::string signature_of_walk(const std::string &letters, std::size_t frames = kDefaultSignatureFrames)
{
    std::string text = "PID 1 for signal(11).\nBacktracing:\n";
    for (char letter : letters)
        text += std::string("\t<0x10> -> /r(") + letter + "+0x1) [0x" + std::to_string(letter) + "]\n";
    return signature_maker(frames)(parse_crash_log(text + "\tStack bottom is at 0x10\n\n", "x1.coredump.11.log"));
}

std::string repeated(const std::string &text, std::size_t size)
{
    std::string result;
    while (result.size() < size)
        result += text;
    return result.substr(0, size);
}

TEST(CrashSignature, RecursionOfAnyDepthIsTheSame)
{
    EXPECT_EQ("SIGSEGV r!a | recursion", signature_of_walk("aam"));
    EXPECT_EQ("SIGSEGV r!a | r!b | recursion", signature_of_walk("ababm"));
    EXPECT_EQ("SIGSEGV r!a | r!b | r!c | recursion", signature_of_walk("abcabcm"));
    for (std::string cycle : {"a", "ab", "abc", "abcdefgh"}) {
        std::string expected = signature_of_walk(cycle + cycle + "m");
        EXPECT_THAT(expected, testing::EndsWith(" | recursion"));
        for (std::size_t size = 2 * cycle.size(); size < 60; size++) {
            EXPECT_EQ(expected, signature_of_walk(repeated(cycle, size))) << "cut off by the walk's limit";
            EXPECT_EQ(expected, signature_of_walk(repeated(cycle, size) + "m")) << cycle << ' ' << size;
        }
    }
}

// The stack ends in whichever function is the next one.
TEST(CrashSignature, RecursionIsTheSameWhereverItEnds)
{
    for (std::string cycle : {"ab", "abc", "abcdefgh"}) {
        std::string expected = signature_of_walk(cycle + cycle + "m");
        for (std::size_t turn = 1; turn < cycle.size(); turn++) {
            std::string turned = repeated(cycle, turn + 3 * cycle.size()).substr(turn) + "m";
            EXPECT_EQ(expected, signature_of_walk(turned)) << turned;
            EXPECT_EQ(signature_of_walk("x" + cycle + cycle), signature_of_walk("x" + turned));
        }
    }
}

TEST(CrashSignature, WhatRecursionCallsCountsAndWhatIsBelowDoesNot)
{
    EXPECT_EQ("SIGSEGV r!x | r!a | recursion", signature_of_walk("xaam"));
    EXPECT_EQ(signature_of_walk("xabab"), signature_of_walk("xababm")) << "a deep walk does not have the callers";
    EXPECT_NE(signature_of_walk("xabab"), signature_of_walk("yabab"));
    EXPECT_EQ("SIGSEGV r!x | r!y | r!z", signature_of_walk("xyzabab"));
    EXPECT_EQ("SIGSEGV r!x | r!y | r!a | recursion", signature_of_walk("xybaba"));
    EXPECT_EQ("SIGSEGV r!a | recursion", signature_of_walk("baba", 1));
}

TEST(CrashSignature, OneRoundIsNoRecursion)
{
    EXPECT_EQ("SIGSEGV r!a | r!b | r!m", signature_of_walk("abm"));
    EXPECT_EQ("SIGSEGV r!a | r!b | r!a", signature_of_walk("abam"));
    EXPECT_EQ("SIGSEGV r!a | r!b | r!c", signature_of_walk("abcabm"));
}

TEST(CrashSignature, CyclesOfManyFunctionsAreNotRecognised)
{
    EXPECT_EQ("SIGSEGV r!a | r!b | r!c | recursion", signature_of_walk(repeated("abcdefgh", 40)));
    EXPECT_EQ("SIGSEGV r!a | r!b | r!c", signature_of_walk(repeated("abcdefghi", 40)));
}

// A function that calls itself within a cycle, as often as it likes.
TEST(CrashSignature, RecursionWithinRecursion)
{
    std::string expected = signature_of_walk("ababm");
    for (const char *walk : {"aabaabm", "aabaaabab", "abbabbb", "bbaaabaa"})
        EXPECT_EQ(expected, signature_of_walk(walk)) << walk;
    EXPECT_EQ(signature_of_walk("abcabc"), signature_of_walk("ababcabababcabc"));
}

// Call sites differ, the functions do not; and the library's and the C library's frames are not of the cycle.
TEST(CrashSignature, RecursionIsOfFunctions)
{
    EXPECT_EQ("SIGSEGV r!a | r!b | recursion",
              signature_of(11, {"/r(a+0x1) [0x1]", "/r(b+0x1) [0x11]", "/libc.so.6(qsort+0x9) [0x99]",
                                "/r(a+0x2) [0x2]", "/r(b+0x2) [0x12]", "0x77777"}));
    EXPECT_EQ("SIGSEGV r+0x1 | r+0x11 | recursion",
              signature_of(11, {"/r(+0x11) [0x11]", "/r(+0x1) [0x1]", "/r(+0x11) [0x11]", "/r(+0x1) [0x1]"}));
}

TEST(CrashSignature, UsersExtendTheList)
{
    signature_maker make;
    make.skip("# ours\n\nlog_and_die\ncheck_*\nmodule:libwrap.so*\n");
    EXPECT_EQ("SIGABRT r!bug", make(log_with(6, {"/r(log_and_die+0x1) [0x1]", "/r(check_one+0x1) [0x1]",
                                                 "/libwrap.so.2(f+0x1) [0x1]", "/r(bug+0x1) [0x1]"})));
}

TEST(CrashSignature, ReadableNames)
{
    EXPECT_EQ("SIGSEGV s!sampled::store_sample(unsigned long*) | s!main",
              readable_signature("SIGSEGV s!_ZN7sampled12store_sampleEPm | s!main"));
    EXPECT_EQ("SIGSEGV s!n::f() | s!n::g() | recursion",
              readable_signature("SIGSEGV s!_ZN1n1fEv | s!_ZN1n1gEv | recursion"));
    EXPECT_EQ("SIGSEGV unattributable", readable_signature("SIGSEGV unattributable"));
}

// ---- the command ----

constexpr std::time_t kDay = 86400;

void write_log(const std::string &path, const std::string &function, std::time_t when)
{
    write_file(path, "PID 7 for signal(11).\nBacktracing:\n\t<0x10> -> /usr/sbin/routed(" + function +
                         "+0x8) [0x1008]\n\tStack bottom is at 0x10\n\n");
    timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
}

ChildResult group(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {build_dir() + "/qvcrash", "group"});
    return run_program(arguments);
}

std::vector<json> group_json(const std::string &path)
{
    ChildResult result = group({"--json", path});
    EXPECT_TRUE(result.exited(0)) << result.err;
    std::vector<json> groups;
    for (const std::string &line : lines(result.out))
        groups.push_back(json::parse(line));
    return groups;
}

void write_three_logs()
{
    ::mkdir("/tmp/logs", 0755);
    ::mkdir("/tmp/logs/box2", 0755);
    write_log("/tmp/logs/routed1.coredump.11.log", "handle", 10 * kDay);
    write_log("/tmp/logs/box2/routed2.coredump.11.log", "handle", 12 * kDay);
    write_log("/tmp/logs/box2/routed3.coredump.11.log", "other", 11 * kDay);
    write_file("/tmp/logs/readme.txt", "no log");
}

void expect_three_logs(const std::vector<json> &groups, const std::string &prefix)
{
    ASSERT_EQ(2u, groups.size());
    EXPECT_EQ("SIGSEGV routed!handle", groups[0]["signature"]);
    EXPECT_EQ(2, groups[0]["count"]);
    EXPECT_EQ("1970-01-11T00:00:00Z", groups[0]["first"]);
    EXPECT_EQ("1970-01-13T00:00:00Z", groups[0]["last"]);
    EXPECT_EQ(prefix + "box2/routed2.coredump.11.log", groups[0]["example"]);
    EXPECT_EQ(1, groups[0]["days"]["1970-01-11"]);
    EXPECT_EQ(1, groups[1]["count"]);
}

TEST(QvcrashGroup, Folders)
{
    write_three_logs();
    expect_three_logs(group_json("/tmp/logs"), "/tmp/logs/");
}

TEST(QvcrashGroup, Archives)
{
    write_three_logs();
    ASSERT_TRUE(run_program({"/bin/tar", "-C", "/tmp/logs", "-cf", "/tmp/a.tar", "."}).exited(0));
    expect_three_logs(group_json("/tmp/a.tar"), "/tmp/a.tar:./");
    ASSERT_TRUE(run_program({"/bin/tar", "-C", "/tmp/logs", "-czf", "/tmp/a.tar.gz", "."}).exited(0));
    expect_three_logs(group_json("/tmp/a.tar.gz"), "/tmp/a.tar.gz:./");
}

// As logrotate leaves them. The name of one does not say that it is compressed.
TEST(QvcrashGroup, CompressedLogs)
{
    write_three_logs();
    std::string text = read_file("/tmp/logs/routed1.coredump.11.log");
    for (const compression &form : kForms)
        write_compressed(std::string("/tmp/logs/routed8.coredump.11.log") + form.ending, form, text);
    write_compressed("/tmp/logs/routed9.coredump.11.log", kForms[0], text);
    ChildResult result = group({"/tmp/logs"});
    EXPECT_TRUE(result.exited(0)) << result.err;
    EXPECT_THAT(result.out, testing::HasSubstr("8 crash logs in 2 groups, 0 other files, 0 unreadable"));
}

TEST(QvcrashGroup, CompressedLogsInArchives)
{
    write_three_logs();
    for (const compression &form : kForms)
        write_compressed(std::string("/tmp/logs/routed8.coredump.11.log") + form.ending, form,
                         read_file("/tmp/logs/routed1.coredump.11.log"));
    ASSERT_TRUE(run_program({"/bin/tar", "-C", "/tmp/logs", "-czf", "/tmp/a.tar.gz", "."}).exited(0));
    EXPECT_THAT(group({"/tmp/a.tar.gz"}).out, testing::HasSubstr("7 crash logs in 2 groups, 0 other files"));
}

// More than the beginning that a signature is made of, compressed too.
TEST(QvcrashGroup, LargeCompressedLogs)
{
    write_three_logs();
    std::string text = read_file("/tmp/logs/routed1.coredump.11.log");
    std::minstd_rand next;
    while (text.size() < 1500000)
        text += static_cast<char>(next());
    for (const compression &form : {kForms[0], kForms[3]}) { // the others take seconds to compress it
        std::string path = std::string("/tmp/large.log") + form.ending;
        write_compressed(path, form, text);
        ASSERT_LT(1u << 20, read_file(path).size());
        ChildResult result = group({path});
        EXPECT_TRUE(result.exited(0)) << result.err;
        EXPECT_THAT(result.out, testing::HasSubstr("1 crash logs in 1 groups")) << path;
    }
}

TEST(QvcrashGroup, LogsThatCannotBeDecompressedAreNamed)
{
    write_three_logs();
    for (const compression &form : kForms) {
        std::string path = std::string("/tmp/routed9.coredump.11.log") + form.ending;
        write_compressed(path, form, read_file("/tmp/logs/routed1.coredump.11.log"));
        std::string whole = read_file(path);
        write_file(path, whole.substr(0, whole.size() / 2));
        ChildResult result = group({path});
        EXPECT_TRUE(result.exited(1)) << path;
        EXPECT_THAT(result.out, testing::HasSubstr("1 unreadable"));
        EXPECT_THAT(result.err, testing::StartsWith("qvcrash: " + path + ": cannot be decompressed: "));
    }
}

TEST(QvcrashGroup, OnlyTheFirstUnreadableFilesAreNamed)
{
    ASSERT_EQ(0, mkdir("/tmp/logs", 0755));
    for (int i = 0; i < 25; i++)
        write_file("/tmp/logs/" + std::to_string(i) + ".log.gz", "\x1f\x8b\x08 no more");
    std::vector<std::string> messages = lines(group({"/tmp/logs"}).err);
    ASSERT_EQ(21u, messages.size());
    EXPECT_EQ("qvcrash: and 5 more files", messages.back());
}

// This format has the texts in other files, named by the archive.
TEST(QvcrashGroup, ArchivesLeadToNoOtherFiles)
{
    write_three_logs();
    write_file("/tmp/a.tar", "#mtree\n./x.coredump.11.log type=file contents=/tmp/logs/routed1.coredump.11.log\n");
    ChildResult result = group({"/tmp/a.tar"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.out, testing::HasSubstr("0 crash logs in 0 groups, 0 other files, 1 unreadable"));
}

TEST(QvcrashGroup, TerminalControlsAreNotPassedOn)
{
    std::string control = "\x1b]0;x\x07\xc2\x9b";
    ASSERT_EQ(0, mkdir("/tmp/logs", 0755));
    write_log("/tmp/logs/" + control + "1.coredump.11.log", "f" + control, kDay);
    write_file("/tmp/logs/" + control + ".log", "\x1f\x8b\x08 no more");
    ChildResult result = group({"/tmp/logs"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_EQ(std::string::npos, (result.out + result.err).find_first_of("\x1b\x07\xc2"));
    EXPECT_THAT(result.out, testing::HasSubstr("routed!f\\x1b]0;x\\x07\\xc2\\x9b"));
    EXPECT_THAT(result.err, testing::HasSubstr("\\x1b]0;x\\x07\\xc2\\x9b.log: cannot be decompressed"));
}

TEST(QvcrashGroup, PipesAreNotWaitedFor)
{
    ASSERT_EQ(0, mkdir("/tmp/logs", 0755));
    for (const char *name : {"/tmp/logs/a.tar", "/tmp/logs/a.log.gz", "/tmp/logs/a.log"})
        ASSERT_EQ(0, mkfifo(name, 0600));
    ChildResult result = group({"/tmp/logs"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.out, testing::HasSubstr("0 other files, 3 unreadable"));
}

TEST(QvcrashGroup, DamagedArchivesAreTold)
{
    write_file("/tmp/a.tar.gz", "no archive");
    ChildResult result = group({"/tmp/a.tar.gz"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.out, testing::HasSubstr("1 unreadable"));
    EXPECT_TRUE(group({"/tmp/missing.log"}).exited(1));
    EXPECT_TRUE(group({}).exited(2));
}

TEST(QvcrashGroup, DumpRequestsAreNotCounted)
{
    write_file("/tmp/routed7.attach.52.log", "PID 7 for signal(52).\nBacktracing:\n\tStack bottom is at 0x10\n\n");
    ChildResult result = group({"/tmp/routed7.attach.52.log"});
    EXPECT_TRUE(result.exited(0));
    EXPECT_THAT(result.out, testing::HasSubstr("0 crash logs in 0 groups, 1 other files"));
}

// In /tmp another user may have placed a link to a file that only this one may write.
TEST(QvcrashGroup, PageIsNotWrittenThroughALink)
{
    write_file("/etc/other", "kept");
    write_file("/tmp/mine", "kept");
    ASSERT_EQ(0, mkdir("/tmp/logs", 0755));
    ASSERT_EQ(0, symlink("/etc/other", "/tmp/link.html"));
    ASSERT_EQ(0, link("/tmp/mine", "/tmp/second.html"));
    ASSERT_EQ(0, mkfifo("/tmp/pipe.html", 0666));
    for (const char *page : {"/tmp/link.html", "/tmp/second.html", "/tmp/pipe.html"}) {
        ChildResult result = group({"--html", page, "/tmp/logs"});
        EXPECT_TRUE(result.exited(1)) << page;
        EXPECT_THAT(result.err, testing::StartsWith(std::string("qvcrash: ") + page + ": "));
    }
    EXPECT_EQ("kept", read_file("/etc/other"));
    EXPECT_EQ("kept", read_file("/tmp/mine"));

    ASSERT_EQ(0, mkdir("/tmp/own", 0755));
    ASSERT_EQ(0, symlink("/etc/other", "/tmp/own/page.html")) << "in a folder of the user's a link is the user's";
    EXPECT_TRUE(group({"--html", "/tmp/own/page.html", "/tmp/logs"}).exited(0));
    EXPECT_NE("kept", read_file("/etc/other"));

    ASSERT_EQ(0, chmod("/tmp/own", 0775));
    EXPECT_TRUE(group({"--html", "/tmp/own/page.html", "/tmp/logs"}).exited(1)) << "the group may have placed it";
}

TEST(QvcrashGroup, PageStandsAlone)
{
    write_three_logs();
    write_log("/tmp/logs/routed4.coredump.11.log", "<b>&\"", 11 * kDay);
    ASSERT_TRUE(group({"--html", "/tmp/page.html", "/tmp/logs"}).exited(0));
    std::string page = read_file("/tmp/page.html");
    EXPECT_THAT(page, testing::HasSubstr("4 crash logs, 3 groups"));
    EXPECT_THAT(page, testing::HasSubstr("&lt;b&gt;&amp;&quot;"));
    EXPECT_EQ(std::string::npos, page.find("<b>"));
    EXPECT_EQ(std::string::npos, page.find("http")) << "it refers to nothing outside";
}

} // namespace
