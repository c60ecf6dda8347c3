// SPDX-License-Identifier: Apache-2.0
// Executable mappings, the frame walk on synthetic and real chains, symbol texts, command names.
#include "backtrace.h"
#include "fault/crash_support.h"
#include "support/machine.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>

using namespace support;
using namespace crash;

extern "C" {
extern const char __qv_text_start[], __qv_text_end[];
}

namespace {

using Words = std::vector<unsigned long>;

std::string maps_path()
{
    return std::string("/proc/").append(std::to_string(::getpid())).append("/maps");
}

std::size_t table_size()
{
    std::size_t n = 0;
    while (n < QV_SECTION_MAX && section_rec[n].start != 0)
        n++;
    return n;
}

// Loads the table from a mapping list with this content.
int load(const std::string &content)
{
    bind_over(maps_path(), content);
    return procps_read_maps();
}

constexpr char kRest[] = " 00000000 00:00 0\n";

std::string map_line(const std::string &range, const std::string &permissions)
{
    return std::string(range).append(" ").append(permissions).append(kRest);
}

// A walk into arrays of a given size with guard words after them.
struct Walk {
    int count = 0;
    unsigned long addrs[32], frames[32], bottom = 77;

    Walk(unsigned long fp, unsigned long pc, unsigned long lr, int max)
    {
        std::fill(std::begin(addrs), std::end(addrs), 0xeeUL);
        std::fill(std::begin(frames), std::end(frames), 0xeeUL);
        count = qv_backtrace_spec(fp, pc, lr, addrs, frames, max, &bottom);
        for (std::size_t i = static_cast<std::size_t>(count); i < 32; i++) {
            EXPECT_EQ(0xeeUL, addrs[i]) << i;
            EXPECT_EQ(0xeeUL, frames[i]) << i;
        }
    }

