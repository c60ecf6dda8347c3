// SPDX-License-Identifier: Apache-2.0
// The kernel's view of each thread, read without stopping any: state, system call, stack pointer, program counter.
// Where the host wants it, the threads are also asked for their own view.
//
// For a thread that waits in a futex for a mutex of the C library, the owner is known: its id follows the futex word,
// and is in the word itself with priority inheritance. The circles of a deadlock are found from the owners.
#include "fault/thread_report.h"

#include "base/unique_fd.h"
#include "fault/backtrace_internal.h"
#include "fault/safe_memory.h"
#include "fault/stack_scan.h"
#include "fault/thread_walk.h"
#include "signal_printf.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>

namespace qv::fault {
namespace {

constexpr std::size_t kPathSize = 64;
constexpr std::size_t kTextSize = 256;
constexpr long kMillisecondsAllowed = 2000;
constexpr std::size_t kMaxWaits = 128;        // that are searched for circles
constexpr unsigned long kScannedStack = 4096; // of a thread that waits
constexpr int kMaxCalls = 12;                 // return addresses shown of one thread
constexpr int kMaxCircle = 32;

struct waiting_thread {
    pid_t thread;
    pid_t owner; // of the lock that it waits for
};

struct thread_state {
    pid_t id;
    char state; // as the kernel abbreviates it, '?' when unknown
    char name[32];
    bool has_call;  // it is in a system call
    bool has_place; // sp and pc are known
    long call;
    unsigned long arguments[6];
    unsigned long sp, pc;
};

// The file of a thread, terminated. False when it cannot be read.
bool read_thread_file(pid_t thread, const char *name, char (&text)[kTextSize])
{
    char path[kPathSize];
    signal_snprintf(path, sizeof path, "/proc/self/task/%d/%s", thread, name);
    base::unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    ssize_t size = fd ? ::read(fd.get(), text, sizeof text - 1) : -1;
    text[size > 0 ? size : 0] = '\0';
    return size > 0;
}

// "TID (NAME) S ...": the name may hold anything, so the state follows the last parenthesis.
void read_state(thread_state *thread)
{
    char text[kTextSize];
    thread->state = '?';
    if (!read_thread_file(thread->id, "stat", text))
        return;
    char *open = std::strchr(text, '(');
    char *close = nullptr;
    for (char *at = text; (at = std::strchr(at, ')')) != nullptr; at++)
        close = at;
    if (open == nullptr || close == nullptr || close < open || close[1] != ' ')
        return;
    thread->state = close[2];
    std::size_t length = static_cast<std::size_t>(close - open - 1);
    length = length < sizeof thread->name ? length : sizeof thread->name - 1;
    std::memcpy(thread->name, open + 1, length);
    thread->name[length] = '\0';
    for (char *at = thread->name; (at = std::strchr(at, '\n')) != nullptr;)
        *at = ' ';
}

bool read_hex(const char **text, unsigned long *value)
{
    const char *at = *text;
    if (at[0] != '0' || at[1] != 'x')
        return false;
    unsigned long number = 0;
    for (at += 2;; at++) {
        if (*at >= '0' && *at <= '9')
            number = number << 4 | static_cast<unsigned long>(*at - '0');
        else if (*at >= 'a' && *at <= 'f')
            number = number << 4 | static_cast<unsigned long>(*at - 'a' + 10);
        else
            break;
    }
    *value = number;
    *text = *at == ' ' ? at + 1 : at;
    return true;
}

// "NUMBER A0 A1 A2 A3 A4 A5 SP PC", "-1 SP PC" outside a system call, or "running".
void read_system_call(thread_state *thread)
{
    char text[kTextSize];
    if (!read_thread_file(thread->id, "syscall", text))
        return;
    const char *at = text;
    bool is_outside = at[0] == '-';
    long number = 0;
    for (at += is_outside ? 1 : 0; *at >= '0' && *at <= '9'; at++)
        number = number * 10 + (*at - '0');
    if (*at != ' ')
        return;
    at++;
    if (!is_outside) {
        for (unsigned long &argument : thread->arguments) {
            if (!read_hex(&at, &argument))
                return;
        }
        thread->has_call = true;
        thread->call = number;
    }
    thread->has_place = read_hex(&at, &thread->sp) && read_hex(&at, &thread->pc);
}

bool is_thread_of_process(pid_t id)
{
    base::errno_guard keep;
    return id > 0 && ::syscall(SYS_tgkill, ::getpid(), id, 0) == 0;
}

class thread_reporter {
public:
    thread_reporter(int fd, bool asks_threads) : fd_(fd), asks_threads_(asks_threads), begin_(milliseconds_now()) {}

    void report()
    {
        base::unique_fd folder(::open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder)
            return;
        alignas(std::uint64_t) char entries[1024];
        long size;
        while ((size = ::syscall(SYS_getdents64, folder.get(), entries, sizeof entries)) > 0) {
            if (!report_entries(entries, size)) {
                signal_printf(fd_, "threads: no time for the rest\n");
                break;
            }
        }
        report_circles();
    }

private:
    // The kernel's directory entry: two numbers of 8 bytes, the entry's size, its type, then the name.
    static constexpr std::size_t kSizeOffset = 16;
    static constexpr std::size_t kNameOffset = 19;

    bool report_entries(const char *entries, long size)
    {
        for (long at = 0; at < size;) {
            std::uint16_t entry_size;
            std::memcpy(&entry_size, entries + at + kSizeOffset, sizeof entry_size);
            pid_t id = 0;
            for (const char *digit = entries + at + kNameOffset; *digit >= '0' && *digit <= '9'; digit++)
                id = id * 10 + (*digit - '0');
            if (id != 0)
                report_thread(id);
            at += entry_size;
            if (is_late())
                return false;
        }
        return true;
    }

