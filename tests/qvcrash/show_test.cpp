// SPDX-License-Identifier: Apache-2.0
// qvcrash show, run as a support engineer would on logs that real processes leave.
#include "compressed.h"
#include "support/support.h"

#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace support;
using nlohmann::json;

namespace {

const std::string kHost = build_dir() + "/tests/failing_host";

// The number of the line of the failing host that has this mark.
int marked_line(const std::string &mark)
{
    std::vector<std::string> source = lines(read_file(LIBCOMMON_FAILING_HOST));
    for (std::size_t i = 0; i < source.size(); i++) {
        if (source[i].ends_with("// line: " + mark))
            return static_cast<int>(i + 1);
    }
    ADD_FAILURE() << "no line is marked " << mark;
    return 0;
}

// Lets the host fail and returns the path of the log that it left.
std::string log_of(const std::string &failure)
{
    run_program({kHost, failure, build_dir() + "/tests/failing_plugin.so"});
    std::vector<std::string> logs = list_dir("/etc/core");
    if (logs.size() != 1) {
        ADD_FAILURE() << failure << " left " << logs.size() << " logs";
        return {};
    }
    return "/etc/core/" + logs.front();
}

ChildResult show(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {build_dir() + "/qvcrash", "show"});
    return run_program(arguments);
}

json show_json(const std::string &log, std::vector<std::string> arguments = {})
{
    arguments.insert(arguments.begin(), {"--json", log});
    ChildResult result = show(arguments);
    EXPECT_TRUE(result.exited(0)) << result.err;
    json object = json::parse(result.out, nullptr, false);
    EXPECT_FALSE(object.is_discarded()) << result.out;
    return object;
}

std::string causes_of(const json &object)
{
    std::string text;
    for (const json &cause : object["causes"])
        text += cause.get<std::string>() + '\n';
    return text;
}

bool has_line(const json &places, int line)
{
    for (const json &place : places) {
        for (const json &function : place["functions"]) {
            if (function.value("line", 0) == line)
                return true;
        }
    }
    return false;
}

// Among the frames, or among the calls of any thread.
bool names_line(const json &object, int line)
{
    if (has_line(object["frames"], line))
        return true;
    for (const json &thread : object.value("details", json::object()).value("threads", json::array())) {
        if (has_line(thread["calls"], line))
            return true;
    }
    return false;
}

struct expected_answer {
    const char *failure;
    const char *mark;
    const char *cause;
};

void PrintTo(const expected_answer &answer, std::ostream *out)
{
    *out << answer.failure;
}

std::string test_name(const testing::TestParamInfo<expected_answer> &failure)
{
    std::string name = std::string(failure.param.failure) + '_' + failure.param.mark;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == ' ' || c == '-'; }, '_');
    return name;
}

class Explained : public testing::TestWithParam<expected_answer> {};

TEST_P(Explained, NamesCauseAndLine)
{
    json object = show_json(log_of(GetParam().failure));
    EXPECT_TRUE(names_line(object, marked_line(GetParam().mark))) << object.dump(1);
    EXPECT_THAT(causes_of(object), testing::HasSubstr(GetParam().cause));
}

const expected_answer kDivision = {"division", "division", "A whole number was divided by 0"};
const expected_answer kAnswers[] = {
    {"null-member", "null member", "A member at offset 8 of a null pointer"},
    {"stale-object", "stale object", "a fill pattern"},
    {"vtable", "corrupted vtable", "was followed"},
    {"null-call", "wild call", "Jump through a null pointer"},
    {"wild-call", "wild call", "Jump through a wild pointer, to 0x7777000, which is no code"},
    {"inlined", "inlined", "A null pointer was followed"},
    {"inlined", "around inlined", "inlined_store"},
    {"double-free", "double free", "Object cache \"sessions\": double free of object "},
    {"overrun", "overrun", "the guard word behind it holds 0x1111111111111111"},
    {"abort", "abort", "The process called abort()"},
    {"assert", "assert", "Assertion `value == 17' failed."},
    {"exception", "uncaught exception", "uncaught std::runtime_error: no route"},
    {"stack-overflow", "stack overflow", "Stack overflow: "},
    {"deadlock", "deadlock", "Deadlock: thread "},
    {"out-of-memory", "out of memory", "A member at offset 8 of a null pointer"},
    {"unloaded-plugin", "unloaded plug-in", "failing_plugin.so was unloaded"},
    {"sent-signal", "sent signal", "The process sent itself the signal"},
    {"read-only", "read-only", "is mapped, but not for this access"},
    {"truncated-file", "truncated file", "ends before it"},
};

