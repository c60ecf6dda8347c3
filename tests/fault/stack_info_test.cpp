// SPDX-License-Identifier: Apache-2.0
// Stack ranges from synthetic and real mapping lists, and the record of the main stack.
#include "stack_info.h"
#include "support/support.h"

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace support;

namespace {

std::string task_file(const char *name)
{
    std::string path = "/proc/";
    path.append(std::to_string(::getpid())).append("/task/");
    return path.append(std::to_string(::syscall(SYS_gettid))).append("/").append(name);
}

struct Range {
    int result;
    unsigned long start = 11, end = 22; // unchanged when nothing is found
};

Range main_stack()
{
    Range range;
    range.result = qv_get_stack_info(&range.start, &range.end);
    return range;
}

Range stack_of(unsigned long addr)
{
    Range range;
    range.result = qv_get_thread_stack_info(addr, &range.start, &range.end);
    return range;
}

void expect_range(const Range &range, unsigned long start, unsigned long end)
{
    EXPECT_EQ(0, range.result);
    EXPECT_EQ(start, range.start);
    EXPECT_EQ(end, range.end);
}

void expect_nothing(const Range &range)
{
    expect_range(range, 11, 22);
}

void set_maps(const std::string &content)
{
    bind_over(task_file("maps"), content);
}

void in_thread(void *(*body)(void *))
{
    pthread_t thread;
    ASSERT_EQ(0, ::pthread_create(&thread, nullptr, body, nullptr));
    ASSERT_EQ(0, ::pthread_join(thread, nullptr));
}

} // namespace

TEST(StackInfo, TheRealMainStack)
{
    int local = 0;
    Range range = main_stack();
    EXPECT_EQ(0, range.result);
    auto here = reinterpret_cast<unsigned long>(&local);
    if (!under_sanitizer()) { // which may keep locals outside the stack
        EXPECT_TRUE(range.start <= here && here < range.end);
    }
}

TEST(StackInfo, FirstValidLineMarkedStack)
{
    set_maps("1000-2000 rw-p 0 0:0 0 [heap]\n0-2000 rw-p 0 0:0 0 [stack]\n5000-5000 rw-p 0 0:0 0 [stack]\n"
             "1000- 2000 rw-p 0 0:0 0 [stack]\nAb000-aC000 rw-p 0 0:0 0 [stack]\n3000-4000 rw-p 0 0:0 0 [stack]\n");
    expect_range(main_stack(), 0xab000, 0xac000);
}

TEST(StackInfo, NoSuchLineLeavesTheOutputs)
{
    set_maps("1000-2000 rw-p 0 0:0 0 [heap]\n");
    expect_nothing(main_stack());
    set_maps("");
    expect_nothing(main_stack());
    set_maps("1000-2000 rw-p 0 0:0 0 [stack]");
    expect_nothing(main_stack());
}

TEST(ThreadStackInfo, FirstPrivateReadWriteMappingAroundTheAddress)
{
    set_maps(
        "1000-9000 r--p 0\n1000-9000 rw-s 0\n1000-9000 rwxp 0\n0-9000 rw-p 0\n3000-4000 rw-p 0\n3000-6000 rw-p 0\n");
    expect_range(stack_of(0x3000), 0x3000, 0x4000);
    expect_range(stack_of(0x3fff), 0x3000, 0x4000);
    expect_range(stack_of(0x4000), 0x3000, 0x6000);
    expect_nothing(stack_of(0x2fff));
    expect_nothing(stack_of(0x6000));
}

TEST(ThreadStackInfo, ARealThreadsStack)
{
    in_thread([](void *) -> void * {
        int local = 0;
        auto here = reinterpret_cast<unsigned long>(&local);
        Range range = stack_of(here);
        EXPECT_EQ(0, range.result);
        EXPECT_TRUE(range.start <= here && here < range.end);
        return nullptr;
    });
}

