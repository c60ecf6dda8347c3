// SPDX-License-Identifier: Apache-2.0
// Crash logs taken apart: complete ones, cut ones, ones on top of older ones, and texts that are none.
#include "crash_log.h"

#include "support/support.h"

using namespace qvcrash;

namespace {

constexpr char kBottom[] = "\tStack bottom is at 0xFFFFF77A5D10\n\n";

// A log that the AArch64 machine left.
std::string whole_log()
{
    return support::read_file(LIBCOMMON_LOGS "/sampled89.coredump.11.log");
}

std::string table_line(int first)
{
    char line[32];
    std::snprintf(line, sizeof line, "$%2d   :", first);
    return line;
}

TEST(CrashLog, WholeLogOfAnAArch64Process)
{
    crash_log log = parse_crash_log(whole_log(), "/logs/sampled89.coredump.11.log");
    EXPECT_EQ(log_kind::coredump, log.kind);
    EXPECT_EQ(machine::aarch64, log.from);
    EXPECT_EQ("sampled", log.process);
    EXPECT_EQ(89, log.id);
    EXPECT_FALSE(log.is_thread_id);
    EXPECT_EQ(11, log.signal);
    ASSERT_EQ(kRegisterCount, log.registers.size());
    EXPECT_EQ("x0", log.registers[0].name);
    EXPECT_EQ(4u, log.registers[1].value);
    EXPECT_EQ("x30(LR)", log.registers[30].name);
    EXPECT_EQ(0xaaaab5b636a8u, log.registers[30].value);
    EXPECT_EQ(0x10u, log.fault);
    EXPECT_EQ(0xaaaab5b63648u, log.pc);
    EXPECT_EQ(0xfffff77a59a0u, log.sp);
    EXPECT_EQ(0x60001000u, log.state);
    ASSERT_EQ(7u, log.frames.size());
    EXPECT_EQ(0xFFFFF77A59A0u, log.frames[0].frame_address);
    EXPECT_EQ("/opt/libcommon/examples/sampled", log.frames[0].code.file);
    EXPECT_EQ("_ZN7sampled12store_sampleEPm", log.frames[0].code.symbol);
    EXPECT_EQ(8, log.frames[0].code.offset);
    EXPECT_EQ("", log.frames[5].code.symbol);
    EXPECT_EQ(0x27780, log.frames[5].code.offset);
    EXPECT_EQ(0xFFFFF77A5D10u, log.stack_bottom);
    EXPECT_EQ("", log.host_text);
    EXPECT_EQ("", log.tail);
    EXPECT_TRUE(log.problems.empty());
}

TEST(CrashLog, ThreadsAndTerminations)
{
    crash_log thread = parse_crash_log("TID 815 for signal(11). thread name : /etc/core/rx0815.coredump.11.log\n",
                                       "rx0815.coredump.11.log");
    EXPECT_TRUE(thread.is_thread_id);
    EXPECT_EQ(815, thread.id);
    EXPECT_EQ("rx0", thread.process) << "digits of the name stay";

    crash_log term = parse_crash_log("Process 7 receive signal(15) from pid 4,\nBacktracing:\n" + std::string(kBottom),
                                     "routed7.term.15.log");
    EXPECT_EQ(log_kind::term, term.kind);
    EXPECT_EQ(15, term.signal);
    EXPECT_EQ(4, term.sender);
    EXPECT_EQ("routed", term.process);
}

TEST(CrashLog, KindByFileNameElseBySignal)
{
    std::string head = "PID 812 for signal(14).\n";
    EXPECT_EQ(log_kind::attach, parse_crash_log(head, "routed812.attach.14.log").kind);
    EXPECT_EQ(log_kind::attach, parse_crash_log(head, "saved").kind);
    EXPECT_EQ(log_kind::coredump, parse_crash_log("PID 812 for signal(11).\n", "saved").kind);
    EXPECT_EQ(log_kind::backtrace, parse_crash_log("Backtracing:\n" + std::string(kBottom), "saved").kind);
    EXPECT_EQ(log_kind::unknown, parse_crash_log("", "saved").kind);
    EXPECT_EQ(log_kind::unknown, parse_crash_log("hello\n", "routed812.coredump.11.log").kind);
    EXPECT_EQ(log_kind::allocation, parse_crash_log("= Start\n= End\n", "mtrace812.log").kind);
    EXPECT_EQ(log_kind::text, parse_crash_log("from /bin/x(f+0x1) [0x10]\n", "leaks.txt").kind);
}

TEST(CrashLog, HostTextFollowsTheBottom)
{
    crash_log log = parse_crash_log(whole_log() + "sessions: 3\n", "sampled89.coredump.11.log");
    EXPECT_EQ("sessions: 3\n", log.host_text);
    EXPECT_EQ("", log.tail);
}

// The file is written over and not cut.
TEST(CrashLog, TheRestOfAnOlderLogIsNotRead)
{
    std::string old_log = whole_log();
    std::string new_log = old_log;
    std::size_t dropped = new_log.find("\t<0xFFFFF77A59F0>");
    std::size_t resumed = new_log.find("\tStack bottom");
    new_log.erase(dropped, resumed - dropped);
    std::string on_disk = new_log + "sessions: 3\n";
    on_disk += old_log.substr(on_disk.size());
    crash_log log = parse_crash_log(on_disk, "sampled89.coredump.11.log");
    EXPECT_EQ(1u, log.frames.size());
    EXPECT_EQ("sessions: 3\n", log.host_text.substr(0, 12));
    EXPECT_NE(std::string::npos, log.tail.find("Stack bottom"));
    EXPECT_NE(std::string::npos, log.tail.find("__libc_start_main"));
}

// A second dump of a process is often some bytes shorter than the first one.
TEST(CrashLog, TheRestOfOlderDetailsIsNotTheHostsText)
{
    std::string details = "Details 1:\nself   : pid 89 tid 89 name sampled\nversion: libcommon 1\nDetails end\n";
    std::string host = "sessions: 3\n";
    for (const char *rest : {"d\n", " end\n", "Details end\n", "con 1\nDetails end\n", "limit  : x\nDetails end\n"}) {
        crash_log log = parse_crash_log(whole_log() + details + rest + host, "sampled89.attach.52.log");
        EXPECT_EQ(host, log.host_text) << rest;
        EXPECT_EQ(rest, log.tail);
        ASSERT_TRUE(log.details) << rest;
        EXPECT_TRUE(log.details->lines.size() == 1 && log.details->is_complete);
    }
    crash_log log = parse_crash_log(whole_log() + details + host, "sampled89.attach.52.log");
    EXPECT_EQ(host, log.host_text);
    EXPECT_EQ("", log.tail);
}

// One file name served all threads of a process that were asked for a dump.
TEST(CrashLog, DumpsOfSeveralThreadsInOneFile)
{
    std::string first = "TID 7 for signal(52). thread name : rx\nBacktracing:\n\t<0x10> -> /r(a+0x1) [0x1]\n";
    std::string second = "TID 8 for signal(52). thread name : tx\nBacktracing:\n\t<0x20> -> /r(b+0x1) [0x2]\n";
    std::string rest = "\t<0x11> -> /r(c+0x1) [0x3]\n\tStack bottom is at 0x11\n\n";

    crash_log after = parse_crash_log(first + rest + second + rest, "r7.attach.52.log");
    EXPECT_TRUE(after.is_mixture);
    EXPECT_EQ(7, after.id);
    EXPECT_EQ(2u, after.frames.size());
    EXPECT_TRUE(after.tail.starts_with("TID 8"));
    EXPECT_EQ("", after.host_text);

    crash_log between = parse_crash_log(first + second + rest + rest, "r7.attach.52.log");
    EXPECT_TRUE(between.is_mixture);
    EXPECT_EQ(7, between.id);
    EXPECT_EQ(3u, between.frames.size());
    EXPECT_TRUE(between.problems.empty());
    EXPECT_EQ(0x11u, between.stack_bottom);

    EXPECT_FALSE(parse_crash_log(first + rest, "r7.attach.52.log").is_mixture);
}

TEST(CrashLog, CutAtEveryByteNothingIsInvented)
{
    std::string text = whole_log();
    crash_log whole = parse_crash_log(text, "sampled89.coredump.11.log");
    for (std::size_t size = 0; size < text.size(); size++) {
        crash_log log = parse_crash_log(text.substr(0, size), "sampled89.coredump.11.log");
        ASSERT_LE(log.frames.size(), whole.frames.size());
        for (std::size_t i = 0; i < log.frames.size(); i++)
            ASSERT_EQ(whole.frames[i].code.address, log.frames[i].code.address) << "cut at " << size;
        ASSERT_LE(log.registers.size(), whole.registers.size());
        for (std::size_t i = 0; i < log.registers.size(); i++)
            ASSERT_EQ(whole.registers[i].value, log.registers[i].value) << "cut at " << size;
    }
}

TEST(CrashLog, AMangledLineSpoilsOneFrameOnly)
{
    std::string text = whole_log();
    std::size_t broken = text.find("\t<0xFFFFF77A5A10> -> ");
    text.replace(broken, 5, "\t<zzz");
    crash_log log = parse_crash_log(text, "sampled89.coredump.11.log");
    EXPECT_EQ(6u, log.frames.size());
    EXPECT_FALSE(log.problems.empty());
    EXPECT_EQ(0xFFFFF77A5D10u, log.stack_bottom);
}

TEST(CrashLog, RegisterLinesOutOfPlaceAreLeftOut)
{
    std::string text = whole_log();
    text.replace(text.find(table_line(8)), 7, table_line(4));
    crash_log log = parse_crash_log(text, "sampled89.coredump.11.log");
    EXPECT_EQ(8u, log.registers.size());
    EXPECT_FALSE(log.problems.empty());
    EXPECT_FALSE(register_value(log, 8));
}

TEST(CrashLog, ReferencesInLines)
{
    auto found = find_reference("  from /bin/x(_Zf+0x1a) [0x10aa] and more");
    ASSERT_TRUE(found);
    EXPECT_EQ("/bin/x", found->code.file);
    EXPECT_EQ("_Zf", found->code.symbol);
    EXPECT_EQ(0x1a, found->code.offset);
    EXPECT_EQ(0x10aau, found->code.address);
    EXPECT_EQ(7u, found->begin);
    EXPECT_FALSE(find_reference("a (b) [0x]"));
    EXPECT_FALSE(find_reference("[0x10]"));
    auto below = find_reference("/bin/x(f-0x10) [0xff0]");
    ASSERT_TRUE(below);
    EXPECT_EQ(-0x10, below->code.offset);
    auto bare = find_reference("/bin/x() [0x400123]");
    ASSERT_TRUE(bare);
    EXPECT_FALSE(bare->code.offset);
}

} // namespace