INSTANTIATE_TEST_SUITE_P(Failures, Explained, testing::ValuesIn(kAnswers), test_name);
INSTANTIATE_TEST_SUITE_P(Division, Explained, testing::Values(kDivision), test_name);

// Logs that tools/arm-crashes fetched from the AArch64 kernel, read here with the files that were running there. A
// division by zero is no failure there.
class ArmLogs : public testing::Test {
protected:
    void SetUp() override
    {
        if (::access(kCrashes.c_str(), R_OK) != 0)
            GTEST_SKIP() << "no logs from AArch64: tools/arm-crashes makes them, for a clone that is not below /tmp";
    }

    static json show_arm(const std::string &failure)
    {
        std::string folder = kCrashes + '/' + failure;
        std::vector<std::string> logs = list_dir(folder);
        EXPECT_EQ(1u, logs.size()) << folder;
        return logs.empty() ? json::object() : show_json(folder + '/' + logs.front(), {"--root", kCrashes + "/root"});
    }

    static inline const std::string kCrashes = LIBCOMMON_ARM_CRASHES;
};

class ExplainedArm : public ArmLogs, public testing::WithParamInterface<expected_answer> {};

TEST_P(ExplainedArm, NamesCauseAndLine)
{
    json object = show_arm(GetParam().failure);
    EXPECT_EQ("aarch64", object["machine"]);
    EXPECT_TRUE(names_line(object, marked_line(GetParam().mark))) << object.dump(1);
    EXPECT_THAT(causes_of(object), testing::HasSubstr(GetParam().cause));
    for (const json &module : object["modules"])
        EXPECT_THAT(module["identity"], testing::AnyOf("same", "missing")) << module["path"];
    for (const json &frame : object["frames"])
        EXPECT_NE("stack-top", frame["origin"]) << "calls push nothing there";
}

INSTANTIATE_TEST_SUITE_P(Failures, ExplainedArm, testing::ValuesIn(kAnswers), test_name);

// count_session() keeps no frame, so only the register knows its caller.
TEST_F(ArmLogs, ALinkRegisterThatIsNotSavedIsTheCaller)
{
    json object = show_arm("null-member");
    EXPECT_EQ("link-register", object["frames"][1]["origin"]);
    EXPECT_EQ("main", object["frames"][1]["functions"][0]["function"]);
    EXPECT_EQ(std::string::npos, causes_of(object).find("0x101010101010101")) << "a constant of strcmp()";
}

TEST_F(ArmLogs, AnOverwrittenReturnAddressIsNamed)
{
    EXPECT_THAT(causes_of(show_arm("overwritten-return")),
                testing::HasSubstr("its return address on the stack was overwritten"));
}

// raise() has saved it, and calls return to it.
TEST_F(ArmLogs, ALinkRegisterThatIsSavedIsNotTheCaller)
{
    for (const json &frame : show_arm("abort")["frames"])
        EXPECT_NE("link-register", frame["origin"]);
}

TEST_F(ArmLogs, AFunctionsStartIsNoReturnAddress)
{
    for (const json &frame : show_arm("abort")["frames"]) {
        for (const json &function : frame["functions"])
            EXPECT_EQ(std::string::npos, function["function"].get<std::string>().find("watch_deadlock"));
    }
}

// The function is known on x86-64 only, where the return instruction itself faults.
TEST(QvcrashShow, AnOverwrittenReturnAddressIsNamed)
{
    json object = show_json(log_of("overwritten-return"));
    EXPECT_THAT(causes_of(object), testing::HasSubstr("its return address on the stack was overwritten"));
    EXPECT_TRUE(names_line(object, marked_line("overwritten return"))) << object.dump(1);
}

// The jump leaves nothing of the caller but the word at the stack pointer.
TEST(QvcrashShow, TheCallerOfAWildJumpComesFirst)
{
    std::string log = log_of("wild-call");
    json object = show_json(log);
    EXPECT_EQ("stack-top", object["frames"][0]["origin"]);
    EXPECT_EQ(marked_line("wild call"), object["frames"][0]["functions"][0].value("line", 0));
    EXPECT_THAT(show({log}).out, testing::HasSubstr("(probable caller, from the top of the stack)"));
}

