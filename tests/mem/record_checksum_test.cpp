// SPDX-License-Identifier: Apache-2.0
// The checksum of an unwind description notices every change of one word and every exchange of two.
#include "mem/record_checksum.h"

#include "support/support.h"

#include <array>
#include <numeric>
#include <utility>

using namespace qv;

namespace {

struct RecordChecksum : testing::Test {
    std::array<std::uint64_t, 3 *frame_rules::kPowers + 1> words = {};

    RecordChecksum() { std::iota(words.begin(), words.end(), 0x100); }

    std::uint64_t sum() const { return frame_rules::checksum_of_words(words.data(), sizeof words, 0); }
};

} // namespace

TEST_F(RecordChecksum, NoticesTwoExchangedWords)
{
    const std::uint64_t before = sum();
    for (std::size_t i = 0; i < words.size(); i++) {
        for (std::size_t j = i + 1; j < words.size(); j++) {
            std::swap(words[i], words[j]);
            EXPECT_NE(before, sum()) << i << " and " << j;
            std::swap(words[i], words[j]);
        }
    }
}

TEST_F(RecordChecksum, NoticesAChangedWord)
{
    const std::uint64_t before = sum();
    for (std::uint64_t &word : words) {
        word ^= std::uint64_t{1} << 63;
        EXPECT_NE(before, sum());
        word ^= std::uint64_t{1} << 63;
    }
}

TEST_F(RecordChecksum, NoticesAWordExchangedWithTheNextRecord)
{
    auto both = [this](std::size_t words_of_first) {
        const std::size_t size = words_of_first * sizeof words[0];
        return frame_rules::checksum_of_words(words.data() + words_of_first, sizeof words - size,
                                              frame_rules::checksum_of_words(words.data(), size, 0));
    };
    for (std::size_t first = 1; first < words.size(); first++) {
        const std::uint64_t before = both(first);
        for (std::size_t j = first; j < words.size(); j++) {
            std::swap(words[0], words[j]);
            EXPECT_NE(before, both(first)) << first << ": 0 and " << j;
            std::swap(words[0], words[j]);
        }
    }
}

TEST_F(RecordChecksum, NoticesAChangeInTheLastHalfWord)
{
    auto sum_to_half = [this] { return frame_rules::checksum_of_words(words.data(), sizeof words - 4, 0); };
    const std::uint64_t before = sum_to_half();
    words.back() ^= 1;
    EXPECT_NE(before, sum_to_half());
}
