// SPDX-License-Identifier: Apache-2.0
#include "cxx/hashtbl.hpp"
#include "cxx/name2id.hpp"

#include "support/support.h"

namespace {

struct Session {
    unsigned id = 0;
    hashtbl_link link{};
};
using Sessions = qv::intrusive_table<Session, &Session::link>;
static_assert(sizeof(Sessions) == sizeof(void *));

} // namespace

TEST(CxxTable, FindVisitRemove)
{
    Sessions table(4);
    ASSERT_TRUE(table);
    EXPECT_EQ(table.get()->link_offset, offsetof(Session, link));
    Session one{1, {}}, two{2, {}};
    table.insert(7, one);
    table.insert(7, two);
    auto with_id = [](unsigned id) { return [id](const Session &session) { return session.id == id; }; };
    EXPECT_EQ(table.find(7, with_id(1)), &one);
    EXPECT_EQ(table.find(7, with_id(3)), nullptr);
    EXPECT_EQ(table.find(8, with_id(1)), nullptr);

    std::vector<unsigned> ids;
    EXPECT_TRUE(table.for_each([&](Session &session) { return ids.push_back(session.id), true; }));
    EXPECT_EQ(ids, (std::vector<unsigned>{2, 1}));
    EXPECT_FALSE(table.for_each([](Session &) { return false; }));

    table.remove(7, two);
    EXPECT_EQ(table.size(), 1U);
    Sessions moved(std::move(table));
    EXPECT_FALSE(table);
    EXPECT_EQ(moved.find(7, with_id(1)), &one);
}

TEST(CxxTable, ClearAndSafeVisit)
{
    Sessions table(0);
    for (unsigned i = 0; i < 5; i++)
        table.insert(i, *new Session{i, {}});
    table.for_each_safe([&](Session &session) {
        if (session.id % 2 == 0) {
            table.remove(session.link.hash, session);
            delete &session;
        }
    });
    EXPECT_EQ(table.size(), 2U);
    table.clear([](Session &session) { delete &session; });
    EXPECT_EQ(table.size(), 0U);
    EXPECT_FALSE(Sessions(21));
}

TEST(CxxNames, FindTellsAMissFromAllOnes)
{
    qv::name_table table(3);
    ASSERT_TRUE(table);
    ASSERT_NE(table.insert("a", 0xFFFFFFFF), nullptr);
    EXPECT_EQ(table.find("a"), 0xFFFFFFFFU);
    EXPECT_EQ(table.find("b"), std::nullopt);
    EXPECT_TRUE(table.erase("a"));
    EXPECT_FALSE(table.erase("a"));
    EXPECT_FALSE(qv::name_table(21));
}
