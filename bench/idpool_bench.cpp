// SPDX-License-Identifier: Apache-2.0
// Identifiers from a pool of a million: nearly all free, half allocated, nearly all allocated, and only one free, which
// is the farthest from the start of the search.
#include "idpool.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>
#if __has_include(<boost/dynamic_bitset.hpp>)
#define HAVE_BOOST
#include <boost/dynamic_bitset.hpp>
#endif
#ifdef HAVE_JUDY
#include <Judy.h>
#endif

namespace {

constexpr int kSize = 1000000;

// All search from the identifier allocated last: take() allocates, release() frees.
struct Ours {
    idpool *pool = idpool_create("bench", 0, kSize - 1);
    ~Ours() { idpool_destroy(pool); }
    int take()
    {
        int id = -1;
        idpool_alloc_id(pool, &id);
        return id;
    }
    void release(int id) { idpool_free_id(pool, id); }
};

// A straightforward loop over 32-bit words.
struct WordLoop {
    std::vector<std::uint32_t> words = std::vector<std::uint32_t>(kSize / 32);
    std::size_t next = 0;
    int take()
    {
        for (std::size_t i = 0; i <= words.size(); i++) {
            std::size_t at = (next / 32 + i) % words.size();
            std::uint32_t used = i == 0 ? words[at] | ((1U << (next % 32)) - 1) : words[at];
            if (used == UINT32_MAX)
                continue;
            const auto bit = static_cast<std::size_t>(__builtin_ctz(~used));
            words[at] |= 1U << bit;
            next = at * 32 + bit + 1 == kSize ? 0 : at * 32 + bit + 1;
            return static_cast<int>(at * 32 + bit);
        }
        return -1;
    }
    void release(int id) { words[static_cast<std::size_t>(id) / 32] &= ~(1U << (id % 32)); }
};

// The next clear bit of a bitmap in the caller's code, without a test of what is allocated or freed: what the order of
// identifiers demands of each implementation.
struct NextClearBit {
    std::vector<std::uint64_t> words = std::vector<std::uint64_t>(kSize / 64);
    std::size_t next = 0;
    int take()
    {
        std::size_t at = next / 64;
        std::uint64_t clear = ~words[at] & (~std::uint64_t{0} << next % 64);
        while (clear == 0) {
            at = at + 1 == words.size() ? 0 : at + 1;
            clear = ~words[at];
        }
        words[at] |= clear & -clear;
        const std::size_t id = at * 64 + static_cast<std::size_t>(__builtin_ctzll(clear));
        next = id + 1 == kSize ? 0 : id + 1;
        return static_cast<int>(id);
    }
    void release(int id) { words[static_cast<std::size_t>(id) / 64] &= ~(std::uint64_t{1} << (id % 64)); }
};
static_assert(kSize % 64 == 0);

#ifdef HAVE_BOOST
// A set bit is a free identifier, because its search finds set bits.
struct Bitset {
    boost::dynamic_bitset<> free = ~boost::dynamic_bitset<>(kSize);
    std::size_t last = kSize - 1;
    int take()
    {
        std::size_t id = free.find_next(last);
        if (id == free.npos)
            id = free.find_first();
        if (id == free.npos)
            return -1;
        free.reset(id);
        last = id;
        return static_cast<int>(id);
    }
    void release(int id) { free.set(static_cast<std::size_t>(id)); }
};
#endif

#ifdef HAVE_JUDY
// Keeps the allocated identifiers and searches the next gap.
struct Judy {
    void *taken = nullptr;
    Word_t next = 0;
    ~Judy() { Judy1FreeArray(&taken, nullptr); }
    int take()
    {
        Word_t id = next;
        if (Judy1FirstEmpty(taken, &id, nullptr) == 0 || id >= kSize) {
            id = 0;
            if (Judy1FirstEmpty(taken, &id, nullptr) == 0 || id >= kSize)
                return -1;
        }
        Judy1Set(&taken, id, nullptr);
        next = id + 1 == kSize ? 0 : id + 1;
        return static_cast<int>(id);
    }
    void release(int id) { Judy1Unset(&taken, static_cast<Word_t>(id), nullptr); }
};
#endif

template <typename Pool>
void fill(Pool &pool)
{
    for (int i = 0; i < kSize; i++)
        pool.take();
}

// Of each thousand, a given number is allocated, evenly spread.
template <typename Pool>
struct PartlyTaken {
    Pool pool;
    std::vector<int> taken; // in random order
    std::size_t i = 0;

    explicit PartlyTaken(int per_mille)
    {
        fill(pool);
        std::mt19937 random(1);
        for (int id = 0; id < kSize; id++) {
            if (random() % 1000 < static_cast<unsigned>(per_mille))
                taken.push_back(id);
            else
                pool.release(id);
        }
        std::shuffle(taken.begin(), taken.end(), random);
    }
    // An allocation follows freeing another one.
    void churn()
    {
        pool.release(taken[i]);
        taken[i] = pool.take();
        i = i + 1 == taken.size() ? 0 : i + 1;
    }
};

// The pool in use is kept from call to call, since filling one takes long.
std::shared_ptr<void> kept;
std::string kept_title;

template <typename Pool>
void churn(benchmark::State &state, const std::string &title, int taken_per_mille)
{
    if (kept_title != title) {
        kept.reset();
        kept = std::make_shared<PartlyTaken<Pool>>(taken_per_mille);
        kept_title = title;
    }
    auto &pool = *static_cast<PartlyTaken<Pool> *>(kept.get());
    for (auto _ : state)
        pool.churn();
}

// One identifier is freed and allocated again and again, so that each search passes all words.
template <typename Pool>
void last_free(benchmark::State &state)
{
    Pool pool;
    fill(pool);
    const int id = kSize / 2;
    pool.release(id);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pool.take());
        pool.release(id);
    }
}

template <typename Pool>
void add(const std::string &name)
{
    for (int per_mille : {10, 500, 990, 999}) {
        const std::string title = name + "/taken_per_mille:" + std::to_string(per_mille);
        benchmark::RegisterBenchmark(title.c_str(), [=](auto &state) { churn<Pool>(state, title, per_mille); });
    }
    benchmark::RegisterBenchmark((name + "/last_free").c_str(), [](auto &state) { last_free<Pool>(state); });
}

const bool registered = [] {
    add<Ours>("ours");
    add<WordLoop>("word_loop");
    add<NextClearBit>("next_clear_bit");
#ifdef HAVE_BOOST
    add<Bitset>("boost_bitset");
#endif
#ifdef HAVE_JUDY
    add<Judy>("judy1");
#endif
    return true;
}();

} // namespace
