// SPDX-License-Identifier: Apache-2.0
#ifndef LIBCOMMON_BENCH_QV_MTRACE_PEER_H
#define LIBCOMMON_BENCH_QV_MTRACE_PEER_H

#include <cstddef>

namespace bench {

[[gnu::visibility("default")]] void *counting_malloc(std::size_t size);
[[gnu::visibility("default")]] void counting_free(void *block);

} // namespace bench

#endif