TEST(QvcrashShow, DumpRequestsAreNoCrashes)
{
    json object = show_json(log_of("dump"));
    EXPECT_EQ("attach", object["kind"]);
    EXPECT_THAT(causes_of(object), testing::HasSubstr("the process went on"));
}

TEST(QvcrashShow, TextNamesFunctionsAndSourceLines)
{
    ChildResult result = show({"--source", "3", log_of("null-member")});
    EXPECT_TRUE(result.exited(0));
    EXPECT_THAT(result.out, testing::HasSubstr("ended by SIGSEGV (Segmentation fault)"));
    EXPECT_THAT(result.out, testing::HasSubstr("s->count++; // line: null member"));
}

// A host without details leaves a log without build ids.
std::string without_details(const std::string &log)
{
    std::string text = read_file(log), path = "/tmp/" + log.substr(log.rfind('/') + 1);
    write_file(path, text.substr(0, text.find("Details 1:")));
    return path;
}

TEST(QvcrashShow, SaysWhenTheFilesCannotBeKnown)
{
    std::string log = log_of("null-member");
    EXPECT_EQ(std::string::npos, show({log}).out.find("cannot be known"));
    std::string plain = without_details(log);
    EXPECT_THAT(show({plain}).out, testing::HasSubstr("cannot be known"));
    EXPECT_TRUE(names_line(show_json(plain), marked_line("null member"))) << "by the addresses alone";
}

// An image has its own files at the log's paths; nothing outside it is read.
TEST(QvcrashShow, RootIsNotLeft)
{
    std::string log = log_of("null-member");
    ::mkdir("/tmp/image", 0755);
    json empty = show_json(log, {"--root", "/tmp/image"});
    EXPECT_FALSE(names_line(empty, marked_line("null member")));
    EXPECT_EQ("missing", empty["modules"][0]["identity"]);

    // A link inside the image leads nowhere outside.
    std::string folder = "/tmp/image" + kHost.substr(0, kHost.rfind('/'));
    ASSERT_TRUE(run_program({"/bin/mkdir", "-p", folder}).exited(0));
    ASSERT_EQ(0, ::symlink(kHost.c_str(), ("/tmp/image" + kHost).c_str()));
    EXPECT_EQ("missing", show_json(log, {"--root", "/tmp/image"})["modules"][0]["identity"]);

    ASSERT_EQ(0, ::unlink(("/tmp/image" + kHost).c_str()));
    ASSERT_TRUE(run_program({"/bin/cp", kHost, folder}).exited(0));
    EXPECT_TRUE(names_line(show_json(log, {"--root", "/tmp/image"}), marked_line("null member")));
}

TEST(QvcrashShow, SeparateDebugFilesByBuildIdAndByLink)
{
    std::string log = log_of("null-member");
    std::string folder = "/tmp/image" + kHost.substr(0, kHost.rfind('/'));
    ASSERT_TRUE(run_program({"/bin/mkdir", "-p", folder, "/tmp/debug"}).exited(0));
    std::string stripped = "/tmp/image" + kHost;
    ASSERT_TRUE(run_program({"/usr/bin/objcopy", "--only-keep-debug", kHost, "/tmp/debug/host.debug"}).exited(0));
    ASSERT_TRUE(run_program({"/usr/bin/objcopy", "--strip-debug", kHost, stripped}).exited(0));
    int line = marked_line("null member");
    EXPECT_FALSE(names_line(show_json(log, {"--root", "/tmp/image", "--debug", "/tmp/debug"}), line))
        << "nothing leads there";

    ASSERT_TRUE(run_program({"/usr/bin/objcopy", "--add-gnu-debuglink=/tmp/debug/host.debug", stripped}).exited(0));
    EXPECT_TRUE(names_line(show_json(log, {"--root", "/tmp/image", "--debug", "/tmp/debug"}), line));

    // Another file of that name does not count.
    ASSERT_TRUE(run_program({"/usr/bin/objcopy", "--only-keep-debug", build_dir() + "/qvenv", "/tmp/debug/host.debug"})
                    .exited(0));
    EXPECT_FALSE(names_line(show_json(log, {"--root", "/tmp/image", "--debug", "/tmp/debug"}), line));
}