    Words code() const { return Words(addrs, addrs + count); }
    Words frame() const { return Words(frames, frames + count); }
};

unsigned long at(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

// Frame records in an array, innermost first. The last one links to 0.
struct Chain {
    explicit Chain(std::size_t n) : words(2 * n)
    {
        for (std::size_t i = 0; i < n; i++) {
            words[2 * i] = i + 1 < n ? at(&words[2 * i + 2]) : 0;
            words[2 * i + 1] = 0x1000 + i;
        }
    }
    unsigned long fp() const { return at(words.data()); }
    unsigned long record(std::size_t i) const { return at(&words[2 * i]); }
    Words words;
};

constexpr unsigned long kNotCode = 0x500;
constexpr unsigned long kCode = 0x7000; // within the table of load_one_section()

void load_one_section()
{
    ASSERT_EQ(0, load(map_line("7000-8000", "r-xp")));
}

} // namespace

// ---- the table of mappings ----

TEST(Maps, OnlyExecutableAndNotWritableMappingsCount)
{
    ASSERT_EQ(0,
              load(map_line("1000-2000", "r-xp") + map_line("2000-3000", "rwxp") + map_line("3000-4000", "r--p") +
                   map_line("4000-5000", "--xp") + map_line("5000-6000", "rw-p") + map_line("0-7000", "r-xp") +
                   map_line("9000-8000", "r-xp") + map_line("a000-a000", "r-xp") + map_line("AbC000-aBd000", "r-xs")));
    ASSERT_EQ(3U, table_size());
    EXPECT_EQ(0x1000U, section_rec[0].start);
    EXPECT_EQ(0x2000U, section_rec[0].end);
    EXPECT_EQ(0U, section_rec[0].reserved);
    EXPECT_EQ(0x4000U, section_rec[1].start);
    EXPECT_EQ(0xabc000U, section_rec[2].start);
    EXPECT_EQ(0xabd000U, section_rec[2].end);
}

TEST(Maps, LinesWithoutARangeAreSkipped)
{
    ASSERT_EQ(
        0, load("nothing\n\n-\nzz-yy r-xp\n1000- 2000 r-xp\n1000-2000\n1000-2000 r\n" + map_line("7000-8000", "r-xp")));
    ASSERT_EQ(1U, table_size());
    EXPECT_EQ(0x7000U, section_rec[0].start);
}

TEST(Maps, ALastLineWithoutNewlineIsDropped)
{
    ASSERT_EQ(0, load(map_line("1000-2000", "r-xp") + "2000-3000 r-xp 0 00:00 0"));
    EXPECT_EQ(1U, table_size());
}

TEST(Maps, ALineLongerThanTheBufferEndsTheReading)
{
    auto padded = [](std::size_t length) {
        std::string line = "2000-3000 r-xp ";
        return line + std::string(length - line.size(), 'x') + "\n";
    };
    std::string first = map_line("1000-2000", "r-xp"), last = map_line("3000-4000", "r-xp");
    ASSERT_EQ(0, load(first + padded(1023) + last));
    EXPECT_EQ(3U, table_size());
    ASSERT_EQ(0, load(first + padded(1024) + last));
    EXPECT_EQ(1U, table_size());
}

TEST(Maps, TooManyMappingsAreReportedOnceWhenALineFollows)
{
    std::string full;
    for (int i = 1; i <= QV_SECTION_MAX; i++) {
        char range[32];
        std::snprintf(range, sizeof range, "%x000-%x800", i, i);
        full += map_line(range, "r-xp");
    }
    ASSERT_EQ(0, load(full));
    EXPECT_EQ(128U, table_size());
    EXPECT_EQ("", read_file(kConsole));
    ASSERT_EQ(0, load(full + "any\nand another\n"));
    EXPECT_EQ(128U, table_size());
    EXPECT_EQ("procps_read_maps, exec section number large than 128.\n", read_file(kConsole));
    EXPECT_EQ(1, is_dynamic_lib(0x80000));
    EXPECT_EQ(1, is_dynamic_lib(0x807ff));
    EXPECT_EQ(0, is_dynamic_lib(0x80800));
}

TEST(Maps, BoundsOfTheTable)
{
    load_one_section();
    EXPECT_EQ(0, is_dynamic_lib(0x6fff));
    EXPECT_EQ(1, is_dynamic_lib(0x7000));
    EXPECT_EQ(1, is_dynamic_lib(0x7fff));
    EXPECT_EQ(0, is_dynamic_lib(0x8000));
    EXPECT_EQ(0, is_dynamic_lib(0));
}

TEST(Maps, WithoutATableEveryAddressIsCode)
{
    EXPECT_EQ(0U, table_size());
    EXPECT_EQ(1, is_dynamic_lib(0));
    EXPECT_EQ(1, is_dynamic_lib(~0UL));
}

TEST(Maps, AFailedLoadClearsTheTable)
{
    ChildResult child = run_child([] {
        procps_read_maps();
        EXPECT_GT(table_size(), 0U);
        ::unshare(CLONE_NEWNS);
        mount_tmpfs("/proc");
        EXPECT_EQ(-1, procps_read_maps());
        EXPECT_EQ(0U, table_size());
        // In thread mode only the thread's own list is read.
        std::string process = std::string("/proc/").append(std::to_string(::getpid()));
        ::mkdir(process.c_str(), 0755);
        write_file(maps_path(), map_line("1000-2000", "r-xp"));
        EXPECT_EQ(0, procps_read_maps());
        qv_set_handle_thread_trace();
        EXPECT_EQ(-1, procps_read_maps());
        std::string task = process.append("/task");
        ::mkdir(task.c_str(), 0755);
        task.append("/").append(std::to_string(thread_id()));
        ::mkdir(task.c_str(), 0755);
        write_file(task.append("/maps"), map_line("3000-4000", "r-xp"));
        EXPECT_EQ(0, procps_read_maps());
        EXPECT_EQ(0x3000U, section_rec[0].start);
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.status;
}

TEST(Maps, ThreadModeReadsTheListOfTheCallingThread)
{
    ChildResult child = run_child([] {
        qv_set_handle_thread_trace();
        pthread_t thread;
        auto body = [](void *) -> void * {
            std::string list = "/proc/" + std::to_string(::getpid()) + "/task/" + std::to_string(thread_id()) + "/maps";
            bind_over(list, map_line("5000-6000", "r-xp"));
            EXPECT_EQ(0, procps_read_maps());
            EXPECT_EQ(1U, table_size());
            EXPECT_EQ(0x5000U, section_rec[0].start);
            return nullptr;
        };
        ASSERT_EQ(0, ::pthread_create(&thread, nullptr, body, nullptr));
        ASSERT_EQ(0, ::pthread_join(thread, nullptr));
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.err;
}

TEST(Maps, ErrnoIsKept)
{
    errno = E2BIG;
    procps_read_maps();
    EXPECT_EQ(E2BIG, errno);
    ChildResult child = run_child([] {
        ::unshare(CLONE_NEWNS);
        mount_tmpfs("/proc");
        char name[128] = {};
        errno = E2BIG;
        EXPECT_EQ(-1, procps_read_maps());
        EXPECT_EQ(E2BIG, errno);
        EXPECT_EQ(0, get_proc_comm_name(name, 127));
        EXPECT_EQ(E2BIG, errno);
        get_function_name_by_ptr(name, name, sizeof name);
        EXPECT_EQ(E2BIG, errno);
    });
    EXPECT_TRUE(child.exited(0)) << child.out << child.err;
}

TEST(Maps, TheTableIsTheThreadsOwn)
{
    ASSERT_EQ(0, procps_read_maps());
    EXPECT_EQ(1, is_dynamic_lib(at(reinterpret_cast<void *>(&::getpid))));
    EXPECT_EQ(0, is_dynamic_lib(at(&section_rec)));
    pthread_t thread;
    auto body = [](void *) -> void * { return reinterpret_cast<void *>(table_size()); };
    void *size = nullptr;
    ASSERT_EQ(0, ::pthread_create(&thread, nullptr, body, nullptr));
    ASSERT_EQ(0, ::pthread_join(thread, &size));
    EXPECT_EQ(nullptr, size);
}

// ---- the walk ----

TEST(Walk, ChainIsFollowedToTheZeroLink)
{
    load_one_section();
    Chain chain(4);
    Walk walk(chain.fp(), kCode, 0, 20);
    // The record with the zero link is the outermost one reached. Its return address is not used.
    EXPECT_EQ((Words{kCode, 0x1000, 0x1001, 0x1002}), walk.code());
    EXPECT_EQ((Words{chain.fp(), chain.record(1), chain.record(2), chain.record(3)}), walk.frame());
    EXPECT_EQ(chain.record(3), walk.bottom);
}

TEST(Walk, PcAndLrCountOnlyWhenTheyAreCode)
{
    load_one_section();
    Chain chain(3);
    EXPECT_EQ((Words{0x1000, 0x1001}), Walk(chain.fp(), kNotCode, 0, 20).code());
    EXPECT_EQ((Words{0x1000, 0x1001}), Walk(chain.fp(), kNotCode, kNotCode, 20).code());
    Walk both(chain.fp(), kCode, kCode + 1, 20);
    EXPECT_EQ((Words{kCode, kCode + 1, 0x1000, 0x1001}), both.code());
    EXPECT_EQ((Words{chain.fp(), 1, chain.record(1), chain.record(2)}), both.frame());
    EXPECT_EQ((Words{kCode, 0x1000, 0x1001}), Walk(chain.fp(), kNotCode, kCode, 20).code());
}

TEST(Walk, HostTextIsCodeBothEndsIncluded)
{
    load_one_section();
    for (const char *edge : {__qv_text_start, __qv_text_end})
        EXPECT_EQ((Words{at(edge)}), Walk(0, at(edge), 0, 20).code());
    EXPECT_EQ(0, Walk(0, at(__qv_text_start) - 1, 0, 20).count);
    EXPECT_EQ(0, Walk(0, at(__qv_text_end) + 1, 0, 20).count);
}

TEST(Walk, NeverMoreThanMax)
{
    load_one_section();
    Chain chain(10);
    for (int max = 1; max <= 12; max++) {
        Walk walk(chain.fp(), kCode, kCode, max);
        EXPECT_EQ(std::min(max, 11), walk.count) << max;
        EXPECT_EQ(std::min(max, 9), Walk(chain.fp(), kNotCode, 0, max).count) << max;
    }
    EXPECT_EQ(0, Walk(chain.fp(), kCode, kCode, 0).count);
    EXPECT_EQ(0, Walk(chain.fp(), kCode, kCode, -1).count);
    EXPECT_EQ(chain.record(3), Walk(chain.fp(), kNotCode, 0, 3).bottom);
}

TEST(Walk, ACircleEndsAtMax)
{
    load_one_section();
    Chain chain(2);
    chain.words[2] = chain.fp();
    EXPECT_EQ(20, Walk(chain.fp(), kNotCode, 0, 20).count);
}

TEST(Walk, FramePointerIsRoundedUpAndLinksAreNot)
{
    load_one_section();
    Chain chain(3);
    for (unsigned long low = 1; low < 8; low++)
        EXPECT_EQ((Words{0x1000, 0x1001}), Walk(chain.fp() - low, kNotCode, 0, 20).code());

    std::vector<char> bytes(64);
    unsigned long link = at(&bytes[3]), code = 0x4711, next = chain.record(2);
    std::memcpy(&bytes[3], &next, 8);
    std::memcpy(&bytes[11], &code, 8);
    chain.words[0] = link;
    EXPECT_EQ((Words{0x1000, 0x4711}), Walk(chain.fp(), kNotCode, 0, 20).code());
}

TEST(Walk, NoFramePointerAndAZeroFirstLinkEndIt)
{
    load_one_section();
    EXPECT_EQ((Words{kCode}), Walk(0, kCode, 0, 20).code());
    EXPECT_EQ(0U, Walk(0, kCode, 0, 20).bottom);
    EXPECT_EQ((Words{kCode}), Walk(~0UL, kCode, 0, 20).code());
    Chain chain(1);
    Walk walk(chain.fp(), kCode, 0, 20);
    EXPECT_EQ((Words{kCode, 0x1000}), walk.code());
    EXPECT_EQ((Words{chain.fp(), 0}), walk.frame());
    EXPECT_EQ(0U, walk.bottom);
}

TEST(Walk, UnreadableMemoryEndsIt)
{
    load_one_section();
    constexpr std::size_t kPage = 65536;
    auto *pages =
        static_cast<char *>(::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ::mprotect(pages + kPage, kPage, PROT_NONE);
    for (unsigned long wild :
         {1UL, 8UL, 0xfffUL, 0x1000UL, 0x123450UL, 0x8000000000000000UL, ~7UL, at(pages + kPage)}) {
        Chain chain(3);
        chain.words[2] = wild;
        Walk walk(chain.fp(), kNotCode, 0, 20);
        EXPECT_EQ((Words{0x1000, 0x1001}), walk.code()) << wild;
        EXPECT_EQ(wild, walk.bottom);
        EXPECT_EQ((Words{kCode}), Walk(wild & ~7UL, kCode, 0, 20).code()) << wild;
    }
    // A record of which only the link is readable, in whole or in part.
    for (std::size_t readable : {8U, 7U, 1U}) {
        unsigned long edge = at(pages + kPage) - readable;
        Chain chain(2);
        chain.words[0] = edge;
        unsigned long link = chain.record(1);
        std::memcpy(reinterpret_cast<void *>(edge), &link, readable);
        Walk walk(chain.fp(), kNotCode, 0, 20);
        EXPECT_EQ((Words{0x1000}), walk.code()) << readable;
    }
    ::munmap(pages, 2 * kPage);
}

TEST(Walk, OutputsMayBeLeftOut)
{
    load_one_section();
    Chain chain(3);
    unsigned long addrs[20];
    EXPECT_EQ(4, qv_backtrace_spec(chain.fp(), kCode, kCode, addrs, nullptr, 20, nullptr));
    EXPECT_EQ(0x1000U, addrs[2]);
    EXPECT_EQ(0, qv_backtrace_spec(chain.fp(), kCode, 0, nullptr, nullptr, 20, nullptr));
}

TEST(Walk, WordsThatAreNoCodeAreShownUnchanged)
{
    for (bool with_table : {false, true}) {
        if (with_table)
            load_one_section();
        Chain chain(2);
        chain.words[1] = 0xDEADBEEFCAFEBABE;
        EXPECT_EQ(0xDEADBEEFCAFEBABE, Walk(chain.fp(), kNotCode, 0, 20).code().back());
    }
}

TEST(Walk, SignaturesOfReturnAddressesAreStripped)
{
    unsigned long address = at(reinterpret_cast<void *>(&qv_backtrace_spec));
    unsigned long with_signature = signed_address(address);
    if (with_signature == address)
        GTEST_SKIP() << "this processor does not sign return addresses";
    for (bool with_table : {false, true}) {
        if (with_table)
            procps_read_maps();
        Chain chain(2);
        chain.words[1] = with_signature;
        Walk walk(chain.fp(), address, with_signature, 20);
        EXPECT_EQ((Words{address, address, address}), walk.code()) << with_table;
        EXPECT_EQ((Words{chain.fp(), 1, chain.record(1)}), walk.frame());
    }
}

TEST(Walk, TheLinkRegisterIsCodeOrLeftOut)
{
    load_one_section();
    Chain chain(2);
    for (unsigned long lr : {0x0123000000007000UL, 0xff80000000007000UL, kNotCode})
        EXPECT_EQ((Words{kCode, 0x1000}), Walk(chain.fp(), kCode, lr, 20).code()) << lr;
}

TEST(Walk, ErrnoIsKept)
{
    load_one_section();
    errno = E2BIG;
    Walk(0x123450, kCode, 0, 20);
    EXPECT_EQ(E2BIG, errno);
}

namespace {

__attribute__((noinline)) int walk_from_here(unsigned long *addrs)
{
    int n = qv_backtrace_spec(at(__builtin_frame_address(0)), 0, 0, addrs, nullptr, 20, nullptr);
    asm volatile("" ::: "memory");
    return n;
}

__attribute__((noinline)) int walk_one_deeper(unsigned long *addrs)
{
    int n = walk_from_here(addrs);
    asm volatile("" ::: "memory");
    return n;
}

__attribute__((noinline)) int walk_two_deeper(unsigned long *addrs)
{
    int n = walk_one_deeper(addrs);
    asm volatile("" ::: "memory");
    return n;
}

} // namespace

TEST(Walk, TheRealStackWalks)
{
    procps_read_maps();
    unsigned long addrs[20];
    int n = walk_two_deeper(addrs);
    ASSERT_GE(n, 3);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(1, is_dynamic_lib(addrs[i])) << i;
    auto is_within = [&](int i, int (*function)(unsigned long *)) {
        unsigned long start = at(reinterpret_cast<void *>(function));
        return addrs[i] > start && addrs[i] < start + 256;
    };
    EXPECT_TRUE(is_within(0, walk_one_deeper));
    EXPECT_TRUE(is_within(1, walk_two_deeper));
}

// ---- names ----

TEST(FunctionName, NullNamedAndUnnamed)
{
    char text[256];
    EXPECT_EQ(4, get_function_name_by_ptr(nullptr, text, sizeof text));
    EXPECT_STREQ("NULL", text);
    void *function = ::dlsym(RTLD_DEFAULT, "procps_read_maps");
    char wanted[256];
    std::snprintf(wanted, sizeof wanted, "procps_read_maps@%p", function);
    EXPECT_EQ(static_cast<int>(std::strlen(wanted)), get_function_name_by_ptr(function, text, sizeof text));
    EXPECT_STREQ(wanted, text);
    get_function_name_by_ptr(text, text, sizeof text);
    std::snprintf(wanted, sizeof wanted, "%p", static_cast<void *>(text));
    EXPECT_STREQ(wanted, text);
}

TEST(FunctionName, IsCutAndTerminated)
{
    char text[8];
    std::memset(text, 'x', sizeof text);
    void *function = ::dlsym(RTLD_DEFAULT, "procps_read_maps");
    EXPECT_GT(get_function_name_by_ptr(function, text, 6), 16);
    EXPECT_EQ(std::string(text, 8), std::string("procp\0xx", 8));
    char wide[64];
    std::memset(wide, 'x', sizeof wide);
    get_function_name_by_ptr(function, wide, sizeof wide);
    EXPECT_EQ('x', wide[62]);
    EXPECT_EQ('\0', wide[63]);
    get_function_name_by_ptr(function, text, 0);
    EXPECT_EQ(std::string(text, 8), std::string("procp\0xx", 8));
}

TEST(CommandName, OfTheProcessWithoutLineEnds)
{
    rename_process("routed");
    char name[128] = {};
    EXPECT_EQ(7, get_proc_comm_name(name, 127));
    EXPECT_STREQ("routed", name);
    std::memset(name, 0, sizeof name);
    EXPECT_EQ(3, get_proc_comm_name(name, 3));
    EXPECT_STREQ("rou", name);
    EXPECT_EQ(0, get_proc_comm_name(name, 0));
    EXPECT_EQ(0, get_proc_comm_name(name, -1));
}

TEST(CommandName, EveryLineEndBecomesNul)
{
    bind_over("/proc/self/comm", "a\rb\n\nc\r\n");
    char name[128] = {};
    EXPECT_EQ(8, get_proc_comm_name(name, 127));
    EXPECT_EQ(std::string(name, 8), std::string("a\0b\0\0c\0\0", 8));
}

TEST(CommandName, DescriptorZeroCountsAsFailure)
{
    ChildResult child = run_child([] {
        ::close(0);
        char name[128] = {};
        EXPECT_EQ(0, get_proc_comm_name(name, 127));
        EXPECT_STREQ("", name);
        EXPECT_EQ(0, ::dup(1)); // it is closed again
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(CommandName, OfTheThreadInThreadMode)
{
    ChildResult child = run_child([] {
        qv_set_handle_thread_trace();
        pthread_t thread;
        auto body = [](void *) -> void * {
            rename_process("worker");
            char name[128] = {};
            EXPECT_EQ(7, get_proc_comm_name(name, 127));
            EXPECT_STREQ("worker", name);
            return nullptr;
        };
        ::pthread_create(&thread, nullptr, body, nullptr);
        ::pthread_join(thread, nullptr);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(StackTrace, PrintsTheTagAndNumberedFrames)
{
    rename_process("routed");
    qv_stacktrace("here");
    std::vector<std::string> text = lines(read_file(kConsole));
    ASSERT_GE(text.size(), 3U);
    EXPECT_EQ("stack trace: here pid = " + std::to_string(::getpid()) + ", com_name = routed", text[0]);
    for (std::size_t i = 1; i < text.size(); i++) {
        char head[32];
        std::snprintf(head, sizeof head, "Frame %2zu: ", i);
        EXPECT_EQ(0U, text[i].rfind(head, 0)) << text[i];
    }
}

TEST(StackTrace, UsesTheProgramsNameWithoutACommandName)
{
    ChildResult child = run_child([] {
        ::close(0);
        qv_stacktrace("x");
    });
    EXPECT_EQ("stack trace: x pid = " + std::to_string(child.pid) + ", com_name = " + program_invocation_short_name,
              lines(read_file(kConsole)).at(0));
}

// ---- symbol texts, as they stand in a backtrace section ----

namespace {

std::string symbol_of(unsigned long addr)
{
    ChildResult child = run_child([addr] {
        rename_process("routed");
        struct sigaction action = {};
        action.sa_sigaction = [](int, siginfo_t *info, void *) {
            // A walk over one synthetic record gives the address alone.
            auto wanted = reinterpret_cast<unsigned long>(info->si_value.sival_ptr);
            unsigned long record[2] = {0, wanted};
            ucontext_t context;
            std::memset(&context, 0, sizeof context);
            set_frame_pointer(context, at(record));
            crash_record rec = {};
            rec.uctx = &context;
            coredump_backtrace_to_file(STDOUT_FILENO, &rec);
        };
        action.sa_flags = SA_SIGINFO;
        ::sigaction(SIGUSR1, &action, nullptr);
        procps_read_maps();
        sigval value;
        value.sival_ptr = reinterpret_cast<void *>(addr);
        ::sigqueue(::getpid(), SIGUSR1, value);
    });
    std::vector<std::string> text = lines(child.out);
    EXPECT_EQ(4U, text.size()) << child.out;
    std::size_t arrow = text.size() > 1 ? text[1].find("-> ") : std::string::npos;
    return arrow == std::string::npos ? child.out : text[1].substr(arrow + 3);
}

} // namespace

TEST(StackMainTop, IsNeitherReadNorWritten)
{
    EXPECT_EQ(0U, stack_main_top);
    stack_main_top = 0x4711;
    procps_read_maps();
    qv_stacktrace("x");
    EXPECT_EQ(0x4711U, stack_main_top);
}

TEST(SymbolText, NamedUnnamedAndUnknown)
{
    void *function = ::dlsym(RTLD_DEFAULT, "procps_read_maps");
    Dl_info info;
    ASSERT_NE(0, ::dladdr(function, &info));
    char wanted[512];
    std::snprintf(wanted, sizeof wanted, "%s(procps_read_maps+0x4) [0x%lx]", info.dli_fname, at(function) + 4);
    EXPECT_EQ(wanted, symbol_of(at(function) + 4));
    std::snprintf(wanted, sizeof wanted, "%s(procps_read_maps+0) [0x%lx]", info.dli_fname, at(function));
    EXPECT_EQ(wanted, symbol_of(at(function)));
    // The start of the object has no symbol.
    unsigned long inside = at(info.dli_fbase) + 0x40;
    std::snprintf(wanted, sizeof wanted, "%s(+0x40) [0x%lx]", info.dli_fname, inside);
    EXPECT_EQ(wanted, symbol_of(inside));
    EXPECT_EQ("0x1234", symbol_of(0x1234));
}
