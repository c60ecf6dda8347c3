// SPDX-License-Identifier: Apache-2.0
#include "qv_mtrace.h"

#include "support/support.h"

#include <cstdlib>

TEST(LightStatistics, CountAllocationsAndFailures)
{
    if (support::under_sanitizer())
        GTEST_SKIP() << "a sanitizer's blocks have no chunk header";
    mtrace_stat_record before, rec;
    EXPECT_EQ(qv_mtrace_stat(&before, 0), 6);
    EXPECT_EQ(before.rows, 32U);
    void *block = my_malloc_light_hook(100, nullptr);
    EXPECT_EQ(my_malloc_light_hook(SIZE_MAX - 4095, nullptr), nullptr);
    block = my_realloc_light_hook(block, 300, nullptr);
    EXPECT_EQ(qv_mtrace_stat(&rec, 7), 8);
    EXPECT_EQ(rec.rows, 1U);
    EXPECT_EQ(rec.light_allocs - before.light_allocs, 1U);
    EXPECT_EQ(rec.light_failures - before.light_failures, 1U);
    EXPECT_EQ(rec.light_blocks - before.light_blocks, 1U);
    my_free_light_hook(block, nullptr);
    my_free_light_hook(nullptr, nullptr);
    EXPECT_EQ(qv_mtrace_stat_min(&rec), 1);
    EXPECT_EQ(rec.light_frees - before.light_frees, 1U);
    EXPECT_EQ(rec.light_bytes, before.light_bytes);
}
