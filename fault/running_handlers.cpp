// SPDX-License-Identifier: Apache-2.0
// The table of running handlers and the flag that says whether there are any.
//
// An entry is one word, so that another thread can compare and remove it in one step:
//
//     63     42 41     20 19     10 9   3 2      1       0
//     | process | thread | sequence | sig | masked | dying | finished |
//
// signal_context_flag holds a number that no earlier run has stored, or 0. A run enters the table and then stores its
// number. A run that finds the table empty clears the flag only if the flag is the same as before its search. So the
// flag is never 0 while a run is in the table: no thread in a handler uses the ordinary print path, where it could wait
// for a lock that it interrupted.
#include "fault/running_handlers.h"

#include "base/errno_guard.h"
#include "base/unique_fd.h"
#include "fault/backtrace_internal.h"
#include "fault/line_reader.h"
#include "signal_printf.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>

namespace qv::fault {
namespace {

using std::uint64_t;

// One for the process: while one thread dies, all threads print on the signal-safe path.
int signal_context_flag;

// ---- the words ----

constexpr uint64_t kFinished = 1;
constexpr uint64_t kDying = 2;
constexpr uint64_t kMasked = 4; // the kernel blocked the signal when it called the handler
constexpr int kSignalShift = 3;
constexpr int kSequenceShift = 10;
constexpr int kThreadShift = 20;
constexpr int kProcessShift = 42;
constexpr uint64_t kSignalMask = 0x7f;
constexpr uint64_t kSequenceMask = 0x3ff;
constexpr uint64_t kIdMask = 0x3fffff; // the kernel's ids stay below 4 Mi

uint64_t make_word(pid_t process, pid_t thread, int sig, unsigned sequence, bool is_masked)
{
    return (static_cast<uint64_t>(process) & kIdMask) << kProcessShift |
           (static_cast<uint64_t>(thread) & kIdMask) << kThreadShift | (sequence & kSequenceMask) << kSequenceShift |
           (static_cast<uint64_t>(sig) & kSignalMask) << kSignalShift | (is_masked ? kMasked : 0);
}

pid_t process_of(uint64_t word)
{
    return static_cast<pid_t>(word >> kProcessShift & kIdMask);
}

pid_t thread_of(uint64_t word)
{
    return static_cast<pid_t>(word >> kThreadShift & kIdMask);
}

int signal_of(uint64_t word)
{
    return static_cast<int>(word >> kSignalShift & kSignalMask);
}

// ---- the table ----

// `owner` is the thread pointer xor the word. A forked child recognises its entries by it, since a thread keeps its
// thread pointer across fork(). With another word the value means nothing, and the remaining fields, which only the
// owning thread uses, are not filled yet.
struct table_entry {
    std::atomic<uint64_t> word; // 0 when free
    std::atomic<uint64_t> owner;
    const void *frame;
    bool on_signal_stack;
    int death;               // armings() at the start of dying
    std::atomic<int> number; // the flag's when it entered

    bool is_filled_by(uint64_t pointer, uint64_t its_word) const { return (owner ^ its_word) == pointer; }
};

constexpr int kEntries = 256;
constinit table_entry entries[kEntries]{}; // untouched at load
std::atomic<int> unlisted;                 // runs that found the table full
std::atomic<unsigned> next_sequence;
std::atomic<int> last_number;
std::atomic<int> ended_number; // last_number when the latest run ended
std::atomic<int> arming_count;
std::atomic<unsigned> finished_count;

uint64_t thread_pointer()
{
    return static_cast<uint64_t>(::pthread_self());
}

// The calling thread, looked up once for a walk over the table.
struct thread_identity {
    pid_t process = ::getpid();
    pid_t thread = thread_id();
    uint64_t pointer = thread_pointer();