// The host below an image, changed by a shell command from $host to $image.
std::string image_with(const std::string &command)
{
    std::string image = "/tmp/image" + kHost;
    EXPECT_TRUE(run_program({"/bin/mkdir", "-p", image.substr(0, image.rfind('/'))}).exited(0));
    ChildResult made = run_program({"/bin/sh", "-ec", "host=" + kHost + " image=" + image + "; cd /tmp; " + command});
    EXPECT_TRUE(made.exited(0)) << made.err;
    return "/tmp/image";
}

TEST(QvcrashShow, CompressedSections)
{
    std::string log = log_of("null-member");
    std::string root = image_with("objcopy --compress-debug-sections=zlib $host $image");
    EXPECT_TRUE(names_line(show_json(log, {"--root", root}), marked_line("null member")));
}

// What some distributions leave in stripped programs: function names, without lines.
TEST(QvcrashShow, SymbolsWithinAStrippedProgram)
{
    std::string log = log_of("null-member");
    std::string root = image_with("objcopy -S $host $image");
    auto names_function = [&] { return show({"--root", root, log}).out.find("count_session") != std::string::npos; };
    EXPECT_FALSE(names_function());
    image_with(
        "objcopy --strip-debug $host names; xz names; objcopy -S --add-section .gnu_debugdata=names.xz $host $image");
    EXPECT_TRUE(names_function());
}

// As an unpacked package of debug symbols has them.
TEST(QvcrashShow, ATreeOfDebugFilesByBuildId)
{
    std::string log = log_of("null-member");
    std::string root = image_with("objcopy -S $host $image");
    json object = show_json(log, {"--root", root});
    EXPECT_FALSE(names_line(object, marked_line("null member")));
    std::string id;
    for (const json &module : object["modules"]) {
        if (module["path"] == kHost)
            id = module["build_id"];
    }
    ASSERT_EQ(40u, id.size());
    std::string folder = "/tmp/dbgsym/usr/lib/debug/.build-id/" + id.substr(0, 2);
    ASSERT_TRUE(run_program({"/bin/mkdir", "-p", folder}).exited(0));
    std::string file = folder + '/' + id.substr(2) + ".debug";
    ASSERT_TRUE(run_program({"/usr/bin/objcopy", "--only-keep-debug", kHost, file}).exited(0));
    EXPECT_TRUE(names_line(show_json(log, {"--root", root, "--debug", "/tmp/dbgsym"}), marked_line("null member")));
}

// An upgrade leaves the old program running: its file is gone, or another one has its path.
TEST(QvcrashShow, ADebugFileServesWithoutItsProgram)
{
    std::string log = log_of("null-member");
    ASSERT_TRUE(run_program({"/bin/mkdir", "-p", "/tmp/gone", "/tmp/debug"}).exited(0));
    ASSERT_TRUE(
        run_program({"/usr/bin/objcopy", "--only-keep-debug", kHost, "/tmp/debug/failing_host.debug"}).exited(0));
    std::string upgraded = image_with("cp " + build_dir() + "/qvenv $image");
    for (const std::string &root : {std::string("/tmp/gone"), upgraded}) {
        EXPECT_FALSE(names_line(show_json(log, {"--root", root}), marked_line("null member")));
        json object = show_json(log, {"--root", root, "--debug", "/tmp/debug"});
        EXPECT_TRUE(names_line(object, marked_line("null member"))) << object.dump(1);
        EXPECT_EQ("same", object["modules"][0]["identity"]);
    }
}

TEST(QvcrashShow, LinesMayEndAsOnAnotherSystem)
{
    std::string log = log_of("null-member"), other;
    for (const std::string &line : lines(read_file(log)))
        other += line + "\r\n";
    json expected = show_json(log);
    write_file(log, other);
    EXPECT_EQ(expected, show_json(log));
}

// Above main() the stack holds arguments and pointers to functions, and the walk may follow them.
TEST(QvcrashShow, NothingIsAboveTheOutermostFunction)
{
    json frames = show_json(log_of("assert"))["frames"];
    bool is_above = false;
    for (const json &frame : frames) {
        for (const json &function : frame["functions"]) {
            std::string name = function["function"];
            EXPECT_FALSE(is_above && name.find("start") == std::string::npos) << name;
            is_above |= name.starts_with("__libc_start");
        }
    }
    EXPECT_TRUE(is_above);
}

