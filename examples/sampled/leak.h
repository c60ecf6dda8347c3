// SPDX-License-Identifier: Apache-2.0
// leak.h - a deliberate leak, and the report that finds it.
#ifndef SAMPLED_LEAK_H
#define SAMPLED_LEAK_H

#include <cstddef>

namespace sampled {

// Has every sample leak so many bytes, traces allocations from here on, and reports on SIGUSR1 which groups of blocks
// have stayed for a second or more.
bool leak_start(std::size_t bytes);

// The leak, where there is one.
void leak_some();

} // namespace sampled

#endif