TEST(StackInfo, FailuresAreReportedOnStandardOutput)
{
    ChildResult child = run_child([] {
        std::string path = task_file("maps");
        std::string told = capture_stdout([] {
            ::unshare(CLONE_NEWNS);
            mount_tmpfs("/proc");
            EXPECT_EQ(-1, main_stack().result);
            Range range = stack_of(0x1000);
            EXPECT_EQ(-1, range.result);
            EXPECT_EQ(11U, range.start);
        });
        EXPECT_EQ("qv_get_stack_info 1208 : open " + path + " failed.\nqv_get_thread_stack_info 1258 : open " + path +
                      " failed.\n",
                  told);
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.err;
}

TEST(StackInfo, TheListIsTheCallingThreads)
{
    in_thread([](void *) -> void * {
        set_maps("3000-4000 rw-p 0 0:0 0 [stack]\n");
        expect_range(main_stack(), 0x3000, 0x4000);
        expect_range(stack_of(0x3800), 0x3000, 0x4000);
        return nullptr;
    });
}

TEST(StackInfo, AThreadsFailureNamesItsOwnList)
{
    ChildResult child = run_child([] {
        in_thread([](void *) -> void * {
            std::string path = task_file("maps");
            std::string told = capture_stdout([] {
                ::unshare(CLONE_NEWNS);
                mount_tmpfs("/proc");
                errno = E2BIG;
                EXPECT_EQ(-1, main_stack().result);
                EXPECT_EQ(E2BIG, errno);
            });
            EXPECT_EQ("qv_get_stack_info 1208 : open " + path + " failed.\n", told);
            return nullptr;
        });
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.err;
}

TEST(StackInfo, ErrnoIsKeptAndNoDescriptorStays)
{
    std::size_t descriptors = list_dir("/proc/self/fd").size();
    errno = E2BIG;
    main_stack();
    stack_of(1);
    EXPECT_EQ(E2BIG, errno);
    EXPECT_EQ(descriptors, list_dir("/proc/self/fd").size());
}

TEST(StackInfo, ALineLongerThanTheBufferEndsTheReading)
{
    std::string line = "1000-2000 rw-p " + std::string(1100, 'x') + "\n";
    set_maps("1000-2000 rw-p 0\n" + line + "3000-4000 rw-p 0 [stack]\n");
    expect_nothing(main_stack());
    expect_nothing(stack_of(0x3000));
    expect_range(stack_of(0x1000), 0x1000, 0x2000);
}

// ---- the record ----

namespace {

// Fields 1 to n, each "x" unless given.
std::string status_line(unsigned n, std::initializer_list<std::pair<unsigned, std::string>> fields)
{
    std::string line;
    for (unsigned i = 1; i <= n; i++) {
        std::string field = "x";
        for (const auto &[index, text] : fields) {
            if (index == i)
                field = text;
        }
        line.append(field).append(i < n ? " " : "\n");
    }
    return line;
}

void record(const std::string &status)
{
    set_maps("100000-200000 rw-p 0 0:0 0 [stack]\n");
    bind_over(task_file("stat"), status);
    qv_record_process_info();
}

void expect_record(uint64_t cur, uint32_t index)
{
    EXPECT_EQ(0x100000U, g_process_stack_start);
    EXPECT_EQ(0x200000U, g_process_stack_end);
    EXPECT_EQ(cur, g_process_stack_cur);
    EXPECT_EQ(index, g_process_stack_cur_index);
}

constexpr char kStart[] = "1048576"; // 0x100000
constexpr char kEnd[] = "2097152";

} // namespace

TEST(Record, TheRealMainThread)
{
    qv_record_process_info();
    Range range = main_stack();
    EXPECT_EQ(range.start, g_process_stack_start);
    EXPECT_GE(g_process_stack_end, g_process_stack_start);
    EXPECT_EQ(28U, g_process_stack_cur_index);
    EXPECT_GE(g_process_stack_cur, g_process_stack_start);
    EXPECT_LE(g_process_stack_cur, g_process_stack_end);
    EXPECT_EQ("", read_file(kConsole));
}

TEST(Record, OtherThreadsRecordNothing)
{
    in_thread([](void *) -> void * {
        qv_record_process_info();
        return nullptr;
    });
    EXPECT_EQ(0U, g_process_stack_start);
    EXPECT_EQ(0U, g_process_stack_end);
    EXPECT_EQ(0U, g_process_stack_cur);
    EXPECT_EQ(0U, g_process_stack_cur_index);
}

TEST(Record, FirstNumberWithinTheStackBothEndsIncluded)
{
    record(
        status_line(50, {{3, "1048575"}, {4, "2097153"}, {5, "-1048577"}, {6, "1048577x"}, {28, kStart}, {29, kEnd}}));
    expect_record(0x100000, 28);
}

TEST(Record, TheEndOfTheStackIsWithin)
{
    record(status_line(50, {{7, kEnd}}));
    expect_record(0x200000, 7);
}

TEST(Record, BlanksSeparateFieldsAndTheLastOneIsNotRead)
{
    record("1 (a b)  " + std::string(kStart) + " x\n");
    expect_record(0x100000, 5);
}

TEST(Record, TheLastFieldIsNotRead)
{
    record(status_line(5, {{5, kStart}}));
    expect_record(0, 0);
}

TEST(Record, Field80IsTheLastOne)
{
    record(status_line(90, {{81, kStart}}));
    expect_record(0, 0);
    record(status_line(90, {{80, kStart}}));
    expect_record(0x100000, 80);
}

TEST(Record, WithoutAStackNothingIsRead)
{
    set_maps("1000-2000 rw-p 0 0:0 0 [heap]\n");
    bind_over(task_file("stat"), status_line(50, {{5, "0"}}));
    qv_record_process_info();
    EXPECT_EQ(0U, g_process_stack_cur_index);
}

TEST(Record, AMissingStatusLineIsReported)
{
    ChildResult child = run_child([] {
        std::string stat = task_file("stat"), maps = task_file("maps");
        ::unshare(CLONE_NEWNS);
        mount_tmpfs("/proc");
        for (std::size_t at = 6; (at = maps.find('/', at)) != std::string::npos; at++)
            ::mkdir(maps.substr(0, at).c_str(), 0755);
        write_file(maps, "100000-200000 rw-p 0 0:0 0 [stack]\n");
        qv_record_process_info();
        expect_record(0, 0);
        EXPECT_EQ("qv_record_process_info 1338 : open " + stat + " failed.\n", read_file(kConsole));
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.err;
}