// It would become a part of paths.
TEST(QvcrashShow, ABuildIdIsHexadecimal)
{
    write_file("/tmp/x1.coredump.11.log",
               "PID 1 for signal(11).\nBacktracing:\n\tStack bottom is at 0x0\n\nDetails 1:\n"
               "module : 0000000000010000 0000000000020000 ../../x /usr/sbin/routed\nDetails end\n");
    std::string shown = show({"--json", "/tmp/x1.coredump.11.log"}).out;
    EXPECT_THAT(shown, testing::HasSubstr("/usr/sbin/routed"));
    EXPECT_EQ(std::string::npos, shown.find("../../x"));
}

// Return addresses of the log follow no call there.
TEST(QvcrashShow, AnotherBuildIsNoticed)
{
    std::string log = log_of("double-free");
    std::string folder = "/tmp/image" + kHost.substr(0, kHost.rfind('/'));
    ASSERT_TRUE(run_program({"/bin/mkdir", "-p", folder}).exited(0));
    ASSERT_TRUE(run_program({"/bin/cp", build_dir() + "/qvenv", "/tmp/image" + kHost}).exited(0));
    json object = show_json(log, {"--root", "/tmp/image"});
    EXPECT_FALSE(names_line(object, marked_line("double free")));
    for (const json &module : object["modules"]) {
        if (module["path"] == kHost) {
            EXPECT_EQ("differs", module["identity"]);
        }
    }
}

TEST(QvcrashShow, ExitStatuses)
{
    write_file("/tmp/other.txt", "no log\n");
    EXPECT_TRUE(show({"/tmp/other.txt"}).exited(1));
    EXPECT_TRUE(show({"/tmp/missing.log"}).exited(1));
    EXPECT_TRUE(show({}).exited(2));
    EXPECT_TRUE(show({"--root", "/tmp/missing", "/tmp/other.txt"}).exited(2));
    EXPECT_TRUE(show({"--source", "0", "/tmp/other.txt"}).exited(2));
}

// Writes a log of a walk over functions that have one letter each, and shows it.
ChildResult show_walk(const std::string &letters, std::vector<std::string> arguments = {})
{
    std::string text = "PID 1 for signal(11).\nBacktracing:\n";
    for (char letter : letters)
        text += std::string("\t<0x10> -> /r(") + letter + "+0x1) [0x" + std::to_string(letter) + "]\n";
    write_file("/tmp/x1.coredump.11.log", text + "\tStack bottom is at 0x10\n\n");
    arguments.push_back("/tmp/x1.coredump.11.log");
    return show(arguments);
}

// The functions that are shown, each by its letter and, where it follows itself, how often; cycles as "[LETTERS]TIMES".
std::string shown_walk(const std::string &letters)
{
    std::string text;
    std::size_t left = 0, times = 0;
    json object = json::parse(show_walk(letters, {"--json"}).out);
    for (const json &frame : object["frames"]) {
        if (frame.contains("cycle")) {
            EXPECT_EQ(0u, left);
            text += '[';
            left = frame["cycle"]["frames"];
            times = frame["cycle"]["times"];
        }
        std::string address = frame["address"];
        text += static_cast<char>(std::stoi(address.substr(2)));
        if (frame["repeats"] != 1)
            text += std::to_string(frame["repeats"].get<int>());
        if (left != 0 && --left == 0)
            text += ']' + std::to_string(times);
    }
    return text;
}

TEST(QvcrashShow, RecursionIsShownOnce)
{
    EXPECT_EQ("a7m", shown_walk("aaaaaaam"));
    EXPECT_EQ("[ab]3m", shown_walk("abababm"));
    EXPECT_EQ("[ab]3a", shown_walk("abababa")) << "an unfinished round stays";
    EXPECT_EQ("[ba]3m", shown_walk("bababam"));
    EXPECT_EQ("x[abc]2abm", shown_walk("xabcabcabm"));
    EXPECT_EQ("[abcdefgh]2m", shown_walk("abcdefghabcdefghm"));
    EXPECT_EQ("abcdefghiabcdefghim", shown_walk("abcdefghiabcdefghim"));
    EXPECT_EQ("abcm", shown_walk("abcm"));
    EXPECT_EQ("abcabm", shown_walk("abcabm"));
    EXPECT_EQ("[a2b]3m", shown_walk("aabaabaabm"));
    EXPECT_EQ("a[ba2]2bm", shown_walk("abaabaabm"));
    EXPECT_EQ("[ababc]2m", shown_walk("ababcababcm"));
    EXPECT_EQ("[ab]2[cd]2m", shown_walk("ababcdcdm"));
    EXPECT_EQ("[ab]2", shown_walk("abab"));
}

