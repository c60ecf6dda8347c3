// SPDX-License-Identifier: Apache-2.0
// The sample daemon, run as a user would.
#include "support/support.h"

#include <csignal>

using namespace support;

namespace {

ChildResult run_example(const std::string &name, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), build_dir() + "/examples/" + name);
    return run_program(arguments);
}

ChildResult sampled(std::vector<std::string> arguments)
{
    return run_example("sampled", std::move(arguments));
}

ChildResult sampled_c(std::vector<std::string> arguments)
{
    return run_example("sampled_c", std::move(arguments));
}

std::string console_log()
{
    return read_file("/etc/consolelog");
}

TEST(Sampled, TakesSamplesUntilItsTimeIsOver)
{
    ChildResult result = sampled({"--period", "0.05", "--clients", "2", "--run-for", "0.5"});
    EXPECT_TRUE(result.exited(0)) << result.status << result.err;
    std::string log = console_log();
    EXPECT_THAT(log, testing::HasSubstr("sampled: started, pid "));
    EXPECT_THAT(log, testing::HasSubstr("sampled: sample 1 of client-0, session 1\n"));
    EXPECT_THAT(log, testing::HasSubstr("sampled: sample 2 of client-1, session 2\n"));
    EXPECT_THAT(log, testing::HasSubstr("sampled: sample 3 of client-0, session 1\n"))
        << "the first client's second sample";
    EXPECT_THAT(log, testing::ContainsRegex("sampled: stopping after [0-9]+ samples\n"));
}

TEST(Sampled, ACrashIsLogged)
{
    ChildResult result = sampled({"--crash-after", "0.05", "--name", "victim"});
    EXPECT_TRUE(result.killed_by(SIGSEGV)) << result.status;
    std::string log;
    for (const std::string &name : list_dir("/etc/core"))
        if (name.starts_with("victim") && name.ends_with(".coredump.11.log"))
            log = read_file("/etc/core/" + name);
    EXPECT_THAT(log, testing::HasSubstr("sampled15take_bad_sample"));
    EXPECT_THAT(log, testing::HasSubstr("sampled: 1 samples, 1 wakeups, 0 sessions\n"));
}

TEST(Sampled, ItsLeakIsFound)
{
    if (under_sanitizer())
        GTEST_SKIP() << "interposition is off in this build: the sanitizer has the allocator";
    ChildResult result = run_program({"/bin/sh", "-c",
                                      build_dir() + "/examples/sampled --period 0.1 --leak 1000 --run-for 3 &\n"
                                                    "sleep 2.5; kill -USR1 $!; wait $!"});
    EXPECT_TRUE(result.exited(0)) << result.status << result.err;
    std::string log = console_log();
    EXPECT_THAT(log, testing::ContainsRegex("sampled: [0-9]+000 bytes in [0-9]+ blocks stay allocated\n"));
    EXPECT_THAT(log, testing::ContainsRegex("sampled:     from .*leak_some.*@0x"));
}

TEST(Sampled, Usage)
{
    for (const std::vector<std::string> &wrong :
         std::vector<std::vector<std::string>>{{"--unknown", "1"}, {"--period"}, {"--period", "0"}, {"--clients", "0"}})
        EXPECT_TRUE(sampled(wrong).exited(2));
}

TEST(SampledInC, TakesSamplesUntilItsTimeIsOver)
{
    ChildResult result = sampled_c({"--period", "0.05", "--clients", "2", "--run-for", "0.5"});
    EXPECT_TRUE(result.exited(0)) << result.status << result.err;
    std::string log = console_log();
    EXPECT_THAT(log, testing::HasSubstr("sampled_c: started, pid "));
    EXPECT_THAT(log, testing::HasSubstr("sampled_c: sample 2 of client-1, session 2\n"));
    EXPECT_THAT(log, testing::HasSubstr("sampled_c: sample 3 of client-0, session 1\n"));
    EXPECT_THAT(log, testing::ContainsRegex("sampled_c: stopping after [0-9]+ samples\n"));
}

TEST(SampledInC, ASignalStopsIt)
{
    ChildResult result = run_program({"/bin/sh", "-c",
                                      build_dir() + "/examples/sampled_c --period 30 &\n"
                                                    "until grep -q started /etc/consolelog; do sleep 0.05; done\n"
                                                    "kill $!; wait $!"});
    EXPECT_TRUE(result.exited(0)) << result.status << result.err;
    EXPECT_THAT(console_log(), testing::HasSubstr("sampled_c: stopping after 0 samples\n"));
}

TEST(SampledInC, ACrashIsLogged)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer pads the entries of the callback table in C";
    ChildResult result = sampled_c({"--crash-after", "0.05"});
    EXPECT_TRUE(result.killed_by(SIGSEGV)) << result.status;
    std::string log;
    for (const std::string &name : list_dir("/etc/core"))
        if (name.starts_with("sampled_c") && name.ends_with(".coredump.11.log"))
            log = read_file("/etc/core/" + name);
    EXPECT_THAT(log, testing::HasSubstr("(process_stimer+0x"));
    EXPECT_THAT(log, testing::HasSubstr("sampled_c: 0 samples\n"));
}

TEST(SampledInC, Usage)
{
    for (const std::vector<std::string> &wrong :
         std::vector<std::vector<std::string>>{{"--unknown", "1"}, {"--period"}, {"--period", "0"}, {"--clients", "0"}})
        EXPECT_TRUE(sampled_c(wrong).exited(2));
}

} // namespace
