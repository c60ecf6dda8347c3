// SPDX-License-Identifier: Apache-2.0
// random.h - random numbers for tests that can be repeated.
//
// Each failure of a case that owns a generator prints the generator's seed, the step and the operation. The environment
// variable LIBCOMMON_SEED replaces every seed, so that a failure can be repeated:
//
//     LIBCOMMON_SEED=3 build/release/tests/idpool_test --gtest_filter=IdPoolModel.RandomWork
#ifndef LIBCOMMON_TESTS_RANDOM_H
#define LIBCOMMON_TESTS_RANDOM_H

#include <array>
#include <random>
#include <string>

namespace support {

// What a randomised test is doing. The live objects form a list, which the listener of main() prints at a failure; only
// the thread that runs the case makes and destroys them.
class RandomWork {
public:
    explicit RandomWork(unsigned long usual_seed);
    RandomWork(const RandomWork &) = delete;
    RandomWork &operator=(const RandomWork &) = delete;
    ~RandomWork();

    unsigned long seed() const { return seed_; }

    // Begins a step. The operation is a literal; the values are whatever helps to understand a failure.
    template <typename... Values>
    void doing(const char *operation, Values... values)
    {
        static_assert(sizeof...(values) <= kMostValues);
        steps_++;
        operation_ = operation;
        values_ = {static_cast<long long>(values)...};
        count_ = sizeof...(values);
    }

    // One line for each live object: "seed 3, step 4711: free 17". Empty without any.
    static std::string describe_all();

private:
    static constexpr std::size_t kMostValues = 4;

    unsigned long seed_;
    unsigned long steps_ = 0;
    const char *operation_ = nullptr;
    std::array<long long, kMostValues> values_{};
    std::size_t count_ = 0;
    RandomWork *next_;
};

// A standard generator with the seed and the record of the work.
template <typename Engine>
class SeededEngine : public RandomWork, public Engine {
public:
    explicit SeededEngine(unsigned long usual_seed)
        : RandomWork(usual_seed), Engine(static_cast<typename Engine::result_type>(seed()))
    {}

    using RandomWork::seed;
};

using Random = SeededEngine<std::mt19937>;
using Random64 = SeededEngine<std::mt19937_64>;

} // namespace support

#endif