TEST(QvcrashShow, FramesAfterRecursionKeepTheirNumbers)
{
    std::vector<std::string> text = lines(show_walk("xaabaabaabm").out);
    auto from =
        std::find_if(text.begin(), text.end(), [](const std::string &line) { return line.starts_with("  #0"); });
    ASSERT_LE(5, text.end() - from);
    EXPECT_THAT(from[0], testing::StartsWith("  #0   /r(x+0x1)"));
    EXPECT_THAT(from[1], testing::AllOf(testing::StartsWith("  #1   /r(a+0x1)"), testing::EndsWith("  (2 times)")));
    EXPECT_THAT(from[2], testing::StartsWith("  #3   /r(b+0x1)"));
    EXPECT_EQ("       (#1 to #3 follow one another 3 times, up to #9)", from[3]);
    EXPECT_THAT(from[4], testing::StartsWith("  #10  /r(m+0x1)"));
}

TEST(QvcrashShow, FunctionsThatCallOneAnotherToTheEndOfTheStack)
{
    std::string log = log_of("mutual-recursion");
    json object = show_json(log);
    EXPECT_THAT(causes_of(object), testing::HasSubstr("Stack overflow: "));
    EXPECT_TRUE(names_line(object, marked_line("item of a list"))) << object.dump(1);
    EXPECT_TRUE(names_line(object, marked_line("list of an item")));
    EXPECT_LE(object["frames"].size(), 8u) << object.dump(1);
    ChildResult grouped = run_program({build_dir() + "/qvcrash", "group", log});
    EXPECT_THAT(grouped.out, testing::HasSubstr(" | recursion\n"));
}

constexpr char kPlainLog[] = "PID 7 for signal(11).\nBacktracing:\n\t<0x10> -> /usr/sbin/routed(handle+0x8) [0x1008]\n"
                             "\tStack bottom is at 0x10\n\n";

// In every form in which qvcrash group reads it.
TEST(QvcrashShow, CompressedLogs)
{
    std::string path = "/tmp/routed7.coredump.11.log";
    write_file(path, kPlainLog);
    json expected = show_json(path);
    for (const compression &form : kForms) {
        for (const std::string &name : {path + form.ending, path}) {
            write_compressed(name, form, kPlainLog);
            json object = show_json(name);
            EXPECT_EQ(name, object["log"]);
            object["log"] = expected["log"];
            EXPECT_EQ(expected, object) << name << form.ending;
        }
    }
}

TEST(QvcrashShow, LogsThatCannotBeDecompressedAreNamed)
{
    for (const compression &form : kForms) {
        std::string path = std::string("/tmp/routed7.coredump.11.log") + form.ending;
        write_compressed(path, form, kPlainLog);
        std::string whole = read_file(path);
        write_file(path, whole.substr(0, whole.size() / 2));
        ChildResult result = show({path});
        EXPECT_TRUE(result.exited(1)) << path;
        EXPECT_EQ("", result.out);
        EXPECT_THAT(result.err, testing::StartsWith("qvcrash: " + path + ": cannot be decompressed: "));
    }
}

