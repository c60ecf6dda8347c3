// SPDX-License-Identifier: Apache-2.0
// A sequence of operations on a wheel of tick timers, compared with a simple model: lists of numbers, advanced one tick
// at a time. Both fire the same timers in the same order on the same ticks, and callbacks do the same to both.
#include "atimer.h"

#include "tests/fuzz/timer_input.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <vector>

namespace {

constexpr std::size_t kTimers = 24;

enum class Action { kNone, kStartAgain, kStopOther, kAdjustOther, kMoveClock };

struct Script {
    Action action = Action::kNone;
    std::size_t other = 0;
    std::uint32_t expire = 0;
    long clock = 0;
};

struct Firing {
    std::uint32_t tick;
    std::size_t timer;
    bool operator==(const Firing &) const = default;
};

std::array<Script, kTimers> scripts;

void require(bool holds)
{
    if (!holds)
        std::abort();
}

// What callbacks do, to both wheels.
template <typename Side>
void act(Side &side, std::size_t i)
{
    side.log.push_back({side.tick(), i});
    const Script &script = scripts[i];
    if (side.actions_left-- <= 0)
        return;
    switch (script.action) {
    case Action::kNone:
        break;
    case Action::kStartAgain:
        side.start(i);
        break;
    case Action::kStopOther:
        side.stop(script.other);
        break;
    case Action::kAdjustOther:
        side.adjust(script.other, script.expire);
        break;
    case Action::kMoveClock:
        fuzz::now.tv_sec += script.clock;
        break;
    }
}

struct Side {
    std::vector<Firing> log;
    int actions_left = 0;
};

struct Real : Side {
    atimer_context wheel;
    std::array<atimer, kTimers> timers{};
    std::array<std::pair<Real *, std::size_t>, kTimers> args;

    Real(unsigned levels, int bits)
    {
        require(atimer_init(&wheel, levels, bits) == 0);
        for (std::size_t i = 0; i < kTimers; i++) {
            args[i] = {this, i};
            init_atimer(&timers[i], 1, fired, &args[i]);
        }
    }
    ~Real()
    {
        for (std::int32_t i = 0; i < wheel.nlevels; i++)
            std::free(wheel.levels[i].buckets);
        std::free(wheel.levels);
    }
    Real(const Real &) = delete;

    static void fired(void *arg)
    {
        auto [side, i] = *static_cast<std::pair<Real *, std::size_t> *>(arg);
        act(*side, i);
    }
    std::uint32_t tick() const { return wheel.tick; }
    bool runs(std::size_t i) const { return timers[i].bucket != nullptr; }
    void start(std::size_t i)
    {
        if (!runs(i) && static_cast<std::int32_t>(timers[i].expire) < static_cast<std::int32_t>(wheel.max_expire))
            start_atimer(&wheel, &timers[i]);
    }
    void stop(std::size_t i) { stop_atimer(&timers[i]); }
    void adjust(std::size_t i, std::uint32_t expire)
    {
        stop(i);
        timers[i].expire = expire;
        start(i);
    }
    void tick_once() { per_tick_call(&wheel); }
    int process() { return process_atimer(&wheel); }
};

struct Model : Side {
    unsigned levels, bits;
    std::uint32_t ticks = 0, last_second;
    std::vector<std::vector<std::vector<std::size_t>>> buckets;
    std::vector<std::uint32_t> current;
    std::array<std::vector<std::size_t> *, kTimers> place{};
    std::array<std::uint32_t, kTimers> expire, remain{};

    Model(unsigned levels_wanted, unsigned bits_wanted)
        : levels(levels_wanted), bits(bits_wanted), last_second(static_cast<std::uint32_t>(fuzz::now.tv_sec)),
          buckets(levels, std::vector<std::vector<std::size_t>>(1U << bits)), current(levels)
    {
        expire.fill(1);
    }

    std::uint32_t tick() const { return ticks; }
    bool runs(std::size_t i) const { return place[i] != nullptr; }
    std::uint32_t low(std::uint32_t word, unsigned level) const { return word & ((1U << level * bits) - 1); }

