// SPDX-License-Identifier: Apache-2.0
// recursion.h - frames that repeat in a cycle, as functions leave them that call one another without an end.
#ifndef QVCRASH_RECURSION_H
#define QVCRASH_RECURSION_H

#include <cstddef>

namespace qvcrash {

inline constexpr std::size_t kLongestCycle = 8; // frames

/**
 * How many frames from `begin` on repeat with a period: each equals the one a period before it. The last round may be
 * unfinished. 0 for less than two whole rounds, which are no cycle.
 * @param is_same  compares two frames by their indices
 */
template <typename Compare>
std::size_t repeating_frames(std::size_t begin, std::size_t size, std::size_t period, Compare is_same)
{
    std::size_t end = begin + period;
    while (end < size && is_same(end - period, end))
        end++;
    return end - begin >= 2 * period ? end - begin : 0;
}

} // namespace qvcrash

#endif
