// SPDX-License-Identifier: Apache-2.0
// Each thread walks its own stack, in a handler, and the thread that writes the dump copies the result.
//
// There is one place for an answer. Its state is one word, the number of the question and a phase:
//
//     idle -> open -> asked -> answering -> answered -> open -> idle
//                      |           |
//                      v           v
//                     open      given up -> idle
//
// A question's number is never used again and goes with the signal. A thread walks into its own frame first. It may
// write into the place only by the step from its own question's "asked" to "answering", so a late answer finds another
// number or phase and is dropped. The asker takes the question back by the step from "asked" to "open". If a thread
// stops while it writes, the asker gives the place up; it stays closed until that thread has finished.
#include "fault/thread_walk.h"

#include "base/errno_guard.h"
#include "crash_details.h"
#include "fault/log_walk.h"
#include "fault/running_handlers.h"
#include "fault/safe_memory.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <linux/futex.h>
#include <sys/syscall.h>

using namespace qv;

namespace qv::fault {
namespace {

using std::uint64_t;

constexpr long kMillisecondsForAll = 2000;
constexpr long kMillisecondsForOne = 500;
constexpr unsigned long kHandlerStack = 16384; // the kernel's frame with vector registers, and the walk

enum phase : uint64_t { kIdle, kOpen, kAsked, kAnswering, kAnswered, kGivenUp };
constexpr int kPhaseBits = 3;

constexpr uint64_t make_state(uint64_t question, phase now)
{
    return question << kPhaseBits | now;
}

std::atomic<bool> is_wanted;
std::atomic<uint64_t> state;         // 0 is idle
std::atomic<uint64_t> last_question; // of any dump
std::atomic<pid_t> asking_process;   // a forked child inherits the state, but nobody who would answer
std::atomic<int> answers;            // futex: counts answers
thread_walk place;                   // written in phase "answering", read in phase "answered"

bool change(uint64_t from, uint64_t to)
{
    return state.compare_exchange_strong(from, to);
}

long milliseconds_since(const timespec &begin)
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - begin.tv_sec) * 1000 + (now.tv_nsec - begin.tv_nsec) / 1000000;
}

void await_change(int seen)
{
    constexpr timespec kPoll = {0, 20000000}; // a wake-up may be missed only by a process without futexes
    ::syscall(SYS_futex, &answers, FUTEX_WAIT_PRIVATE, seen, &kPoll, nullptr, 0);
}