    void append(std::size_t i, unsigned level, std::uint32_t slots)
    {
        place[i] = &buckets[level][(current[level] + slots) & ((1U << bits) - 1)];
        place[i]->push_back(i);
    }
    void start(std::size_t i)
    {
        std::uint32_t limit = ((1U << bits) - 1) << (levels - 1) * bits;
        if (runs(i) || static_cast<std::int32_t>(expire[i]) >= static_cast<std::int32_t>(limit))
            return;
        for (unsigned level = levels; level-- > 0;) {
            std::uint32_t v = low(ticks, level) + std::max(expire[i], 1U);
            if (v >> level * bits == 0)
                continue;
            remain[i] = low(v, level);
            return append(i, level, v >> level * bits);
        }
    }
    void stop(std::size_t i)
    {
        if (runs(i))
            std::erase(*place[i], i);
        place[i] = nullptr;
    }
    void adjust(std::size_t i, std::uint32_t ticks_wanted)
    {
        stop(i);
        expire[i] = ticks_wanted;
        start(i);
    }
    void move_down(std::size_t i, unsigned from)
    {
        stop(i);
        for (unsigned level = from; level-- > 0;) {
            std::uint32_t slots = remain[i] >> level * bits;
            if (slots == 0)
                continue;
            remain[i] = low(remain[i], level);
            return append(i, level, slots);
        }
        act(*this, i);
    }
    void tick_once()
    {
        ticks++;
        for (unsigned level = 0; level < levels && low(ticks, level) == 0; level++) {
            current[level] = (current[level] + 1) & ((1U << bits) - 1);
            auto &bucket = buckets[level][current[level]];
            while (!bucket.empty())
                move_down(bucket.front(), level);
        }
    }
    int process()
    {
        for (;;) {
            auto behind = static_cast<std::int32_t>(static_cast<std::uint32_t>(fuzz::now.tv_sec) - last_second);
            if (behind < 1)
                return behind;
            last_second++;
            tick_once();
        }
    }
};

constexpr std::array<std::pair<unsigned, unsigned>, 8> kShapes = {
    {{1, 1}, {1, 6}, {2, 1}, {2, 4}, {3, 2}, {4, 3}, {5, 1}, {3, 7}}};

std::uint32_t some_expire(fuzz::Input &input)
{
    std::uint8_t choice = input.byte();
    return choice < 200 ? choice : input.word() >> choice % 32;
}

template <typename Step>
void on_both(Real &real, Model &model, Step work)
{
    timespec before = fuzz::now;
    real.actions_left = model.actions_left = 40;
    int result = work(real);
    timespec after = fuzz::now;
    fuzz::now = before;
    require(work(model) == result);
    require(fuzz::now.tv_sec == after.tv_sec);
    require(real.log == model.log);
    require(real.wheel.tick == model.ticks && real.wheel.last_second == model.last_second);
    for (std::size_t i = 0; i < kTimers; i++)
        require(real.runs(i) == model.runs(i));
}

void step(fuzz::Input &input, Real &real, Model &model)
{
    std::uint8_t choice = input.byte();
    std::size_t i = input.byte() % kTimers;
    switch (choice % 6) {
    case 0:
    case 1: {
        std::uint32_t expire = some_expire(input);
        on_both(real, model, [&](auto &side) { return side.adjust(i, expire), 0; });
        break;
    }
    case 2:
        on_both(real, model, [&](auto &side) { return side.stop(i), 0; });
        break;
    case 3:
        scripts[i] = {static_cast<Action>(input.byte() % 5), input.byte() % kTimers, some_expire(input),
                      input.byte() % 40 - 20L};
        break;
    case 4:
        on_both(real, model, [&](auto &side) { return side.tick_once(), 0; });
        break;
    default:
        fuzz::now.tv_sec += choice / 8 == 31 ? -5 : input.byte() * (choice / 8);
        on_both(real, model, [&](auto &side) { return side.process(); });
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    fuzz::now = {0xFFFFFF00L, 0}; // so that the seconds wrap soon
    auto [levels, bits] = kShapes[input.byte() % kShapes.size()];
    scripts = {};
    Real real(levels, static_cast<int>(bits));
    Model model(levels, bits);
    while (!input.empty())
        step(input, real, model);
    return 0;
}
