// SPDX-License-Identifier: Apache-2.0
// Identifier pools.
//
// Identifiers, offsets and counts are computed in 64 bits, since ranges reach INT_MAX. `words` is the number of bitmap
// words that the pool was made with; scans use it, and a resize does not change it. Three consequences:
//   - a bitmap always has at least `words` words;
//   - a bitmap that has grown has words that the scans do not reach;
//   - a bitmap that has shrunk has words after its last identifier. All their bits are set, so that a scan never finds
//     an identifier there while a lower one is free.
#include "idpool.h"

#include "console_print.h"
#include "container/zeroed_malloc.h"
#include "strutil.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace qv;

static_assert(offsetof(idpool, min_id) == 32 && offsetof(idpool, max_id) == 36 && offsetof(idpool, bitmap) == 40);
static_assert(offsetof(idpool, words) == 48 && offsetof(idpool, next) == 52 && sizeof(idpool) == 56);

namespace {

constexpr std::int64_t kWordBits = 32;
constexpr std::uint32_t kFull = UINT32_MAX;

bool is_valid(int min, int max)
{
    return min >= 0 && min <= max;
}

std::int64_t words_for(std::int64_t count)
{
    return (count + kWordBits - 1) / kWordBits;
}

std::int64_t size_of(const idpool *pool)
{
    return std::int64_t{pool->max_id} - pool->min_id + 1;
}

// Sets the bits after the first count ones, up to the end of a bitmap of `words` words, so that no scan finds them
// free.
void set_spare_bits(std::uint32_t *bitmap, std::int64_t count, std::int64_t words)
{
    if (count % kWordBits != 0)
        bitmap[count / kWordBits] |= kFull << (count % kWordBits);
    if (std::int64_t used = words_for(count); used < words)
        std::fill(bitmap + used, bitmap + words, kFull);
}

std::uint32_t *make_bitmap(std::int64_t words)
{
    return static_cast<std::uint32_t *>(
        container::zeroed_malloc(static_cast<std::size_t>(words) * sizeof(std::uint32_t)));
}

// Initialises the record of a new pool with a zeroed bitmap.
void init_record(idpool *pool, const char *name, int min, int max, std::uint32_t *bitmap)
{
    strlcpy(pool->name, name, sizeof pool->name);
    pool->min_id = min;
    pool->max_id = max;
    pool->bitmap = bitmap;
    pool->words = static_cast<std::int32_t>(words_for(size_of(pool)));
    pool->next = 0;
    set_spare_bits(bitmap, size_of(pool), pool->words);
}

// ---- scanning ----

// Two neighbouring words at once. In memory the identifiers of a pair are in the order of its bits.
static_assert(std::endian::native == std::endian::little);
constexpr std::int64_t kPair = 2;

std::uint64_t load_pair(const std::uint32_t *words)
{
    std::uint64_t pair;
    std::memcpy(&pair, words, sizeof pair);
    return pair;
}

// The first word in [from, end) that differs from Skipped; end when there is none. Where the next words are not enough
// whole blocks are compared at once: the compiler vectorises the inner loop.
template <std::uint32_t Skipped>
std::int64_t skip(const std::uint32_t *bitmap, std::int64_t from, std::int64_t end)
{
    constexpr std::int64_t kNear = 16;
    constexpr std::int64_t kBlock = 32;
    constexpr std::uint64_t kSkippedPair = std::uint64_t{Skipped} << kWordBits | Skipped;
    for (std::int64_t near = std::min(from + kNear, end - 1); from < near; from += kPair) {
        if (load_pair(bitmap + from) != kSkippedPair)
            return bitmap[from] != Skipped ? from : from + 1;
    }
    for (; end - from >= kBlock; from += kBlock) {
        std::uint32_t all = Skipped;
        for (std::int64_t i = 0; i < kBlock; i++)
            all = Skipped == kFull ? all & bitmap[from + i] : all | bitmap[from + i];
        if (all != Skipped)
            break;
    }
    while (from < end && bitmap[from] == Skipped)
        from++;
    return from;
}

// Sets the lowest clear bit of a word. Returns its offset in the bitmap.
std::int64_t take_lowest(idpool *pool, std::int64_t word)
{
    int bit = std::countr_one(pool->bitmap[word]);
    pool->bitmap[word] |= 1U << bit;
    return word * kWordBits + bit;
}

// take_next() for a full rest of the cursor's word. A separate function, so that allocations from that word save no
// registers.
[[gnu::noinline]] std::int64_t take_after(idpool *pool, std::int64_t start)
{
    std::int64_t words = pool->words;
    std::int64_t found = skip<kFull>(pool->bitmap, start + 1, words);
    if (found < words)
        return take_lowest(pool, found);
    found = skip<kFull>(pool->bitmap, 0, start + 1);
    return found <= start ? take_lowest(pool, found) : -1;
}

// Sets the next clear bit and returns its offset, or -1 when there is none. The search starts at the cursor's bit, goes
// through the following words, wraps to word 0 and ends with the cursor's own word from its bit 0.
std::int64_t take_next(idpool *pool)
{
    std::int64_t words = pool->words;
    // In a pool that has grown, the cursor may lie after the scanned words: its word is taken modulo their number.
    std::int64_t start = pool->next / kWordBits;
    if (start >= words) [[unlikely]]
        start %= words;
    std::uint32_t below = (1U << (pool->next % kWordBits)) - 1;
    if (std::uint32_t used = pool->bitmap[start] | below; used != kFull) {
        int bit = std::countr_one(used);
        pool->bitmap[start] |= 1U << bit;
        return start * kWordBits + bit;
    }
    return take_after(pool, start);
}

// Returns the identifier of a bit that has just been set. A bit after max_id has none and stays set.
int hand_out(const idpool *pool, std::int64_t offset, int *id_out)
{
    if (offset >= size_of(pool))
        return -1;
    *id_out = static_cast<int>(pool->min_id + offset);
    return 0;
}

// The word and the bit of an identifier within the range.
struct place {
    std::int64_t word;
    std::uint32_t bit;
};

bool in_range(const idpool *pool, int id)
{
    return id >= pool->min_id && id <= pool->max_id;
}

place place_of(std::int64_t offset)
{
    return {offset / kWordBits, 1U << (offset % kWordBits)};
}

} // namespace

