// SPDX-License-Identifier: Apache-2.0
// Hosts that need a separate process: their malloc() is not the library's, or other libraries are involved.
#include "support/support.h"

#include <sys/auxv.h>
#include <utility>

using namespace support;

namespace {

#define NEEDS_INTERPOSITION()                                                                                          \
    if (under_sanitizer())                                                                                             \
    GTEST_SKIP() << "interposition is off in this build: the sanitizer has the allocator"

ChildResult run_host(std::vector<std::string> arguments, int timeout_ms = 20000)
{
    if (!arguments[0].starts_with('/'))
        arguments[0] = build_dir() + "/tests/" + arguments[0];
    ChildResult result = run_program(arguments, timeout_ms);
    EXPECT_FALSE(result.timed_out);
    EXPECT_TRUE(result.exited(0)) << result.status << result.err;
    return result;
}

std::string said_by(std::vector<std::string> arguments)
{
    return run_host(std::move(arguments)).out;
}

std::string loader_host(const char *mode)
{
    return run_host({"loader_host", mode, "2", build_dir() + "/tests/libtls_plugin.so"}, 60000).out;
}

} // namespace

TEST(MallocHosts, OneThatLoadsTheLibraryLateIsNotIntercepted)
{
    if (under_sanitizer())
        GTEST_SKIP() << "a sanitizer's run time must come before the library";
    EXPECT_EQ("good\n", said_by({"late_host", build_dir() + "/libcommon.so.1"}));
}

TEST(MallocHosts, OneWithItsOwnAllocatorServesTheLibraryToo)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer has the allocator";
    EXPECT_EQ("good\n", said_by({"own_allocator_host"}));
}

namespace {

// Runs a test program with a tunable of the C library.
std::vector<std::string> tuned(const std::string &tunable, std::vector<std::string> arguments)
{
    arguments[0] = build_dir() + "/tests/" + arguments[0];
    arguments.insert(arguments.begin(), {"/usr/bin/env", "GLIBC_TUNABLES=" + tunable});
    return arguments;
}

bool processor_has_tags()
{
#ifdef HWCAP2_MTE
    return (::getauxval(AT_HWCAP2) & HWCAP2_MTE) != 0;
#else
    return false;
#endif
}

} // namespace

TEST(MallocHosts, OneUnderTheCLibrarysChecker)
{
    NEEDS_INTERPOSITION();
    // With its checks on, the checker has another lock, which a forked child would find held: no fork then.
    const std::pair<const char *, std::size_t> modes[] = {{"glibc.malloc.check=0", effort(200)},
                                                          {"glibc.malloc.check=3", 0}};
    for (auto [tunable, forks] : modes) {
        std::vector<std::string> command = tuned(tunable, {"checked_host", std::to_string(forks)});
        command.insert(command.begin() + 2, "LD_PRELOAD=libc_malloc_debug.so.0");
        EXPECT_EQ("good\n", said_by(command));
    }
}

TEST(MallocHosts, OneWithATaggedHeap)
{
    NEEDS_INTERPOSITION();
    EXPECT_EQ("plain\n", said_by(tuned("glibc.mem.tagging=0", {"tagged_host", "all"})));
    const char *expected = processor_has_tags() ? "tagged\n" : "plain\n";
    for (const char *tunable : {"glibc.mem.tagging=1", "glibc.mem.tagging=3"}) {
        EXPECT_EQ(expected, said_by(tuned(tunable, {"tagged_host", "small"}))) << tunable;
        if (run_program(tuned(tunable, {"tag_trial"})).exited(0)) {
            EXPECT_EQ(expected, said_by(tuned(tunable, {"tagged_host", "all"}))) << tunable;
        }
    }
}

// ---- fork handlers and finalisers of a library that was initialised earlier ----

TEST(EarlyLibrary, ItsForkHandlersAllocateUnderFullTracing)
{
    NEEDS_INTERPOSITION();
    EXPECT_EQ("good\n", said_by({"early_host", "full", std::to_string(effort(200))}));
}

TEST(EarlyLibrary, ItsForkHandlersAllocateWithATraceFile)
{
    NEEDS_INTERPOSITION();
    EXPECT_EQ("good\n", said_by({"early_host", "file", std::to_string(effort(200))}));
}

TEST(EarlyLibrary, WhatItFreesAtItsEndIsInTheTraceFile)
{
    NEEDS_INTERPOSITION();
    run_host({"early_host", "exit"});
    std::string address;
    bool freed = false;
    for (const std::string &line : lines(read_file("/tmp/trace"))) {
        std::size_t sign = line.find("] + 0x");
        if (sign != line.npos && line.ends_with(" 0x1234"))
            address = line.substr(sign + 4, line.find(' ', sign + 4) - sign - 4);
        freed = freed || (!address.empty() && line.ends_with("] - " + address));
    }
    EXPECT_NE("", address);
    EXPECT_TRUE(freed) << read_file("/tmp/trace");
}

// ---- the loader's locks ----

TEST(LoaderThreads, ForksUnderFullTracing)
{
    NEEDS_INTERPOSITION();
    EXPECT_EQ("good\n", loader_host("full"));
}

TEST(LoaderThreads, ThreadsThatStartWithATraceFile)
{
    NEEDS_INTERPOSITION();
    EXPECT_EQ("good\n", loader_host("file"));
}
