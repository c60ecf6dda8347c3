// SPDX-License-Identifier: Apache-2.0
// The command qvstat, run as an engineer would on processes that have the library loaded.
#include "support/support.h"

#include <nlohmann/json.hpp>
#include <regex>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;
using nlohmann::json;
using testing::HasSubstr;

namespace {

const std::string kProgram = build_dir() + "/qvstat";

// A running host that has done what its arguments say, and waits.
class Host {
public:
    explicit Host(std::vector<std::string> arguments)
    {
        int input[2], output[2];
        if (pipe(input) != 0 || pipe(output) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(input[0], STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            for (int fd : {input[0], input[1], output[0], output[1]})
                close(fd);
            const std::string path = build_dir() + "/tests/inspected_host";
            std::vector<char *> argv = {const_cast<char *>(path.c_str())};
            for (std::string &argument : arguments)
                argv.push_back(argument.data());
            argv.push_back(nullptr);
            execv(path.c_str(), argv.data());
            _exit(1);
        }
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        char ready[6];
        EXPECT_EQ(6, read(output[0], ready, sizeof ready)) << "the host did not start";
        close(output[0]);
    }

    ~Host()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(input_);
    }

    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    std::string id() const { return std::to_string(pid_); }
    bool lives() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

    // Lets it allocate and free a block.
    void allocate() { EXPECT_EQ(1, write(input_, "x", 1)); }

private:
    pid_t pid_;
    int input_;
};

ChildResult qvstat(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), kProgram);
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

TEST(Refusal, ProcessWithoutTheLibrary)
{
    ChildResult result = qvstat({std::to_string(getppid())});
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
        if (setuid(kNobody) != 0 || access(kProgram.c_str(), X_OK) != 0)
            _exit(77);
        execl(kProgram.c_str(), "qvstat", host.id().c_str(), nullptr);
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
