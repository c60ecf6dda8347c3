// SPDX-License-Identifier: Apache-2.0
// The command qvstat, run as an engineer would on processes that have the library loaded.
#include "qvstat/processes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/capability.h>
#include <nlohmann/json.hpp>
#include <pty.h>
#include <regex>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;
using nlohmann::json;
using testing::HasSubstr;

namespace {

ChildResult qvstat(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), kQvstat);
    return run_program(arguments);
}

json qvstat_json(std::vector<std::string> arguments)
{
    arguments.insert(arguments.end(), {"--json", "--interval", "0.05"});
    ChildResult result = qvstat(arguments);
    EXPECT_TRUE(result.exited(0)) << result.err;
    json object = json::parse(result.out, nullptr, false);
    EXPECT_FALSE(object.is_discarded()) << result.out;
    return object;
}

int marked_line(const std::string &mark)
{
    std::vector<std::string> source = lines(read_file(LIBCOMMON_INSPECTED_HOST));
    for (std::size_t i = 0; i < source.size(); i++) {
        if (source[i].ends_with("// line: " + mark))
            return static_cast<int>(i + 1);
    }
    ADD_FAILURE() << "no line is marked " << mark;
    return 0;
}

// Of several lines, the one that starts with this number.
std::string line_of(const std::string &text, const std::string &id)
{
    for (const std::string &line : lines(text)) {
        if (std::regex_search(line, std::regex("^ *" + id + " ")))
            return line;
    }
    return {};
}

TEST(List, HasALineForEachProcessWithTheLibrary)
{
    Host plain({"caches"}), traced({"leak"});
    ChildResult result = qvstat({"--interval", "0.05"});
    EXPECT_THAT(line_of(result.out, plain.id()), HasSubstr("inspected_host"));
    EXPECT_THAT(line_of(result.out, plain.id()), HasSubstr(" 2       200 light"));
    EXPECT_THAT(line_of(result.out, traced.id()), HasSubstr(" full"));
    EXPECT_EQ("", line_of(result.out, "1"));
}

TEST(List, IsAnObjectALineWithJson)
{
    Host host({"large"});
    ChildResult result = qvstat({"--json", "--interval", "0.05"});
    bool is_listed = false;
    for (const std::string &line : lines(result.out)) {
        json object = json::parse(line, nullptr, false);
        ASSERT_FALSE(object.is_discarded()) << line;
        EXPECT_EQ("qvstat-list-1", object["format"]);
        if (object["process"] != std::stoi(host.id()))
            continue;
        is_listed = true;
        EXPECT_LE(100U << 20, object["heap"]["bytes"].get<std::uint64_t>());
        EXPECT_EQ("light", object["trace"]);
    }
    EXPECT_TRUE(is_listed);
}

TEST(Process, ShowsCachesWithWhatTheyHold)
{
    Host host({"caches"});
    json object = qvstat_json({host.id()});
    ASSERT_EQ(2U, object["caches"].size());
    EXPECT_EQ("sessions", object["caches"][1]["name"]);
    EXPECT_EQ(104, object["caches"][1]["object_size"]);
    EXPECT_EQ(200, object["caches"][1]["in_use"]);
    EXPECT_EQ("empty", object["caches"][0]["name"]);
    EXPECT_EQ(0, object["caches"][0]["in_use"]);
    EXPECT_THAT(qvstat({host.id()}).out, HasSubstr("sessions"));
}

TEST(Process, CountsItsCalls)
{
    Host host({});
    json before = qvstat_json({host.id()});
    for (int i = 0; i < 10; i++)
        host.allocate();
    json after;
    for (int i = 0; i < 100; i++) {
        after = qvstat_json({host.id()});
        if (after["heap"]["allocations"].get<int>() - before["heap"]["allocations"].get<int>() >= 10)
            break;
    }
    EXPECT_EQ(10, after["heap"]["allocations"].get<int>() - before["heap"]["allocations"].get<int>());
    EXPECT_EQ(10, after["heap"]["frees"].get<int>() - before["heap"]["frees"].get<int>());
    EXPECT_EQ(before["heap"]["blocks"], after["heap"]["blocks"]);
}

TEST(Leaks, NameFunctionAndLine)
{
    Host host({"leak"});
    ChildResult result = qvstat({host.id(), "leaks", "--after", "0"});
    EXPECT_TRUE(result.exited(0)) << result.err;
    EXPECT_THAT(result.out, HasSubstr("5000 bytes in 5 blocks"));
    EXPECT_THAT(result.out, HasSubstr("inspected_host.cpp:" + std::to_string(marked_line("leak"))));
    EXPECT_THAT(result.out, HasSubstr("leak_blocks"));
}