    static long milliseconds_now()
    {
        timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * 1000 + now.tv_nsec / 1000000;
    }

    bool is_late() const { return milliseconds_now() - begin_ >= kMillisecondsAllowed; }

    void report_thread(pid_t id)
    {
        thread_state thread = {};
        thread.id = id;
        read_state(&thread);
        bool is_self = id == thread_id();
        if (!is_self)
            read_system_call(&thread);
        signal_printf(fd_, "thread : %d %c %s\n", id, thread.state, thread.name);
        if (is_self)
            return;
        report_place(thread);
        if (asks_threads_)
            report_walk(thread);
    }

    void report_place(const thread_state &thread)
    {
        if (!thread.has_place)
            return;
        if (thread.has_call)
            signal_printf(fd_, " call  : %ld %016lx %016lx %016lx\n", thread.call, thread.arguments[0],
                          thread.arguments[1], thread.arguments[2]);
        if (thread.has_call && thread.call == SYS_futex)
            report_wait(thread);
        signal_printf(fd_, " at    : sp %016lx pc %016lx\n", thread.sp, thread.pc);
        report_calls(thread.sp);
    }

    void report_walk(const thread_state &thread)
    {
        thread_walk walk;
        auto answer = questions_.ask(thread.id, thread.has_place ? thread.sp : 0, &walk);
        if (answer == walk_questions::answer::unwanted)
            return;
        if (answer != walk_questions::answer::given) {
            signal_printf(fd_, " walk  : none, %s\n", walk_questions::reason(answer));
            return;
        }
        signal_printf(fd_, " walk  : sp %016lx pc %016lx\n", walk.sp, walk.pc);
        for (int i = 0; i < walk.depth; i++)
            signal_printf(fd_, " frame : %016lx %016lx\n", walk.frames[i], walk.addrs[i]);
    }

    void report_wait(const thread_state &thread)
    {
        unsigned long address = thread.arguments[0];
        std::uint32_t word;
        if (memory_.copy(address, &word, sizeof word) != sizeof word)
            return;
        pid_t owner = owner_of(address, word, thread.arguments[1]);
        if (owner == 0) {
            signal_printf(fd_, " waits : %016lx holds %08lx\n", address, static_cast<unsigned long>(word));
            return;
        }
        signal_printf(fd_, " waits : %016lx holds %08lx owner %ld\n", address, static_cast<unsigned long>(word),
                      static_cast<long>(owner));
        if (wait_count_ < kMaxWaits)
            waits_[wait_count_++] = {thread.id, owner};
    }

    // 0 unless the word belongs to a lock whose owner is in this process.
    pid_t owner_of(unsigned long address, std::uint32_t word, unsigned long operation)
    {
        auto command = static_cast<int>(operation) & FUTEX_CMD_MASK;
        bool has_owner_in_word = command == FUTEX_LOCK_PI || command == FUTEX_LOCK_PI2;
        std::int32_t owner;
        if (has_owner_in_word) {
            owner = static_cast<std::int32_t>(word & FUTEX_TID_MASK);
        } else {
            constexpr std::uint32_t kLockedWithWaiters = 2;
            if (word != kLockedWithWaiters ||
                memory_.copy(address + offsetof(pthread_mutex_t, __data.__owner), &owner, sizeof owner) != sizeof owner)
                return 0;
        }
        return is_thread_of_process(owner) ? owner : 0;
    }

    void report_calls(unsigned long sp)
    {
        int count = 0;
        scan_stack(&memory_, &memory_, sp, sp + kScannedStack, [&](unsigned long place, unsigned long address) {
            signal_printf(fd_, " found : %016lx %016lx\n", place, address);
            return ++count < kMaxCalls;
        });
    }

    pid_t owner_for(pid_t thread) const
    {
        for (std::size_t i = 0; i < wait_count_; i++) {
            if (waits_[i].thread == thread)
                return waits_[i].owner;
        }
        return 0;
    }

    // Each circle once, from its thread with the lowest id.
    void report_circles()
    {
        for (std::size_t i = 0; i < wait_count_; i++) {
            pid_t first = waits_[i].thread;
            pid_t thread = first;
            int length = 0;
            bool is_lowest = true;
            do {
                is_lowest = is_lowest && thread >= first;
                thread = owner_for(thread);
                length++;
            } while (thread != 0 && thread != first && length < kMaxCircle);
            if (thread == first && is_lowest)
                report_circle(first);
        }
    }

    void report_circle(pid_t first)
    {
        char text[kTextSize];
        int used = signal_snprintf(text, sizeof text, "deadlock: %d", first);
        pid_t thread = first;
        do {
            thread = owner_for(thread);
            used += signal_snprintf(text + used, static_cast<int>(sizeof text) - used, " waits for %d", thread);
        } while (thread != first && used < static_cast<int>(sizeof text) - 32);
        signal_printf(fd_, "%s\n", text);
    }

    int fd_;
    bool asks_threads_;
    long begin_;
    walk_questions questions_;
    safe_memory memory_{safe_memory::subject::module}; // another thread may unmap its stack
    std::size_t wait_count_ = 0;
    std::array<waiting_thread, kMaxWaits> waits_;
};

} // namespace

void report_threads(int fd, bool asks_threads)
{
    thread_reporter(fd, asks_threads).report();
}

} // namespace qv::fault