    bool owns(const table_entry &entry, uint64_t word) const
    {
        return process_of(word) == process ? thread_of(word) == thread : entry.is_filled_by(pointer, word);
    }
};

template <typename Predicate>
bool any_entry(Predicate accepts)
{
    for (table_entry &entry : entries) {
        uint64_t word = entry.word;
        if (word != 0 && accepts(entry, word))
            return true;
    }
    return false;
}

template <typename Action>
void for_each_entry(Action act)
{
    any_entry([&](table_entry &entry, uint64_t word) {
        act(entry, word);
        return false;
    });
}

bool remove(table_entry &entry, uint64_t word)
{
    return entry.word.compare_exchange_strong(word, 0);
}

int next_number()
{
    int number = last_number.fetch_add(1) + 1;
    return number != 0 ? number : next_number();
}

void raise_flag(int number)
{
    __atomic_store_n(&signal_context_flag, number, __ATOMIC_SEQ_CST);
}

void lower_flag_when_idle()
{
    int seen = __atomic_load_n(&signal_context_flag, __ATOMIC_SEQ_CST);
    bool is_idle = unlisted == 0 && !any_entry([](const table_entry &, uint64_t) { return true; });
    if (is_idle)
        __atomic_compare_exchange_n(&signal_context_flag, &seen, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

// ---- signal masks, as the kernel keeps them ----

constexpr std::size_t kKernelMaskSize = sizeof(uint64_t);

bool contains(uint64_t mask, int sig)
{
    return sig >= 1 && sig <= 64 && (mask >> (sig - 1) & 1) != 0;
}

uint64_t interrupted_mask(const ucontext_t &interrupted)
{
    uint64_t mask;
    std::memcpy(&mask, &interrupted.uc_sigmask, sizeof mask);
    return mask;
}

uint64_t current_mask()
{
    uint64_t mask = 0;
    ::syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, &mask, kKernelMaskSize);
    return mask;
}

// ---- other threads ----

base::unique_fd open_thread_file(pid_t thread, const char *name)
{
    char path[64];
    signal_snprintf(path, sizeof path, "/proc/self/task/%d/%s", thread, name);
    return base::unique_fd(::open(path, O_RDONLY | O_CLOEXEC));
}

// The number in the ninth field of a thread's status line. The second field, the name in brackets, may itself contain
// blanks and brackets.
unsigned long flags_field(const char *text, std::size_t length)
{
    std::size_t at = length;
    while (at > 0 && text[at - 1] != ')')
        at--;
    constexpr int kBlanksBefore = 7; // between the name and the flags
    for (int blanks = 0; at < length && blanks < kBlanksBefore; at++)
        blanks += text[at] == ' ' ? 1 : 0;
    unsigned long flags = 0;
    for (; at < length && text[at] >= '0' && text[at] <= '9'; at++)
        flags = flags * 10 + static_cast<unsigned long>(text[at] - '0');
    return flags;
}

// pthread_join() returns before the kernel removes the thread, and a first thread that ended remains as a zombie.
bool is_exiting(pid_t thread)
{
    constexpr unsigned long kExiting = 0x4; // the kernel's PF_EXITING
    base::unique_fd fd = open_thread_file(thread, "stat");
    char text[256]; // the first nine fields need less
    ssize_t n = fd ? ::read(fd.get(), text, sizeof text) : 0;
    return n > 0 && (flags_field(text, static_cast<std::size_t>(n)) & kExiting) != 0;
}

bool has_ended(pid_t process, pid_t thread)
{
    return is_exiting(thread) || (::syscall(SYS_tgkill, process, thread, 0) != 0 && errno == ESRCH);
}

// The signal of a running handler is blocked; siglongjmp() restores the mask.
bool was_left(const thread_identity &self, uint64_t word)
{
    if ((word & kMasked) == 0)
        return false;
    if (thread_of(word) == self.thread)
        return !contains(current_mask(), signal_of(word));
    uint64_t mask;
    return read_blocked_signals(thread_of(word), &mask) && !contains(mask, signal_of(word));
}

bool is_running(const thread_identity &self, uint64_t word)
{
    return process_of(word) == self.process && !has_ended(self.process, thread_of(word)) && !was_left(self, word);
}

} // namespace

bool read_blocked_signals(pid_t thread, std::uint64_t *mask)
{
    base::unique_fd fd = open_thread_file(thread, "status");
    if (!fd)
        return false;
    constexpr char kLabel[] = "SigBlk:\t";
    fault::hfgets_state reader = {};
    reader.fd = fd.get();
    char line[fault::kLineSize];
    while (fault::hfgets(line, &reader) != nullptr) {
        if (std::strncmp(line, kLabel, sizeof kLabel - 1) != 0)
            continue;
        const char *digits = line + sizeof kLabel - 1;
        return fault::detail::read_hex_field(&digits, mask);
    }
    return false;
}

running_handler::running_handler(int sig, const ucontext_t &interrupted)
{
    auto here = reinterpret_cast<std::uintptr_t>(this);
    on_signal_stack_ =
        here - reinterpret_cast<std::uintptr_t>(interrupted.uc_stack.ss_sp) < interrupted.uc_stack.ss_size;
    uint64_t mask = interrupted_mask(interrupted);
    thread_identity self;
    for_each_entry([&](table_entry &entry, uint64_t word) {
        if (!self.owns(entry, word))
            return;
        // abort() unblocks its signal, so a handler of SIGABRT may run inside another one.
        bool may_be_unmasked = signal_of(word) == SIGABRT && sig == SIGABRT;
        bool is_unmasked = (word & kMasked) != 0 && !contains(mask, signal_of(word));
        bool is_inner =
            entry.is_filled_by(self.pointer, word) && entry.on_signal_stack == on_signal_stack_ && entry.frame <= this;
        if ((is_unmasked && !may_be_unmasked) || is_inner)
            remove(entry, word);
    });

    bool is_masked = contains(current_mask(), sig) && !contains(mask, sig);
    word_ = make_word(self.process, self.thread, sig, next_sequence.fetch_add(1), is_masked);
    enter();
}

running_handler::~running_handler()
{
    if (index_ >= 0)
        remove(entries[index_], word_);
    else
        unlisted--;
    thread_identity self;
    for_each_entry([&](table_entry &entry, uint64_t word) {
        if (!self.owns(entry, word) && !is_running(self, word))
            remove(entry, word);
    });
    ended_number = last_number.load();
    lower_flag_when_idle();
}

void running_handler::enter()
{
    int number = next_number();
    auto first = static_cast<unsigned>(thread_of(word_));
    for (unsigned i = 0; i < kEntries && index_ < 0; i++) {
        auto index = static_cast<int>((first + i) % kEntries);
        uint64_t free = 0;
        if (entries[index].word.compare_exchange_strong(free, word_))
            index_ = index;
    }
    if (index_ >= 0) {
        table_entry &entry = entries[index_];
        entry.frame = this;
        entry.on_signal_stack = on_signal_stack_;
        entry.number = number;
        entry.owner = thread_pointer() ^ word_;
    } else {
        unlisted++;
    }
    raise_flag(number);
}

void running_handler::confirm()
{
    if (index_ < 0 || entries[index_].word == word_)
        return;
    index_ = -1;
    enter();
}

void running_handler::mark(uint64_t bit)
{
    uint64_t before = word_;
    word_ |= bit;
    if (index_ < 0)
        return;
    table_entry &entry = entries[index_];
    if (entry.word.compare_exchange_strong(before, word_))
        entry.owner = thread_pointer() ^ word_;
}

void running_handler::start_dying()
{
    confirm();
    if (index_ >= 0)
        entries[index_].death = arming_count;
    mark(kDying);
}

void running_handler::finish_log()
{
    mark(kFinished);
    finished_count++;
}

unsigned finished_logs()
{
    return finished_count;
}

bool is_thread_dying()
{
    thread_identity self;
    return any_entry([&](table_entry &entry, uint64_t word) {
        return (word & kDying) != 0 && self.owns(entry, word) && entry.death == arming_count;
    });
}

void count_arming()
{
    arming_count++;
}

int armings()
{
    return arming_count;
}

int handlers_on_thread()
{
    thread_identity self;
    int count = 0;
    for_each_entry([&](table_entry &entry, uint64_t word) { count += self.owns(entry, word) ? 1 : 0; });
    return count;
}

bool is_other_log_unfinished()
{
    thread_identity self;
    return any_entry([&](table_entry &entry, uint64_t word) {
        return (word & kFinished) == 0 && !self.owns(entry, word) && is_running(self, word);
    });
}

// A run that a callback left counts until another run ends, contract: only a handler clears the flag. The run that
// ended may have found the thread's signals blocked for a moment, as in pthread_create(), so runs that began before its
// end are checked again here.
bool is_handler_running()
{
    if (unlisted != 0)
        return true;
    base::errno_guard keep;
    thread_identity self;
    auto is_older = [](const table_entry &entry) { return entry.number - ended_number <= 0; };
    bool is_own = any_entry([&](table_entry &entry, uint64_t word) {
        return self.owns(entry, word) && !(is_older(entry) && was_left(self, word));
    });
    if (is_own)
        return true;
    bool is_running_here = any_entry([&](table_entry &entry, uint64_t word) {
        if (process_of(word) != self.process)
            return false;
        if (!has_ended(self.process, thread_of(word)) && !(is_older(entry) && was_left(self, word)))
            return true;
        remove(entry, word);
        return false;
    });
    if (!is_running_here)
        lower_flag_when_idle();
    return is_running_here;
}

} // namespace qv::fault

extern "C" int in_signal_context(void)
{
    using namespace qv::fault;
    return __atomic_load_n(&signal_context_flag, __ATOMIC_RELAXED) != 0 && is_handler_running() ? 1 : 0;
}