extern "C" {

int idpool_get_pool_size(int min, int max)
{
    if (!is_valid(min, max))
        return 0;
    return static_cast<int>(sizeof(idpool) +
                            static_cast<std::size_t>(words_for(std::int64_t{max} - min + 1)) * sizeof(std::uint32_t));
}

void idpool_init(struct idpool *block, const char *name, int min, int max)
{
    if (!is_valid(min, max))
        return;
    std::memset(static_cast<void *>(block), 0, static_cast<std::size_t>(idpool_get_pool_size(min, max)));
    init_record(block, name, min, max, reinterpret_cast<std::uint32_t *>(block + 1));
}

struct idpool *idpool_create(const char *name, int min, int max)
{
    if (!is_valid(min, max))
        return nullptr;
    auto *pool = static_cast<idpool *>(std::malloc(sizeof(idpool)));
    if (pool == nullptr) {
        std::printf("Malloc failed for pool %s\n", name);
        return nullptr;
    }
    std::uint32_t *bitmap = make_bitmap(words_for(std::int64_t{max} - min + 1));
    if (bitmap == nullptr) {
        std::printf("Malloc bitmap failed for pool %s\n", name);
        std::free(pool);
        return nullptr;
    }
    init_record(pool, name, min, max, bitmap);
    return pool;
}

int idpool_alloc_id(struct idpool *pool, int *id_out)
{
    std::int64_t offset = pool->next;
    place cursor = place_of(offset);
    if ((pool->bitmap[cursor.word] & cursor.bit) == 0)
        pool->bitmap[cursor.word] |= cursor.bit;
    else if ((offset = take_next(pool)) < 0)
        return -1;
    pool->next = offset + 1 < size_of(pool) ? static_cast<std::int32_t>(offset + 1) : 0;
    return hand_out(pool, offset, id_out);
}

int idpool_alloc_id_slow(struct idpool *pool, int *id_out)
{
    if (pool->words < 0)
        return -1;
    // Contract: one word more than the pool was made with. It exists only when the pool has grown; in other pools its
    // identifiers would be above max_id, which fails as well.
    std::int64_t end =
        std::max<std::int64_t>(pool->words, std::min(pool->words + std::int64_t{1}, words_for(size_of(pool))));
    std::int64_t found = skip<kFull>(pool->bitmap, 0, end);
    return found < end ? hand_out(pool, take_lowest(pool, found), id_out) : -1;
}

int idpool_alloc_specific_id(struct idpool *pool, int id)
{
    if (!in_range(pool, id))
        return -1;
    place at = place_of(std::int64_t{id} - pool->min_id);
    if ((pool->bitmap[at.word] & at.bit) != 0)
        return -1;
    pool->bitmap[at.word] |= at.bit;
    return 0;
}

int idpool_free_id(struct idpool *pool, int id)
{
    if (!in_range(pool, id))
        return -1;
    place at = place_of(std::int64_t{id} - pool->min_id);
    if ((pool->bitmap[at.word] & at.bit) == 0)
        return -1;
    pool->bitmap[at.word] &= ~at.bit;
    return 0;
}

int idpool_is_id_allocated(const struct idpool *pool, int id)
{
    if (!in_range(pool, id))
        return -1;
    place at = place_of(std::int64_t{id} - pool->min_id);
    return (pool->bitmap[at.word] & at.bit) != 0 ? 1 : 0;
}

int idpool_get_next_allocated_id(const struct idpool *pool, int id, int *id_out)
{
    if (!in_range(pool, id))
        return -1;
    std::int64_t offset = std::int64_t{id} - pool->min_id;
    std::int64_t word = offset / kWordBits;
    if (word >= pool->words)
        return -1;
    std::uint32_t taken = pool->bitmap[word] & (kFull << (offset % kWordBits));
    if (taken == 0) {
        word = skip<0>(pool->bitmap, word + 1, pool->words);
        if (word == pool->words)
            return -1;
        taken = pool->bitmap[word];
    }
    return hand_out(pool, word * kWordBits + std::countr_zero(taken), id_out);
}

void idpool_destroy(struct idpool *pool)
{
    if (pool == nullptr)
        return;
    std::free(pool->bitmap);
    std::free(pool);
}

int idpool_resize(struct idpool *pool, int count)
{
    if (count < 1 || pool == nullptr)
        return 0;
    std::int64_t max = std::int64_t{pool->min_id} + count - 1;
    if (max == pool->max_id)
        return 1;
    if (max > INT_MAX)
        return 0;
    const std::int64_t words = words_for(count);
    const std::int64_t room = std::max<std::int64_t>(words, pool->words);
    std::uint32_t *bitmap = make_bitmap(room);
    if (bitmap == nullptr) {
        qv_clog("Malloc bitmap failed when resize pool %s\n", pool->name);
        return 0;
    }
    // Contract: as many bytes as there are words. Identifiers whose bits are not copied become free. The
    // old bitmap counts with the words that its identifiers need, not with `words`: after a shrink `words` includes
    // spare bits, which are set.
    const std::int64_t kept = std::min(words, words_for(size_of(pool)));
    std::memcpy(bitmap, pool->bitmap, static_cast<std::size_t>(kept));
    set_spare_bits(bitmap, count, room);
    std::free(pool->bitmap);
    pool->bitmap = bitmap;
    pool->max_id = static_cast<std::int32_t>(max);
    if (pool->next > count - 1)
        pool->next = 0;
    return 1;
}

} // extern "C"
