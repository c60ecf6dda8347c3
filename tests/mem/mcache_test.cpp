// SPDX-License-Identifier: Apache-2.0
#include "mcache.h"

#include "support/support.h"

#include <csignal>
#include <cstring>

namespace {

TEST(Mcache, SizesOnBothSidesOfTheLimits)
{
    mcache *one = mcache_create("one", 1, nullptr, 1, 1);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one->obj_size, 8U);
    EXPECT_EQ(one->objs_per_page, 339U);
    EXPECT_EQ(one->flags, 0x41U);
    EXPECT_EQ(zlist, one);
    mcache *large = mcache_create("large", 8136, nullptr, 0x40, 0);
    ASSERT_NE(large, nullptr);
    EXPECT_EQ(large->flags, 0U);
    EXPECT_EQ(large->objs_per_slab, 1U);
    EXPECT_EQ(mcache_create("x", 8137, nullptr, 0, 0), nullptr);
    EXPECT_EQ(mcache_create("x", 8, nullptr, 0, -1), nullptr);
    EXPECT_EQ(mcache_create("x", 0xffffffff, nullptr, 0, 16), nullptr);
    EXPECT_NE(mcache_create("x", 131016, nullptr, 0, 17), nullptr);
    EXPECT_EQ(mcache_create("x", 131017, nullptr, 0, 17), nullptr);
}

TEST(Mcache, PagesMoveBetweenTheLists)
{
    mcache *cache = mcache_create("move", 4000, nullptr, 0, 1); // two objects a page
    void *a = mcache_alloc(cache);
    EXPECT_EQ(cache->page_count, 2U);
    EXPECT_NE(cache->spare_page, nullptr);
    void *b = mcache_alloc(cache);
    EXPECT_EQ(cache->partial_head, nullptr);
    EXPECT_NE(cache->full_pages, nullptr);
    mcache_free(cache, a);
    EXPECT_EQ(cache->full_pages, nullptr);
    EXPECT_NE(cache->partial_tail, nullptr);
    mcache_free(cache, b);
    EXPECT_EQ(cache->page_count, 1U);
    EXPECT_EQ(cache->in_use, 0U);
    EXPECT_EQ(cache->partial_head, nullptr);
}

TEST(Mcache, ObjectsOfNoBytesStayWithinTheirSlots)
{
    mcache *cache = mcache_create("empty", 0, nullptr, 0, 1);
    void *a = mcache_alloc(cache);
    void *b = mcache_alloc(cache);
    EXPECT_EQ(static_cast<char *>(b) - static_cast<char *>(a), 16);
    mcache_free(cache, a);
    EXPECT_EQ(mcache_alloc(cache), a);
    mcache_free(cache, b);
    mcache_free(cache, a);
    EXPECT_EQ(cache->in_use, 0U);
}

TEST(Mcache, MisuseCrashes)
{
    if (support::under_sanitizer())
        GTEST_SKIP() << "the sanitizer reports the crash in its own way";
    mcache *cache = mcache_create("crash", 16, nullptr, 0, 1);
    auto *keep = static_cast<char *>(mcache_alloc(cache));
    void *twice = mcache_alloc(cache);
    EXPECT_TRUE(support::run_child([] { mcache_alloc(nullptr); }).killed_by(SIGSEGV));
    EXPECT_TRUE(support::run_child([&] { mcache_free(nullptr, keep); }).killed_by(SIGSEGV));
    EXPECT_TRUE(support::run_child([&] { mcache_free(cache, twice), mcache_free(cache, twice); }).killed_by(SIGSEGV));
    EXPECT_TRUE(support::run_child([&] { keep[16] = 0, mcache_free(cache, keep); }).killed_by(SIGSEGV));
    EXPECT_EQ(mcache_error(6), 5);
    EXPECT_EQ(mcache_error(0), -1);
}

} // namespace
