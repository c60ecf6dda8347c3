// SPDX-License-Identifier: Apache-2.0
// Walks and names in a process whose system call filter refuses the calls that probe memory.
#include "backtrace.h"
#include "fault/crash_support.h"

#include <cstddef>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>

using namespace support;
using namespace crash;

namespace {

using Words = std::vector<unsigned long>;

unsigned long at(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

constexpr sock_filter load(std::size_t offset)
{
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<unsigned>(offset)};
}

constexpr sock_filter unless_equal(unsigned value, unsigned char skip)
{
    return {BPF_JMP | BPF_JEQ | BPF_K, 0, skip, value};
}

constexpr sock_filter answer(unsigned value)
{
    return {BPF_RET | BPF_K, 0, 0, value};
}

void install(const std::vector<sock_filter> &filter)
{
    sock_fprog program = {static_cast<unsigned short>(filter.size()), const_cast<sock_filter *>(filter.data())};
    ASSERT_EQ(0, ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
    ASSERT_EQ(0, ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0)) << errno;
}

// From now on the call fails with this error.
void refuse(long call, int error)
{
    install({load(offsetof(seccomp_data, nr)), unless_equal(static_cast<unsigned>(call), 1),
             answer(SECCOMP_RET_ERRNO | static_cast<unsigned>(error)), answer(SECCOMP_RET_ALLOW)});
}

// Refuses only invalid changes of the signal mask: threads and children need the valid ones.
void refuse_probe(int error)
{
    install({load(offsetof(seccomp_data, nr)), unless_equal(SYS_rt_sigprocmask, 3),
             load(offsetof(seccomp_data, args[0])), unless_equal(~0U, 1),
             answer(SECCOMP_RET_ERRNO | static_cast<unsigned>(error)), answer(SECCOMP_RET_ALLOW)});
}

struct Calls {
    bool probe, memory_file, pipe, process_vm;
};

void allow_only(const Calls &allowed, int error = EPERM)
{
    if (!allowed.memory_file)
        refuse(SYS_pread64, error);
    if (!allowed.pipe)
        refuse(SYS_pipe2, error);
    if (!allowed.process_vm)
        refuse(SYS_process_vm_readv, error);
    if (!allowed.probe)
        refuse_probe(error);
}

constexpr Calls kEachAlone[] = {
    {true, false, false, false}, {false, true, false, false}, {false, false, true, false}, {false, false, false, true}};

Words walk(unsigned long fp)
{
    unsigned long addrs[20];
    int count = qv_backtrace_spec(fp, 0, 0, addrs, nullptr, 20, nullptr);
    return Words(addrs, addrs + count);
}

// Two records, the second one linked to unreadable memory.
void expect_sound_walks()
{
    constexpr unsigned long kWild[] = {8, 0x123450, 0x8000000000000000, ~0xfffUL, ~7UL};
    for (unsigned long wild : kWild) {
        unsigned long second[2] = {wild, 0x1001};
        unsigned long first[2] = {at(second), 0x1000};
        EXPECT_EQ((Words{0x1000, 0x1001}), walk(at(first))) << std::hex << wild;
        EXPECT_EQ((Words{}), walk(wild & ~7UL)) << std::hex << wild;
    }
    std::vector<char> pages(3 * 4096);
    unsigned long edge = ((at(pages.data()) + 4095) & ~4095UL) + 4096;
    unsigned long record[2] = {8, 0x1001}; // across two pages
    std::memcpy(reinterpret_cast<void *>(edge - 3), record, sizeof record);
    unsigned long first[2] = {edge - 3, 0x1000};
    EXPECT_EQ((Words{0x1000, 0x1001}), walk(at(first)));
}

void expect_names()
{
    char name[256];
    auto *function = reinterpret_cast<void *>(&::std::abort);
    get_function_name_by_ptr(function, name, sizeof name);
    EXPECT_EQ(std::string(name).substr(0, 6), "abort@");
}

void expect_good(const std::function<void()> &body)
{
    std::size_t descriptors = list_dir("/proc/self/fd").size();
    ChildResult child = run_child([&] {
        std::size_t before = list_dir("/proc/self/fd").size();
        procps_read_maps();
        body();
        expect_sound_walks();
        expect_names();
        EXPECT_EQ(before, list_dir("/proc/self/fd").size());
    });
    EXPECT_TRUE(child.exited(0)) << child.status << child.out << child.err;
    EXPECT_EQ(descriptors, list_dir("/proc/self/fd").size());
}

} // namespace

TEST(RefusedCalls, TheProbeByAnyError)
{
    for (int error : {EPERM, ENOSYS, EACCES, EINVAL, EFAULT, 0})
        expect_good([error] { refuse_probe(error); });
}

TEST(RefusedCalls, EachWayIsEnough)
{
    for (const Calls &allowed : kEachAlone) {
        for (int error : {EPERM, ENOSYS, 0})
            expect_good([&] { allow_only(allowed, error); });
    }
}

TEST(RefusedCalls, WithoutDescriptors)
{
    for (const Calls &allowed : {Calls{true, true, true, true}, Calls{false, true, true, true}}) {
        ChildResult child = run_child([&] {
            allow_only(allowed);
            procps_read_maps();
            while (::dup(2) >= 0) {
            }
            expect_sound_walks();
            expect_names();
        });
        EXPECT_TRUE(child.exited(0)) << child.status << child.out << child.err;
    }
}

TEST(RefusedCalls, WithoutAnyWayTheWalkIsEmpty)
{
    ChildResult child = run_child([] {
        procps_read_maps();
        allow_only({false, false, false, false});
        unsigned long record[2] = {0, 0x1000};
        EXPECT_EQ((Words{}), walk(at(record)));
        char name[256], wanted[64];
        auto *function = reinterpret_cast<void *>(&::std::abort);
        get_function_name_by_ptr(function, name, sizeof name);
        std::snprintf(wanted, sizeof wanted, "%p", function);
        EXPECT_EQ(std::string(name), wanted);
    });
    EXPECT_TRUE(child.exited(0)) << child.status << child.out << child.err;
}

TEST(RefusedCalls, ACrashLeavesItsWholeLog)
{
    for (const Calls &allowed : kEachAlone) {
        ChildResult child = run_child([&] {
            rename_process("routed");
            install_sighandler();
            allow_only(allowed);
            write_null();
        });
        ASSERT_TRUE(child.killed_by(SIGSEGV)) << child.status << child.out << child.err;
        Log log = read_log(log_path("routed", child.pid, "coredump", SIGSEGV));
        ASSERT_EQ("", log.error);
        ASSERT_GT(log.entries.size(), 3U);
    }
}
