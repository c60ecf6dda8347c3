// SPDX-License-Identifier: Apache-2.0
// The cascading wheel of tick timers.
#include "atimer.h"

#include "base/tail_queue.h"
#include "console_print.h"
#include "qv_time.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace qv;

namespace {

constexpr unsigned kMaxTotalBits = 30;
constexpr std::size_t kWordBits = 64;

static_assert(offsetof(atimer_context, levels) == 0 && offsetof(atimer_context, nlevels) == 8);
static_assert(offsetof(atimer_context, total_bits) == 12 && offsetof(atimer_context, tick_mask) == 16);
static_assert(offsetof(atimer_context, max_expire) == 20 && offsetof(atimer_context, tick) == 24);
static_assert(offsetof(atimer_context, last_second) == 28 && sizeof(atimer_context) == 32);
static_assert(offsetof(atimer_level, current) == 8 && offsetof(atimer_level, bits) == 12);
static_assert(offsetof(atimer_level, size) == 16 && offsetof(atimer_level, shift) == 20);
static_assert(offsetof(atimer_level, mask) == 24 && sizeof(atimer_level) == 32);
static_assert(offsetof(atimer, prev) == 8 && offsetof(atimer, bucket) == 16 && offsetof(atimer, spare) == 24);
static_assert(offsetof(atimer, callback) == 32 && offsetof(atimer, arg) == 40);
static_assert(offsetof(atimer, expire) == 48 && offsetof(atimer, remain) == 52 && sizeof(atimer) == 56);

// ---- occupancy: a bit for each bucket, in words after the bucket array ----
//
// A bit is set when a timer is queued and cleared only when the bucket is found empty, so stopping stays a list
// operation; an occupied bucket always has its bit set.

std::uint64_t *occupancy(const atimer_level &level)
{
    return reinterpret_cast<std::uint64_t *>(level.buckets + level.size);
}

constexpr std::size_t occupancy_words(std::size_t size)
{
    return (size + kWordBits - 1) / kWordBits;
}

// The number of advances, 1 to size, after which the next occupied bucket is the current one; 0 when `limit` advances
// reach none. After size advances the current bucket is current again.
std::uint32_t advances_to_occupied(const atimer_level &level, std::uint32_t limit)
{
    auto size = static_cast<std::uint32_t>(level.size);
    std::uint64_t *words = occupancy(level);
    for (std::uint32_t step = 1; step <= std::min(limit, size);) {
        std::uint32_t at = (static_cast<std::uint32_t>(level.current) + step) & (size - 1);
        std::uint64_t ahead = words[at / kWordBits] >> (at % kWordBits);
        if (ahead == 0) {
            // Continue at the next word; after the last word, at the first bucket.
            step += std::min<std::uint32_t>(kWordBits - at % kWordBits, size - at);
            continue;
        }
        auto skipped = static_cast<std::uint32_t>(std::countr_zero(ahead));
        step += skipped;
        at += skipped;
        if (step > std::min(limit, size))
            break;
        if (level.buckets[at].first != nullptr)
            return step;
        words[at / kWordBits] &= ~(std::uint64_t{1} << (at % kWordBits));
        step++;
    }
    return 0;
}

// ---- buckets ----

void queue(atimer_level &level, std::uint32_t slot, atimer &timer)
{
    slot &= static_cast<std::uint32_t>(level.size) - 1;
    base::tail_queue_append(level.buckets[slot], timer);
    timer.bucket = &level.buckets[slot];
    occupancy(level)[slot / kWordBits] |= std::uint64_t{1} << (slot % kWordBits);
}

// The timer is off the wheel when its callback runs and is not touched afterwards: the callback may have freed it.
void fire(atimer &timer)
{
    stop_atimer(&timer);
    if (timer.callback != nullptr)
        timer.callback(timer.arg);
}

// For a timer of level i whose bucket has become current: moves it to the highest lower level at which it still has to
// wait, or fires it.
void cascade(atimer_context &ctx, std::int32_t i, atimer &timer)
{
    for (std::int32_t j = i - 1; j >= 0; j--) {
        atimer_level &level = ctx.levels[j];
        std::uint32_t slots = timer.remain >> level.shift;
        if (slots == 0)
            continue;
        timer.remain &= level.mask;
        base::tail_queue_unlink(*timer.bucket, timer);
        queue(level, slots + static_cast<std::uint32_t>(level.current), timer);
        return;
    }
    fire(timer);
}

// Whether this tick advances level i. If it does not, it advances no higher level: their masks have more bits.
bool comes_up(const atimer_context &ctx, std::int32_t i)
{
    return i < ctx.nlevels && (ctx.tick & ctx.levels[i].mask) == 0;
}

atimer_bucket &bring_up_next(atimer_level &level)
{
    level.current = (level.current + 1) & (level.size - 1);
    return level.buckets[level.current];
}

// Finishes a tick from level i, whose current bucket is given. A separate function, so that an idle tick calls nothing
// and saves no registers.
[[gnu::noinline]] void finish_tick(atimer_context &ctx, std::int32_t i, atimer_bucket *bucket)
{
    for (;;) {
        // Read again after every step: a callback may stop, free or start any timer, in this bucket too.
        while (bucket->first != nullptr)
            cascade(ctx, i, *bucket->first);
        if (!comes_up(ctx, ++i))
            return;
        bucket = &bring_up_next(ctx.levels[i]);
    }
}

// ---- stalls ----

// The number of ticks, at most `limit`, before the next tick that makes an occupied bucket current.
std::uint32_t idle_ticks(const atimer_context &ctx, std::uint32_t limit)
{
    for (std::int32_t i = 0; i < ctx.nlevels && limit > 0; i++) {
        const atimer_level &level = ctx.levels[i];
        // `into` is the number of ticks since this level's last advance.
        std::uint64_t into = ctx.tick & level.mask;
        auto advances = static_cast<std::uint32_t>((into + limit) >> level.shift);
        std::uint32_t step = advances_to_occupied(level, advances);
        if (step != 0)
            limit = static_cast<std::uint32_t>((std::uint64_t{step} << level.shift) - into - 1);
    }
    return limit;
}

// Advances by ticks that make only empty buckets current.
void pass(atimer_context &ctx, std::uint32_t ticks)
{
    for (std::int32_t i = 0; i < ctx.nlevels; i++) {
        atimer_level &level = ctx.levels[i];
        std::uint64_t into = ctx.tick & level.mask;
        auto advances = static_cast<std::uint32_t>((into + ticks) >> level.shift);
        level.current = static_cast<std::int32_t>((static_cast<std::uint32_t>(level.current) + advances) &
                                                  (static_cast<std::uint32_t>(level.size) - 1));
    }
    ctx.tick += ticks;
    ctx.last_second += ticks;
}

// ---- set-up ----

atimer_bucket *make_buckets(std::size_t size)
{
    std::size_t heads = size * sizeof(atimer_bucket);
    auto *buckets = static_cast<atimer_bucket *>(std::calloc(heads + occupancy_words(size) * sizeof(std::uint64_t), 1));
    if (buckets == nullptr)
        return nullptr;
    for (std::size_t i = 0; i < size; i++)
        base::tail_queue_init(buckets[i]);
    return buckets;
}

void free_levels(atimer_context &ctx, std::int32_t made)
{
    for (std::int32_t i = 0; i < made; i++)
        std::free(ctx.levels[i].buckets);
    std::free(ctx.levels);
    ctx.levels = nullptr;
    ctx.nlevels = 0;
}

// A shift of a 32-bit word by the count's low five bits, as the machine does it. The fields of a refused wheel are
// computed in this way, contract.
constexpr std::uint32_t shifted(std::uint32_t word, std::uint32_t count)
{
    return word << (count % 32);
}

} // namespace