TEST(Leaks, HaveModulesAndOffsetsInJson)
{
    Host host({"leak"});
    json leaks = qvstat_json({host.id(), "leaks", "--after", "0"})["leaks"];
    ASSERT_FALSE(leaks.empty());
    EXPECT_EQ(5000, leaks[0]["bytes"]);
    bool names_line = false;
    for (const json &place : leaks[0]["chain"]) {
        EXPECT_TRUE(place.contains("offset")) << place.dump();
        for (const json &function : place["functions"])
            names_line |= function.value("line", 0) == marked_line("leak") &&
                          place["module"].get<std::string>().ends_with("/inspected_host");
    }
    EXPECT_TRUE(names_line) << leaks[0].dump(1);
}

TEST(Leaks, AreOldByTheProcessOwnMeasure)
{
    Host host({"leak"});
    ChildResult result = qvstat({host.id(), "leaks"});
    EXPECT_TRUE(result.exited(0));
    EXPECT_EQ("", result.out);
}

TEST(Leaks, NeedRecords)
{
    Host host({});
    ChildResult result = qvstat({host.id(), "leaks"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("qv_mtrace_start()"));
}

TEST(Threads, ADeadlockIsACircle)
{
    Host host({"deadlock"});
    json object = json::object();
    for (int i = 0; i < 100 && object.value("deadlocks", json::array()).empty(); i++)
        object = qvstat_json({host.id(), "--threads"});
    ASSERT_EQ(1U, object["deadlocks"].size()) << object["threads"].dump(1);
    ASSERT_EQ(3U, object["threads"].size());
    const json &left = object["threads"][1], &right = object["threads"][2];
    EXPECT_EQ("left", left["name"]);
    EXPECT_EQ("right", right["name"]);
    EXPECT_EQ(right["id"], left["owner"]);
    EXPECT_EQ(left["id"], right["owner"]);
    EXPECT_EQ("futex", left["system_call_name"]);
    EXPECT_EQ(json::array({left["id"], right["id"]}), object["deadlocks"][0]);
    std::string ids[] = {left["id"].dump(), right["id"].dump()};
    EXPECT_THAT(qvstat({host.id(), "--threads"}).out,
                HasSubstr("deadlock: " + ids[0] + " waits for " + ids[1] + " waits for " + ids[0]));
}

TEST(Dump, NamesTheLogThatTheProcessWrites)
{
    Host host({"handlers"});
    ChildResult result = qvstat({host.id(), "dump"});
    EXPECT_TRUE(result.exited(0)) << result.err;
    EXPECT_EQ("/etc/core/inspected_host" + host.id() + ".attach.14.log\n", result.out);
    EXPECT_THAT(read_file(lines(result.out).at(0)), HasSubstr("Stack bottom"));
    EXPECT_TRUE(host.lives());
}

TEST(Dump, SecondLogReplacesTheFirst)
{
    Host host({"handlers"});
    EXPECT_TRUE(qvstat({host.id(), "dump"}).exited(0));
    EXPECT_TRUE(qvstat({host.id(), "dump"}).exited(0));
}

// The signal would end the process, or reach a handler that means something else.
void expect_no_signal(const Host &host)
{
    for (const std::vector<std::string> &request :
         {std::vector<std::string>{host.id(), "dump"}, {host.id(), "trace", "on"}}) {
        ChildResult result = qvstat(request);
        EXPECT_TRUE(result.exited(1));
        EXPECT_THAT(result.err, HasSubstr("install_sighandler()"));
    }
    EXPECT_TRUE(host.lives());
}

TEST(Unarmed, WithoutHandlersGetsNoSignal)
{
    expect_no_signal(Host({}));
}

TEST(Unarmed, WithItsOwnHandlersGetsNoSignal)
{
    expect_no_signal(Host({"own-handler"}));
}

TEST(Trace, TerminationLoggerGetsNoSignal)
{
    Host host({"terminate"});
    ChildResult result = qvstat({host.id(), "trace", "on"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("pstrace_terminate_signal()"));
    EXPECT_TRUE(host.lives());
}

TEST(Trace, ProcessThatEndsIsNotWaitedFor)
{
    Host host({"handlers", "end-at-trace"});
    ChildResult result = qvstat({host.id(), "trace", "on"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("ended meanwhile"));
}

TEST(Trace, IsSwitchedOnAndOff)
{
    Host host({"handlers"});
    std::string file = "/etc/mtrace" + host.id() + ".log";
    ChildResult on = qvstat({host.id(), "trace", "on"});
    EXPECT_TRUE(on.exited(0)) << on.err;
    EXPECT_EQ("writing " + file + "\n", on.out);
    EXPECT_EQ("file", qvstat_json({host.id()})["trace"]);
    EXPECT_THAT(qvstat({host.id(), "trace", "on"}).out, HasSubstr("already"));
    ChildResult off = qvstat({host.id(), "trace", "off"});
    EXPECT_TRUE(off.exited(0)) << off.err;
    EXPECT_THAT(read_file(file), HasSubstr("= Start"));
    EXPECT_EQ("light", qvstat_json({host.id()})["trace"]);
    EXPECT_THAT(qvstat({host.id(), "trace", "off"}).out, HasSubstr("no trace"));
}

// ---- metrics ----

// Checks a text by the parser of a client of another make.
void expect_openmetrics(const std::string &text)
{
    write_file("/tmp/metrics", text);
    if (!run_program({"/usr/bin/python3", "-c", "import prometheus_client.openmetrics.parser"}).exited(0))
        GTEST_SKIP() << "python3-prometheus-client is not installed";
    ChildResult result =
        run_program({"/usr/bin/python3", "-c",
                     "from prometheus_client.openmetrics.parser import text_string_to_metric_families as parse\n"
                     "print(sum(len(f.samples) for f in parse(open('/tmp/metrics').read())))"});
    EXPECT_TRUE(result.exited(0)) << result.err << text;
}

TEST(Metrics, HaveEachProcess)
{
    Host first({"caches"}), second({"large"});
    ChildResult result = qvstat({"--openmetrics"});
    EXPECT_TRUE(result.exited(0)) << result.err;
    std::string labels = "{pid=\"" + first.id() + "\",name=\"inspected_host\"";
    EXPECT_THAT(result.out, HasSubstr("libcommon_cache_objects" + labels + ",cache=\"sessions\"} 200\n"));
    EXPECT_THAT(result.out, HasSubstr("libcommon_heap_bytes{pid=\"" + second.id() + "\""));
    EXPECT_TRUE(result.out.ends_with("\n# EOF\n"));
    expect_openmetrics(result.out);
}

TEST(Metrics, NamesMayHoldAnything)
{
    Host host({"strange-names"});
    ChildResult result = qvstat({"--openmetrics"});
    EXPECT_THAT(result.out, HasSubstr(",cache=\"a \\\"b\\\\c?\"} 1\n"));
    EXPECT_THAT(result.out, HasSubstr(",cache=\"twice\"} 2\n")) << "two caches of one name are one series";
    expect_openmetrics(result.out);
}

TEST(Process, TerminalControlsInPathsAreNotPassedOn)
{
    std::string folder = "/tmp/\x1b[2J\xc2\x9b";
    ASSERT_TRUE(run_program({"/bin/mkdir", folder}).exited(0));
    for (const char *name : {"/libcommon.so.1", "/libheap.so.1"})
        ASSERT_TRUE(run_program({"/bin/cp", build_dir() + name, folder}).exited(0));
    ::setenv("LD_LIBRARY_PATH", folder.c_str(), 1);
    Host host({"caches"});
    std::string text = qvstat({host.id()}).out;
    EXPECT_EQ(std::string::npos, text.find_first_of("\x1b\xc2")) << text;
    EXPECT_THAT(text, HasSubstr("\\x1b[2J\\xc2\\x9b/libcommon.so.1, version "));
}

TEST(Server, AnswersOnTheLoopback)
{
    Host host({"caches"});
    Server server;
    EXPECT_THAT(server.greeting(), testing::StartsWith("listening at http://127.0.0.1:"));
    std::string answer = server.ask("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_THAT(answer, testing::StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer, HasSubstr("Content-Type: application/openmetrics-text; version=1.0.0; charset=utf-8\r\n"));
    EXPECT_THAT(answer, HasSubstr("pid=\"" + host.id() + "\""));
    EXPECT_TRUE(answer.ends_with("# EOF\n"));
}

// It needs to read processes and files of others, and answers strangers.
TEST(Server, KeepsNoOtherPrivilege)
{
    constexpr unsigned long kReads = 1UL << CAP_SYS_PTRACE | 1UL << CAP_DAC_READ_SEARCH;
    Server server;
    ASSERT_THAT(server.greeting(), testing::StartsWith("listening"));
    std::string status = read_file("/proc/" + std::to_string(server.pid()) + "/status");
    EXPECT_THAT(status, HasSubstr("\nNoNewPrivs:\t1\n"));
    for (const char *set : {"\nCapInh:", "\nCapPrm:", "\nCapEff:"}) {
        std::size_t at = status.find(set);
        ASSERT_NE(status.npos, at) << set;
        EXPECT_EQ(0U, std::strtoul(status.c_str() + at + std::strlen(set), nullptr, 16) & ~kReads) << set;
    }
}

// Such a root reads only processes whose capabilities it has.
TEST(Process, OfRootIsReadByRootWithoutTheRightToTrace)
{
    ChildResult result = run_child([] {
        if (!give_up_tracing())
            _exit(77);
        Host host({"caches"});
        Server server;
        std::string served = server.ask("GET /metrics HTTP/1.0\r\n\r\n");
        bool is_served = served.find("pid=\"" + host.id() + "\"") != served.npos;
        std::printf("%s%s\n", qvstat({host.id()}).out.c_str(), is_served ? "served" : served.c_str());
        std::fflush(stdout);
        _exit(0);
    });
    if (result.exited(77))
        GTEST_SKIP() << "the capability cannot be dropped here, or reading then takes more";
    EXPECT_THAT(result.out, HasSubstr("sessions"));
    EXPECT_THAT(result.out, testing::EndsWith("\nserved\n"));
}

TEST(Server, SurvivesWrongClients)
{
    Server server;
    EXPECT_THAT(server.ask("GET / HTTP/1.1\r\n\r\n"), testing::StartsWith("HTTP/1.1 404 "));
    EXPECT_THAT(server.ask("POST /metrics HTTP/1.1\r\n\r\n"), testing::StartsWith("HTTP/1.1 405 "));
    EXPECT_THAT(server.ask("\r\n\r\n"), testing::StartsWith("HTTP/1.1 405 "));
    close(connect_to(server.port())); // without a request
    EXPECT_THAT(server.ask("GET /metrics?x HTTP/1.0\r\n\r\n"), testing::StartsWith("HTTP/1.1 200 "));
}

TEST(Server, SaysWhyItCannotServe)
{
    ChildResult result = qvstat({"--openmetrics", "--listen", "127.0.0.1:none"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("127.0.0.1:none: "));
}

// ---- the screen ----

// The sandbox has no pseudo-terminals.
bool mount_terminals()
{
    return mkdir("/dev/pts", 0755) == 0 && mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666") == 0 &&
           symlink("pts/ptmx", "/dev/ptmx") == 0;
}

TEST(Top, ShowsAndSortsUntilQ)
{
    if (!mount_terminals())
        GTEST_SKIP() << "no pseudo-terminals here";
    Host host({"large"});
    winsize size = {200, 160, 0, 0};
    int terminal;
    pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    ASSERT_LE(0, child);
    if (child == 0) {
        setenv("TERM", "vt100", 1);
        execl(kQvstat.c_str(), "qvstat", "top", "--interval", "0.2", nullptr);
        _exit(77);
    }
    std::string screen;
    auto read_until = [&](const std::string &wanted) {
        char part[4096];
        ssize_t got;
        while (screen.find(wanted) == std::string::npos && (got = read(terminal, part, sizeof part)) > 0)
            screen.append(part, static_cast<std::size_t>(got));
        return screen.find(wanted) != std::string::npos;
    };
    EXPECT_TRUE(read_until("by heap")) << screen;
    EXPECT_TRUE(read_until(host.id())) << screen;
    EXPECT_EQ(1, write(terminal, "p", 1));
    EXPECT_TRUE(read_until("process; sort")) << screen;
    EXPECT_EQ(1, write(terminal, "q", 1));
    char rest[4096];
    while (read(terminal, rest, sizeof rest) > 0) {
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    close(terminal);
}

TEST(Top, NeedsATerminal)
{
    ChildResult result = qvstat({"top"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("terminal"));
}

// ---- refusals ----

TEST(Refusal, ProcessWithoutTheLibrary)
{
    Stranger stranger;
    ChildResult result = qvstat({stranger.id()});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("does not have libcommon loaded"));
}

TEST(Refusal, ProcessThatIsGone)
{
    pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    ChildResult result = qvstat({std::to_string(gone)});
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("does not exist"));
}

TEST(Refusal, ProcessOfAnotherUser)
{
    Host host({});
    constexpr uid_t kNobody = 65534;
    ChildResult result = run_child([&host] {
        if (setuid(kNobody) != 0 || access(kQvstat.c_str(), X_OK) != 0)
            _exit(77);
        execl(kQvstat.c_str(), "qvstat", host.id().c_str(), nullptr);
        _exit(77);
    });
    if (result.exited(77))
        GTEST_SKIP() << "another user cannot run the program here";
    EXPECT_TRUE(result.exited(1));
    EXPECT_THAT(result.err, HasSubstr("no permission"));
}

TEST(Usage, IsCheckedBeforeAnything)
{
    for (const std::vector<std::string> &wrong :
         {std::vector<std::string>{"x"}, {"1", "x"}, {"1", "trace"}, {"1", "trace", "x"}, {"-1"}, {"--x"}, {"0"}})
        EXPECT_TRUE(qvstat(wrong).exited(2));
    ChildResult help = qvstat({"--help"});
    EXPECT_TRUE(help.exited(0));
    EXPECT_THAT(help.out, HasSubstr("--threads"));
}

} // namespace