void announce_answer()
{
    answers++;
    ::syscall(SYS_futex, &answers, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

void walk_own_stack(const void *uctx, thread_walk *walk)
{
    machine_context machine(uctx);
    unsigned long bottom = 0;
    walk->pc = machine.program_counter();
    walk->sp = machine.stack_pointer();
    walk->depth = walk_for_log(machine, walk->addrs, walk->frames, kMaxFrames, &bottom);
}

void answer_question(int, siginfo_t *info, void *uctx)
{
    base::errno_guard keep;
    if (info->si_code != SI_QUEUE || info->si_pid != ::getpid())
        return;
    auto question = reinterpret_cast<uint64_t>(info->si_value.sival_ptr);
    if (state != make_state(question, kAsked))
        return;
    thread_walk walk = {};
    walk_own_stack(uctx, &walk);
    if (!change(make_state(question, kAsked), make_state(question, kAnswering)))
        return;
    place = walk;
    if (!change(make_state(question, kAnswering), make_state(question, kAnswered)))
        state = kIdle; // given up meanwhile
    announce_answer();
}

bool send_question(pid_t thread, uint64_t question)
{
    siginfo_t info = {};
    info.si_signo = QV_CRASH_WALK_SIGNAL;
    info.si_code = SI_QUEUE;
    info.si_pid = ::getpid();
    info.si_value.sival_ptr = reinterpret_cast<void *>(question);
    return ::syscall(SYS_rt_tgsigqueueinfo, ::getpid(), thread, QV_CRASH_WALK_SIGNAL, &info) == 0;
}

bool blocks_signal(pid_t thread)
{
    uint64_t mask;
    return !read_blocked_signals(thread, &mask) || (mask >> (QV_CRASH_WALK_SIGNAL - 1) & 1) != 0;
}

// Below a thread's stack lies its guard page. The first thread's stack grows when it is used.
bool has_room(pid_t thread, unsigned long sp)
{
    unsigned long word;
    return sp == 0 || thread == ::getpid() || safe_memory(safe_memory::subject::module).load(sp - kHandlerStack, &word);
}

bool is_own_handler(const struct sigaction &action)
{
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == answer_question;
}

} // namespace

walk_questions::walk_questions()
{
    ::clock_gettime(CLOCK_MONOTONIC, &begin_);
    if (!is_wanted)
        return;
    uint64_t before = state;
    bool is_inherited = asking_process != ::getpid();
    if ((before != kIdle && !is_inherited) || !change(before, kOpen))
        return;
    asking_process = ::getpid();
    is_open_ = true;
}

walk_questions::~walk_questions()
{
    if (is_open_)
        state = kIdle;
}

walk_questions::answer walk_questions::ask(pid_t thread, unsigned long sp, thread_walk *walk)
{
    base::errno_guard keep;
    if (!is_wanted)
        return answer::unwanted;
    if (!is_open_)
        return answer::busy;
    if (milliseconds_since(begin_) >= kMillisecondsForAll)
        return answer::no_time;
    if (blocks_signal(thread))
        return answer::blocked;
    if (!has_room(thread, sp))
        return answer::no_room;
    uint64_t question = ++last_question;
    state = make_state(question, kAsked);
    if (!send_question(thread, question)) {
        state = kOpen;
        return answer::refused;
    }
    return await(question, walk);
}

// A thread that has begun to write has all but finished: it gets the same time again.
walk_questions::answer walk_questions::await(uint64_t question, thread_walk *walk)
{
    timespec asked = {};
    ::clock_gettime(CLOCK_MONOTONIC, &asked);
    for (;;) {
        int seen = answers;
        if (state == make_state(question, kAnswered)) {
            *walk = place;
            state = kOpen;
            return answer::given;
        }
        bool is_late =
            milliseconds_since(asked) >= kMillisecondsForOne || milliseconds_since(begin_) >= kMillisecondsForAll;
        if (is_late && change(make_state(question, kAsked), kOpen))
            return answer::none;
        if (is_late && milliseconds_since(asked) >= 2 * kMillisecondsForOne &&
            change(make_state(question, kAnswering), make_state(question, kGivenUp))) {
            is_open_ = false;
            return answer::none;
        }
        await_change(seen);
    }
}

const char *walk_questions::reason(answer result)
{
    switch (result) {
    case answer::blocked:
        return "the thread blocks the signal";
    case answer::no_room:
        return "its stack is almost used up";
    case answer::refused:
        return "the signal cannot be sent";
    case answer::none:
        return "no answer";
    case answer::busy:
        return "another dump asks";
    case answer::no_time:
        return "no time";
    case answer::given:
    case answer::unwanted:
        break;
    }
    return "";
}

} // namespace qv::fault

extern "C" int qv_crash_walk_threads(void)
{
    using namespace fault;
    struct sigaction before = {};
    if (::sigaction(QV_CRASH_WALK_SIGNAL, nullptr, &before) != 0)
        return -1;
    if (before.sa_handler != SIG_DFL && !is_own_handler(before)) {
        errno = EBUSY;
        return -1;
    }
    struct sigaction action = {};
    action.sa_sigaction = answer_question;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    std::memset(&action.sa_mask, 0xFF, sizeof action.sa_mask);
    if (::sigaction(QV_CRASH_WALK_SIGNAL, &action, nullptr) != 0)
        return -1;
    is_wanted = true;
    return 0;
}