extern "C" {

int atimer_init(struct atimer_context *ctx, unsigned int nlevels, int bits)
{
    if (ctx == nullptr)
        return -1;
    ctx->levels = nullptr;
    ctx->nlevels = 0;
    ctx->tick = 0;
    auto width = static_cast<std::uint32_t>(bits);
    ctx->total_bits = nlevels * width;
    ctx->tick_mask = shifted(1, ctx->total_bits) - 1;
    ctx->max_expire = shifted(shifted(1, width) - 1, ctx->total_bits - width);
    // Multiplied in 64 bits: a product that wraps must not count as a small one.
    if (bits < 0 || width > kMaxTotalBits || std::uint64_t{nlevels} * width > kMaxTotalBits) {
        console_print("atimer_init: max tick can not be greater than 2^30\n");
        return -1;
    }
    if (nlevels > INT_MAX)
        return -1;

    ctx->levels = static_cast<atimer_level *>(std::calloc(std::max<std::size_t>(nlevels, 1), sizeof(atimer_level)));
    if (ctx->levels == nullptr)
        return -1;
    ctx->nlevels = static_cast<std::int32_t>(nlevels);
    for (std::int32_t i = 0; i < ctx->nlevels; i++) {
        atimer_level &level = ctx->levels[i];
        level.bits = bits;
        level.size = std::int32_t{1} << bits;
        level.shift = i * bits;
        level.mask = shifted(1, static_cast<std::uint32_t>(level.shift)) - 1;
        level.buckets = make_buckets(static_cast<std::size_t>(level.size));
        if (level.buckets == nullptr) {
            free_levels(*ctx, i);
            return -1;
        }
    }
    ctx->last_second = get_time_second();
    return 0;
}

struct atimer *create_atimer(unsigned int expire, void (*callback)(void *arg), void *arg)
{
    auto *timer = static_cast<atimer *>(std::malloc(sizeof(atimer)));
    if (timer == nullptr)
        return nullptr;
    timer->bucket = nullptr;
    init_atimer(timer, expire, callback, arg);
    return timer;
}

void init_atimer(struct atimer *timer, unsigned int expire, void (*callback)(void *arg), void *arg)
{
    if (timer == nullptr)
        return;
    stop_atimer(timer);
    timer->spare = 0;
    timer->callback = callback;
    timer->arg = arg;
    timer->expire = expire;
    timer->remain = expire;
}

void start_atimer(struct atimer_context *ctx, struct atimer *timer)
{
    auto *callback = reinterpret_cast<void *>(timer->callback);
    if (timer->bucket != nullptr) {
        console_print("ATimer has already been started, callback %p\n", callback);
        return;
    }
    // Contract: the comparison is signed. An expiry from 2^31 up is accepted and fires after that many ticks.
    if (static_cast<std::int32_t>(ctx->max_expire) <= static_cast<std::int32_t>(timer->expire)) {
        console_print("ATimer expire %d greater than max allowed %d, callback %p\n",
                      static_cast<std::int32_t>(timer->expire), static_cast<std::int32_t>(ctx->max_expire), callback);
        return;
    }
    std::uint32_t ticks = std::max(timer->expire, 1U);
    std::uint32_t base = ctx->tick & ctx->tick_mask;
    for (std::int32_t i = ctx->nlevels - 1; i >= 0; i--) {
        atimer_level &level = ctx->levels[i];
        std::uint32_t v = (base & level.mask) + ticks;
        std::uint32_t slots = v >> level.shift;
        if (slots == 0)
            continue;
        timer->remain = v & level.mask;
        queue(level, static_cast<std::uint32_t>(level.current) + slots, *timer);
        return;
    }
}

void stop_atimer(struct atimer *timer)
{
    if (timer == nullptr || timer->bucket == nullptr)
        return;
    base::tail_queue_unlink(*timer->bucket, *timer);
    timer->bucket = nullptr;
}

void adjust_atimer(struct atimer_context *ctx, struct atimer *timer, unsigned int expire)
{
    if (ctx == nullptr || timer == nullptr)
        return;
    stop_atimer(timer);
    timer->expire = expire;
    start_atimer(ctx, timer);
}

void free_atimer(struct atimer *timer)
{
    stop_atimer(timer);
    std::free(timer);
}

void per_tick_call(struct atimer_context *ctx)
{
    ctx->tick++;
    if (!comes_up(*ctx, 0))
        return;
    atimer_bucket &bucket = bring_up_next(ctx->levels[0]);
    if (bucket.first != nullptr || comes_up(*ctx, 1))
        finish_tick(*ctx, 0, &bucket);
}

int process_atimer(struct atimer_context *ctx)
{
    for (;;) {
        // Read again after every tick that may have run a callback: the callback takes time, and meanwhile the clock
        // may fail or jump.
        auto behind = static_cast<std::int32_t>(get_time_second() - ctx->last_second);
        if (behind < 1)
            return behind;
        std::uint32_t idle = idle_ticks(*ctx, static_cast<std::uint32_t>(behind));
        pass(*ctx, idle);
        if (idle == static_cast<std::uint32_t>(behind))
            continue;
        ctx->last_second++;
        per_tick_call(ctx);
    }
}
}
