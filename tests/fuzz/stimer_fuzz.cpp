// SPDX-License-Identifier: Apache-2.0
// A sequence of operations on sorted timers, compared with a list of the running ones: a timer that fires is due and
// the earliest, no due timer is left, and callbacks start, stop, free and make timers.
#include "stimer.h"

#include "debug_trace.h"
#include "tests/fuzz/timer_input.h"

#include <array>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <tuple>

namespace {

constexpr std::size_t kTimers = 24;
constexpr long kOddTimes[] = {
    LONG_MIN,       -(1L << 42) - 1, -(1L << 42),    -(1L << 42) + 1, -2,       -1,      (1L << 21) - 3,
    (1L << 21) - 2, 1L << 21,        (1L << 42) - 2, (1L << 42) - 1,  1L << 42, LONG_MAX};

enum class Action { kNone, kStartAgain, kStopOther, kReplaceOther, kReplaceItself, kMoveClock };

struct Slot {
    stimer *timer = nullptr;
    bool runs = false;
    Action action = Action::kNone;
    std::size_t other = 0;
};

void *context;
std::array<Slot, kTimers> slots;
timeval began; // the clock at the start of the call
int starts_left;

void require(bool holds)
{
    if (!holds)
        std::abort();
}

bool earlier(const timeval &a, const timeval &b)
{
    return std::tie(a.tv_sec, a.tv_usec) < std::tie(b.tv_sec, b.tv_usec);
}

const Slot *earliest()
{
    const Slot *found = nullptr;
    for (const Slot &slot : slots) {
        if (slot.runs && (found == nullptr || earlier(slot.timer->expire, found->timer->expire)))
            found = &slot;
    }
    return found;
}

void start(Slot &slot)
{
    start_stimer(slot.timer);
    slot.runs = true;
}

void stop(Slot &slot)
{
    stop_stimer(slot.timer);
    slot.runs = false;
}

void fired(void *arg);

void replace(Slot &slot)
{
    timeval interval = slot.timer->interval;
    free_stimer(slot.timer);
    slot.timer = create_stimer(&context, 0, fired, &slot);
    slot.timer->interval = interval;
    slot.runs = false;
}

void fired(void *arg)
{
    Slot &slot = *static_cast<Slot *>(arg);
    require(slot.runs && stimer_isruning(slot.timer) == 0 && !earlier(began, slot.timer->expire));
    require(!earlier(earliest()->timer->expire, slot.timer->expire));
    slot.runs = false;
    switch (slot.action) {
    case Action::kNone:
        break;
    case Action::kStartAgain:
        if (starts_left-- > 0)
            start(slot);
        break;
    case Action::kStopOther:
        stop(slots[slot.other]);
        break;
    case Action::kReplaceOther:
        replace(slots[slot.other]);
        break;
    case Action::kReplaceItself:
        replace(slot);
        break;
    case Action::kMoveClock:
        fuzz::now.tv_sec += 3;
        break;
    }
}

long part_of_time(fuzz::Input &input)
{
    std::uint8_t choice = input.byte();
    return choice % 4 != 0 ? choice / 4 % 8 : kOddTimes[choice / 4 % std::size(kOddTimes)];
}

void step(fuzz::Input &input)
{
    std::uint8_t choice = input.byte();
    Slot &slot = slots[input.byte() % kTimers];
    switch (choice % 8) {
    case 0:
    case 1:
    case 2: {
        timeval interval = {part_of_time(input), part_of_time(input)};
        if (!slot.runs)
            slot.timer->interval = interval;
        start(slot);
        break;
    }
    case 3:
        stop(slot);
        break;
    case 4:
        slot.action = static_cast<Action>(input.byte() % 6);
        slot.other = input.byte() % kTimers;
        break;
    case 5:
        replace(slot);
        break;
    default:
        fuzz::now.tv_sec += choice / 8 % 4;
        fuzz::now.tv_nsec = input.byte() % 8 * 1000;
        began = {fuzz::now.tv_sec, fuzz::now.tv_nsec / 1000};
        starts_left = 50;
        process_stimer(&context);
        // A timer that a callback starts may be due already, but then it is fired too.
        require(earliest() == nullptr || earlier(began, earliest()->timer->expire));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    fuzz::now = {1000, 0};
    __qv_debug_level = 0;
    require(stimer_context_init(&context) == 0);
    for (Slot &slot : slots)
        slot = {.timer = create_stimer(&context, 1, fired, &slot)};
    while (!input.empty()) {
        step(input);
        timeval next;
        const Slot *first = earliest();
        require(stimer_get_next_expire(&context, &next) == (first != nullptr ? 0 : -1));
        require(first == nullptr || (!earlier(first->timer->expire, next) && !earlier(next, first->timer->expire)));
        for (const Slot &slot : slots)
            require(slot.runs == (stimer_isruning(slot.timer) == 1));
    }
    for (Slot &slot : slots)
        free_stimer(slot.timer);
    stimer_context_fini(&context);
    return 0;
}
