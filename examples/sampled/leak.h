// SPDX-License-Identifier: Apache-2.0
// leak.h - a deliberate leak, and the report that finds it.
#ifndef SAMPLED_LEAK_H
#define SAMPLED_LEAK_H

#include <cstddef>

namespace sampled {

// Makes every sample leak this many bytes, traces allocations from now on, and reports on SIGUSR1 which groups of
// blocks are a second old or more.
bool leak_start(std::size_t bytes);

// Leaks, if requested.
void leak_some();

} // namespace sampled

#endif