// An archive as qvcrash bundle writes it, and one with a compressed log.
TEST(QvcrashShow, EachLogOfAnArchive)
{
    ::mkdir("/tmp/logs", 0755);
    write_file("/tmp/logs/routed7.coredump.11.log", kPlainLog);
    write_compressed("/tmp/logs/routed8.coredump.11.log.gz", kForms[0], kPlainLog);
    write_file("/tmp/logs/other.txt", kPlainLog);
    ASSERT_TRUE(run_program({"/bin/tar", "-C", "/tmp/logs", "-cf", "/tmp/a.tar", "."}).exited(0));
    ChildResult result = show({"/tmp/a.tar"});
    EXPECT_TRUE(result.exited(0)) << result.err;
    EXPECT_THAT(result.out, testing::HasSubstr("/tmp/a.tar:./routed7.coredump.11.log\n"));
    EXPECT_THAT(result.out, testing::HasSubstr("/tmp/a.tar:./routed8.coredump.11.log.gz\n"));
    EXPECT_EQ(std::string::npos, result.out.find("other.txt"));

    ASSERT_TRUE(run_program({"/bin/tar", "-C", "/tmp/logs", "-cf", "/tmp/b.tar", "other.txt"}).exited(0));
    result = show({"/tmp/b.tar"});
    EXPECT_TRUE(result.exited(1));
    EXPECT_EQ("qvcrash: /tmp/b.tar: has no logs in it\n", result.err);
}

// From another command: qvcrash show <(ssh box cat LOG)
TEST(QvcrashShow, LogsFromPipes)
{
    write_compressed("/tmp/log.gz", kForms[0], kPlainLog);
    for (const char *command : {"cat /tmp/log.gz", "gzip -dc /tmp/log.gz"}) {
        ChildResult result = run_program(
            {"/bin/sh", "-c", std::string(command) + " | " + build_dir() + "/qvcrash show /proc/self/fd/0"});
        EXPECT_TRUE(result.exited(0)) << result.err;
        EXPECT_THAT(result.out, testing::HasSubstr("/usr/sbin/routed(handle+0x8)"));
    }
}

TEST(QvcrashShow, TerminalControlsInALogAreNotPassedOn)
{
    write_file("/tmp/x1.coredump.11.log",
               "PID 1 for signal(11).\nBacktracing:\n\tStack bottom is at 0x0\n\nbell \x1b]0;x\x07\n");
    ChildResult result = show({"/tmp/x1.coredump.11.log"});
    EXPECT_TRUE(result.exited(0));
    EXPECT_EQ(std::string::npos, result.out.find('\x1b'));
    EXPECT_THAT(result.out, testing::HasSubstr("\\x1b]0;x\\x07"));
}

// What a host writes with backtrace_symbols_fd(), with and without a symbol.
TEST(QvcrashShow, SavedLeakReportsAreExplained)
{
    json log = show_json(log_of("null-member"));
    std::string offset = log["frames"][1]["offset"];
    std::string place = kHost + "(+" + offset + ")[" + log["frames"][1]["address"].get<std::string>() + "]";
    write_file("/tmp/leaks", "4000 bytes in 1 blocks\n" + place + "\nfrom " + place + " and on\n");
    ChildResult shown = show({"/tmp/leaks"});
    EXPECT_TRUE(shown.exited(0));
    std::vector<std::string> text = lines(shown.out);
    auto is_named = [](const std::string &line) { return line.find("=> main") != std::string::npos; };
    EXPECT_EQ(2, std::count_if(text.begin(), text.end(), is_named)) << shown.out;
}

TEST(QvcrashShow, TracesOfAllocationsAreSummedUpByCaller)
{
    write_file("/tmp/mtrace7.log", "= Start\n"
                                   "@ /bin/x:(f+0x1)[0x10] + 0x1000 0x20\n"
                                   "@ /bin/x:(f+0x1)[0x10] + 0x2000 0x30\n"
                                   "@ /bin/x:(g+0x1)[0x40] + 0x3000 0x10\n"
                                   "@ /bin/x:(g+0x1)[0x40] < 0x3000\n"
                                   "@ /bin/x:(g+0x1)[0x40] > 0x4000 0x100\n"
                                   "@ /bin/x:(h+0x1)[0x50] - 0x2000\n"
                                   "@ /bin/x:(h+0x1)[0x50] - 0x9000\n"
                                   "= End\n");
    json object = show_json("/tmp/mtrace7.log");
    ASSERT_EQ(2u, object["groups"].size());
    EXPECT_EQ(0x100, object["groups"][0]["bytes"]);
    EXPECT_EQ("0x40", object["groups"][0]["offset"]);
    EXPECT_EQ(0x20, object["groups"][1]["bytes"]);
    EXPECT_EQ(1, object["groups"][1]["blocks"]);
    EXPECT_THAT(object["remarks"][0].get<std::string>(), testing::HasSubstr("1 blocks were freed"));
}

} // namespace
