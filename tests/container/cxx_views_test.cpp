// SPDX-License-Identifier: Apache-2.0
// The typed views, as C++ hosts use them: with exceptions, plain functions and objects of several base classes.
#include "cxx/hashtbl.hpp"
#include "cxx/idpool.hpp"
#include "cxx/name2id.hpp"
#include "cxx/rbtree.hpp"

#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <algorithm>
#include <memory>
#include <ranges>
#include <set>
#include <stdexcept>

using namespace support;

namespace {

struct Session {
    unsigned id = 0;
    hashtbl_link link{};
};
using Sessions = qv::intrusive_table<Session, &Session::link>;
static_assert(sizeof(Sessions) == sizeof(void *));
static_assert(std::is_nothrow_move_constructible_v<Sessions> && !std::is_copy_constructible_v<Sessions>);

// Both links lie in base classes, neither in the first.
struct Named {
    std::string name;
    virtual ~Named() = default;
};
struct Hooks {
    int unrelated = 0;
    hashtbl_link link{};
    rb_node node{};
};
struct Port : Named, Hooks {
    int number = 0;
    explicit Port(int n) : number(n) {}
    int doubled() const { return 2 * number; }
};
using Ports = qv::intrusive_table<Port, &Port::link>;
using PortTree = qv::rb_tree<Port, &Port::node, &Port::number>;

struct Route {
    int prefix = 0;
    int order = 0;
    rb_node node{};
};
using Routes = qv::rb_tree<Route, &Route::node, &Route::prefix>;
static_assert(sizeof(Routes) == sizeof(rb_root));
static_assert(std::ranges::bidirectional_range<Routes> && std::ranges::bidirectional_range<const Routes>);
static_assert(!std::ranges::sized_range<Routes>);
static_assert(std::is_same_v<decltype(std::declval<Routes &>().find(1)), Route *>);
static_assert(std::is_same_v<decltype(std::declval<const Routes &>().find(1)), const Route *>);
static_assert(std::is_same_v<decltype(std::declval<const Routes &>().lower_bound(1)), const Route *>);
static_assert(std::is_same_v<decltype(*std::declval<const Routes &>().begin()), const Route &>);
static_assert(std::is_convertible_v<Routes::iterator, Routes::const_iterator>);
static_assert(!std::is_convertible_v<Routes::const_iterator, Routes::iterator>);
static_assert(std::ranges::forward_range<qv::id_pool> && !std::ranges::bidirectional_range<qv::id_pool>);

std::vector<std::pair<int, int>> contents(const Routes &tree)
{
    std::vector<std::pair<int, int>> result;
    for (const Route &route : tree)
        result.emplace_back(route.prefix, route.order);
    return result;
}

auto with_id(unsigned id)
{
    return [id](const Session &session) { return session.id == id; };
}

std::vector<unsigned> ids_of(const Sessions &table)
{
    std::vector<unsigned> ids;
    table.for_each([&](const Session &session) { return ids.push_back(session.id), true; });
    return ids;
}

// ---- plain functions ----

bool is_two(const Session &session)
{
    return session.id == 2;
}

int visits;

bool stop_at_two(Session &session)
{
    visits++;
    return session.id != 2;
}

void count_visit(Session &)
{
    visits++;
}

int key_by_function(const Route &route)
{
    return -route.prefix;
}

void count_route(Route &)
{
    visits++;
}

} // namespace

// ---- hash tables ----

TEST(CxxTable, FindVisitRemove)
{
    Sessions table(4);
    ASSERT_TRUE(table);
    EXPECT_EQ(offsetof(Session, link), table.get()->link_offset);
    EXPECT_TRUE(table.empty());
    Session one{1, {}}, two{2, {}};
    table.insert(7, one);
    table.insert(7, two);
    EXPECT_EQ(&one, table.find(7, with_id(1)));
    EXPECT_EQ(nullptr, table.find(7, with_id(3)));
    EXPECT_EQ(nullptr, table.find(8, with_id(1)));
    EXPECT_EQ(nullptr, table.find(7 + 16, with_id(1))) << "the same bucket, another hash";

    EXPECT_EQ((std::vector<unsigned>{2, 1}), ids_of(table));
    EXPECT_TRUE(table.for_each([](Session &session) { return session.id += 10, true; }));
    EXPECT_EQ(11U, one.id);
    EXPECT_FALSE(table.for_each([](Session &) { return false; }));

    table.remove(7, two);
    EXPECT_EQ(1U, table.size());
    Sessions moved(std::move(table));
    EXPECT_FALSE(table);
    EXPECT_EQ(&one, moved.find(7, with_id(11)));
}

TEST(CxxTable, TheNewestOfEqualKeysIsFound)
{
    Sessions table(2);
    Session first{1, {}}, second{1, {}};
    table.insert(7, first);
    table.insert(7, second);
    EXPECT_EQ(&second, table.find(7, with_id(1)));
    EXPECT_TRUE(table.remove(7, second));
    EXPECT_EQ(&first, table.find(7, with_id(1)));
}

TEST(CxxTable, RemoveSaysWhetherItRemoved)
{
    Sessions table(4);
    Session one{1, {}}, two{2, {}};
    table.insert(7, one);
    EXPECT_FALSE(table.remove(7, two));
    EXPECT_FALSE(table.remove(8, one));
    EXPECT_EQ(1U, table.size());
    EXPECT_TRUE(table.remove(7, one));
    EXPECT_FALSE(table.remove(7, one));
    EXPECT_EQ(0U, table.size());
}

TEST(CxxTable, ConstGivesConst)
{
    Sessions table(4);
    Session one{1, {}};
    table.insert(7, one);
    const Sessions &fixed = table;
    static_assert(std::is_same_v<decltype(table.find(7, with_id(1))), Session *>);
    static_assert(std::is_same_v<decltype(fixed.find(7, with_id(1))), const Session *>);
    EXPECT_EQ(&one, fixed.find(7, with_id(1)));
    EXPECT_EQ(nullptr, fixed.find(7, with_id(2)));
    EXPECT_TRUE(fixed.for_each([](auto &session) {
        static_assert(std::is_const_v<std::remove_reference_t<decltype(session)>>);
        return true;
    }));
}

TEST(CxxTable, MoveAssignmentTransfersTheTable)
{
    Sessions from(4), to(1);
    Session one{1, {}}, two{2, {}};
    from.insert(7, one);
    to.insert(7, two);
    hashtbl *taken = from.get();
    to = std::move(from);
    EXPECT_EQ(taken, to.get());
    EXPECT_EQ(std::vector<unsigned>{1}, ids_of(to));
    EXPECT_EQ(std::vector<unsigned>{2}, ids_of(from)) << "the two are swapped";
    Sessions *self = &to;
    to = std::move(*self);
    EXPECT_EQ(std::vector<unsigned>{1}, ids_of(to));
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
    EXPECT_EQ(2U, table.size());
    table.clear([](Session &session) { delete &session; });
    EXPECT_EQ(0U, table.size());
    EXPECT_FALSE(Sessions(21));
}

TEST(CxxTable, ClearReleasesInOrderFromATableThatIsAlreadyEmpty)
{
    for (unsigned log_size : {0U, 2U, 6U}) {
        Sessions table(log_size);
        std::vector<Session> sessions(40);
        for (unsigned i = 0; i < sessions.size(); i++) {
            sessions[i].id = i;
            table.insert(i * 7, sessions[i]);
        }
        std::vector<unsigned> expected = ids_of(table), seen;
        table.clear([&](Session &session) {
            EXPECT_TRUE(table.empty());
            EXPECT_EQ(nullptr, table.find(session.id * 7, with_id(session.id)));
            EXPECT_EQ(std::vector<unsigned>{}, ids_of(table));
            seen.push_back(session.id);
        });
        EXPECT_EQ(expected, seen);
        for (std::size_t i = 0; i < std::size_t{1} << log_size; i++)
            EXPECT_EQ(nullptr, table.get()->buckets[i]);
        table.clear([](Session &) { ADD_FAILURE(); });
    }
}

TEST(CxxTable, ReleaseMayInsertAgain)
{
    Sessions table(2);
    std::vector<Session> sessions(20);
    for (unsigned i = 0; i < sessions.size(); i++) {
        sessions[i].id = i;
        table.insert(i, sessions[i]);
    }
    int released = 0;
    table.clear([&](Session &session) {
        released++;
        if (session.id % 2 == 0)
            table.insert(session.id, session);
    });
    EXPECT_EQ(20, released);
    EXPECT_EQ(10U, table.size());
    for (unsigned i = 0; i < sessions.size(); i++)
        EXPECT_EQ(i % 2 == 0 ? &sessions[i] : nullptr, table.find(i, with_id(i)));
}

TEST(CxxTable, PlainFunctionsAndMembersAreCallbacks)
{
    Sessions table(4);
    Session one{1, {}}, two{2, {}};
    table.insert(7, one);
    table.insert(7, two);
    EXPECT_EQ(&two, table.find(7, is_two));
    EXPECT_EQ(&two, std::as_const(table).find(7, &is_two));
    EXPECT_EQ(&two, table.find(7, &Session::id)) << "non-zero";
    visits = 0;
    EXPECT_FALSE(table.for_each(stop_at_two));
    EXPECT_EQ(1, visits);
    table.for_each_safe(count_visit);
    EXPECT_EQ(3, visits);
    table.clear(&count_visit);
    EXPECT_EQ(5, visits);
}

TEST(CxxTable, CallbacksMayThrow)
{
    Sessions table(3);
    std::vector<Session> sessions(10);
    for (unsigned i = 0; i < sessions.size(); i++) {
        sessions[i].id = i;
        table.insert(i, sessions[i]);
    }
    auto fail = [](const Session &) -> bool { throw std::runtime_error("no"); };
    EXPECT_THROW(table.find(3, fail), std::runtime_error);
    EXPECT_THROW(table.for_each(fail), std::runtime_error);
    EXPECT_THROW(table.for_each_safe(fail), std::runtime_error);
    EXPECT_EQ(10U, table.size());
    EXPECT_EQ(&sessions[3], table.find(3, with_id(3)));
    int released = 0;
    EXPECT_THROW(table.clear([&](Session &) {
        if (++released == 4)
            throw std::runtime_error("no");
    }),
                 std::runtime_error);
    EXPECT_EQ(4, released);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(std::vector<unsigned>{}, ids_of(table));
}

TEST(CxxTable, ALinkInABaseClass)
{
    Ports table(3);
    std::vector<std::unique_ptr<Port>> ports;
    for (int i = 0; i < 20; i++) {
        ports.push_back(std::make_unique<Port>(i));
        ports.back()->name = "port" + std::to_string(i);
        table.insert(static_cast<unsigned>(i), *ports.back());
    }
    for (int i = 0; i < 20; i++) {
        Port *found = table.find(static_cast<unsigned>(i), [i](const Port &port) { return port.number == i; });
        ASSERT_EQ(ports[static_cast<std::size_t>(i)].get(), found);
        EXPECT_EQ("port" + std::to_string(i), found->name);
    }
    EXPECT_TRUE(table.remove(3, *ports[3]));
    EXPECT_EQ(19U, table.size());
}

TEST(CxxTable, AgreesWithTheCFunctions)
{
    support::Random random(1);
    Sessions table(5);
    std::vector<Session> sessions(300);
    std::set<unsigned> in;
    for (std::size_t step = 0; step < effort(100000); step++) {
        auto id = static_cast<unsigned>(random() % sessions.size());
        Session &session = sessions[id];
        session.id = id;
        unsigned hash = id % 90 * 3;
        random.doing("object", id);
        if (in.insert(id).second) {
            table.insert(hash, session);
        } else if (random() % 2 == 0) {
            ASSERT_TRUE(table.remove(hash, session));
            in.erase(id);
        }
        auto match = [](void *object, void *key) -> int {
            return static_cast<Session *>(object)->id == *static_cast<unsigned *>(key);
        };
        ASSERT_EQ(hashtbl_find(table.get(), &id, hash, match), table.find(hash, with_id(id)));
        ASSERT_EQ(in.size(), table.size());
        if (step % 1000 == 0) {
            std::vector<unsigned> by_call;
            hashtbl_traverse_each(
                table.get(),
                [](void *object, void *arg) {
                    static_cast<std::vector<unsigned> *>(arg)->push_back(static_cast<Session *>(object)->id);
                    return 0;
                },
                &by_call);
            ASSERT_EQ(by_call, ids_of(table));
        }
    }
}

// ---- trees ----

TEST(CxxTree, EqualKeysKeepTheirOrder)
{
    Routes tree;
    std::vector<Route> routes(60);
    for (int i = 0; i < 60; i++) {
        Route &route = routes[static_cast<std::size_t>(i)];
        route.prefix = i * 7 % 5;
        route.order = i;
        tree.insert(route);
    }
    std::vector<std::pair<int, int>> expected;
    for (const Route &route : routes)
        expected.emplace_back(route.prefix, route.order);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, contents(tree));
    EXPECT_EQ(4, tree.lower_bound(3)->order) << "the first with this key";
}

TEST(CxxTree, IteratorsStepForwardAndBack)
{
    Routes tree;
    Route routes[3] = {{10, 0, {}}, {20, 0, {}}, {30, 0, {}}};
    for (Route &route : routes)
        tree.insert(route);
    Routes::iterator i = tree.begin();
    EXPECT_EQ(10, (i++)->prefix);
    EXPECT_EQ(20, i->prefix);
    EXPECT_EQ(20, (i--)->prefix);
    EXPECT_EQ(10, i->prefix);
    EXPECT_EQ(20, (++i)->prefix);
    EXPECT_EQ(10, (--i)->prefix);
    i = tree.end();
    EXPECT_EQ(30, (--i)->prefix);
    EXPECT_EQ(tree.iterator_to(routes[2]), i++);
    EXPECT_EQ(tree.end(), i);
    EXPECT_EQ(tree.end(), (i--));
    EXPECT_EQ(30, i->prefix);
    std::vector<int> backwards;
    std::for_each(std::make_reverse_iterator(tree.end()), std::make_reverse_iterator(tree.begin()),
                  [&](const Route &route) { backwards.push_back(route.prefix); });
    EXPECT_EQ((std::vector<int>{30, 20, 10}), backwards);
}

TEST(CxxTree, IteratorsConvertToConst)
{
    Routes tree;
    Route one{1, 0, {}}, two{2, 0, {}};
    tree.insert(one);
    tree.insert(two);
    Routes::const_iterator fixed = tree.begin();
    EXPECT_TRUE(fixed == tree.begin());
    EXPECT_TRUE(tree.begin() == fixed);
    EXPECT_TRUE(fixed != tree.end());
    EXPECT_TRUE(std::as_const(tree).end() != tree.begin());
    EXPECT_TRUE(tree.cbegin() == fixed && tree.cend() == tree.end());
    fixed = tree.iterator_to(two);
    EXPECT_EQ(&two, &*fixed);
    EXPECT_TRUE(Routes::iterator() == Routes::iterator());
}

TEST(CxxTree, FromObjectsAndSearchesToIterators)
{
    Routes tree;
    std::vector<Route> routes(10);
    for (int i = 0; i < 10; i++) {
        routes[static_cast<std::size_t>(i)].prefix = i * 10;
        tree.insert(routes[static_cast<std::size_t>(i)]);
    }
    EXPECT_EQ(40, std::next(tree.iterator_to(routes[3]))->prefix);
    std::vector<int> from_45;
    for (auto i = tree.iterator_to(tree.lower_bound(45)); i != tree.end(); ++i)
        from_45.push_back(i->prefix);
    EXPECT_EQ((std::vector<int>{50, 60, 70, 80, 90}), from_45);
    EXPECT_EQ(tree.end(), tree.iterator_to(tree.find(45)));
    const Routes &fixed = tree;
    Routes::const_iterator at = fixed.iterator_to(routes[9]);
    EXPECT_EQ(fixed.end(), ++at);
    EXPECT_EQ(20, fixed.iterator_to(fixed.find(20))->prefix);
    EXPECT_EQ(90, (--fixed.iterator_to(fixed.find(21)))->prefix);
}

TEST(CxxTree, EraseReturnsTheNext)
{
    Routes tree;
    std::vector<Route> routes(100);
    for (int i = 0; i < 100; i++) {
        routes[static_cast<std::size_t>(i)].prefix = i * 37 % 100;
        tree.insert(routes[static_cast<std::size_t>(i)]);
    }
    for (Routes::iterator i = tree.begin(); i != tree.end();) {
        int prefix = i->prefix;
        if (prefix % 3 != 0) {
            i = tree.erase(i);
            EXPECT_TRUE(i == tree.end() || i->prefix == prefix + 1);
        } else {
            ++i;
        }
    }
    EXPECT_EQ(34, std::distance(tree.begin(), tree.end()));
    Routes::const_iterator first = std::as_const(tree).begin();
    EXPECT_EQ(3, tree.erase(first)->prefix);
    tree.erase(*tree.find(3));
    EXPECT_EQ(6, tree.begin()->prefix);
    EXPECT_EQ(tree.end(), tree.erase(tree.iterator_to(*tree.find(99))));
}

TEST(CxxTree, MoveAssignmentTransfersTheObjects)
{
    Routes from, to;
    Route one{1, 0, {}}, two{2, 0, {}};
    from.insert(one);
    to.insert(two);
    to = std::move(from);
    EXPECT_EQ((std::vector<std::pair<int, int>>{{1, 0}}), contents(to));
    EXPECT_EQ((std::vector<std::pair<int, int>>{{2, 0}}), contents(from)) << "the two are swapped";
    Routes third(std::move(to));
    EXPECT_TRUE(to.empty());
    EXPECT_EQ(1, (--third.end())->prefix);
}

TEST(CxxTree, ClearReleasesFromATreeThatIsAlreadyEmpty)
{
    Routes tree;
    for (int i = 0; i < 100; i++)
        tree.insert(*new Route{i, 0, {}});
    int released = 0;
    tree.clear([&](Route &route) {
        EXPECT_TRUE(tree.empty());
        EXPECT_EQ(nullptr, tree.find(route.prefix));
        EXPECT_EQ(tree.end(), tree.begin());
        released++;
        delete &route;
    });
    EXPECT_EQ(100, released);
}

TEST(CxxTree, ReleaseMayInsertAgain)
{
    Routes tree;
    std::vector<Route> routes(100);
    for (int i = 0; i < 100; i++) {
        routes[static_cast<std::size_t>(i)].prefix = i;
        tree.insert(routes[static_cast<std::size_t>(i)]);
    }
    int released = 0;
    tree.clear([&](Route &route) {
        released++;
        if (route.prefix % 2 == 0)
            tree.insert(route);
    });
    EXPECT_EQ(100, released);
    int expected = 0;
    for (const Route &route : tree) {
        EXPECT_EQ(expected, route.prefix);
        expected += 2;
    }
    EXPECT_EQ(100, expected);
}

TEST(CxxTree, FunctionsAreKeysAndCallbacks)
{
    qv::rb_tree<Route, &Route::node, key_by_function> tree;
    Route one{1, 0, {}}, two{2, 0, {}};
    tree.insert(one);
    tree.insert(two);
    EXPECT_EQ(&two, &*tree.begin());
    EXPECT_EQ(&one, tree.find(-1));
    visits = 0;
    tree.clear(count_route);
    EXPECT_EQ(2, visits);
}

namespace {

bool order_fails;

struct FailingLess {
    bool operator()(int a, int b) const
    {
        if (order_fails)
            throw std::runtime_error("no");
        return a < b;
    }
};

} // namespace

TEST(CxxTree, OrdersAndCallbacksMayThrow)
{
    qv::rb_tree<Route, &Route::node, &Route::prefix, FailingLess> tree;
    std::vector<Route> routes(20);
    for (int i = 0; i < 20; i++) {
        routes[static_cast<std::size_t>(i)].prefix = i;
        tree.insert(routes[static_cast<std::size_t>(i)]);
    }
    Route late{5, 1, {}};
    order_fails = true;
    EXPECT_THROW(tree.insert(late), std::runtime_error);
    EXPECT_THROW(tree.find(3), std::runtime_error);
    EXPECT_THROW(tree.lower_bound(3), std::runtime_error);
    order_fails = false;
    EXPECT_EQ(20, std::distance(tree.begin(), tree.end()));
    int released = 0;
    EXPECT_THROW(tree.clear([&](Route &) {
        if (++released == 4)
            throw std::runtime_error("no");
    }),
                 std::runtime_error);
    EXPECT_EQ(4, released);
    EXPECT_TRUE(tree.empty());
}

TEST(CxxTree, ANodeInABaseClass)
{
    PortTree tree;
    qv::rb_tree<Port, &Port::node, &Port::doubled, std::greater<>> descending;
    std::vector<std::unique_ptr<Port>> ports;
    for (int i = 0; i < 20; i++) {
        ports.push_back(std::make_unique<Port>(i * 7 % 20));
        tree.insert(*ports.back());
    }
    int expected = 0;
    for (const Port &port : tree)
        EXPECT_EQ(expected++, port.number);
    EXPECT_EQ(11, tree.find(11)->number);
    tree.clear([&](Port &port) { descending.insert(port); });
    for (const Port &port : descending)
        EXPECT_EQ(--expected, port.number);
    EXPECT_EQ(11, descending.find(22)->number);
}

TEST(CxxTree, WalksLikeTheCFunctions)
{
    support::Random random(1);
    Routes tree;
    std::vector<Route> routes(200);
    std::vector<bool> in(routes.size());
    for (std::size_t step = 0; step < effort(3000); step++) {
        std::size_t n = random() % routes.size();
        random.doing(in[n] ? "erase" : "insert", n);
        if (in[n]) {
            tree.erase(tree.iterator_to(routes[n]));
        } else {
            routes[n].prefix = static_cast<int>(random() % 50);
            tree.insert(routes[n]);
        }
        in[n] = !in[n];
        rb_node *node = rb_first(tree.get());
        for (auto i = tree.begin(); i != tree.end(); ++i, node = rb_next(node))
            ASSERT_EQ(node, &i->node);
        ASSERT_EQ(nullptr, node);
        node = rb_last(tree.get());
        for (auto i = tree.end(); i != tree.begin(); node = rb_prev(node))
            ASSERT_EQ(node, &(--i)->node);
        ASSERT_EQ(nullptr, node);
    }
}

// ---- names ----

TEST(CxxNames, FindDistinguishesAMissFromAllOnes)
{
    qv::name_table table(3);
    ASSERT_TRUE(table);
    ASSERT_NE(nullptr, table.insert("a", 0xFFFFFFFF));
    EXPECT_EQ(0xFFFFFFFFU, table.find("a"));
    EXPECT_EQ(std::nullopt, table.find("b"));
    EXPECT_TRUE(table.erase("a"));
    EXPECT_FALSE(table.erase("a"));
    EXPECT_FALSE(qv::name_table(21));
}

TEST(CxxNames, AFailedInsertionIsReported)
{
    qv::name_table table(3), none(21);
    EXPECT_EQ(nullptr, none.insert("a", 1));
    EXPECT_EQ(nullptr, table.insert(nullptr, 1));
    allocations_left = 0;
    name2id_entry *entry = table.insert("a", 1);
    allocations_left = -1;
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(std::nullopt, table.find("a"));
    qv::name_table moved(std::move(table));
    EXPECT_EQ(nullptr, table.insert("a", 1));
    EXPECT_NE(nullptr, moved.insert("a", 1));
    EXPECT_EQ(1U, moved.find("a"));
}

TEST(CxxNames, MoveAssignmentTransfersTheTable)
{
    qv::name_table from(3), to(3);
    from.insert("a", 1);
    to.insert("b", 2);
    to = std::move(from);
    EXPECT_EQ(1U, to.find("a"));
    EXPECT_EQ(std::nullopt, to.find("b"));
    EXPECT_EQ(2U, from.find("b")) << "the two are swapped";
}

// ---- identifiers ----

TEST(CxxPool, MoveAssignmentTransfersThePool)
{
    qv::id_pool from("from", 1, 9), to("to", 1, 9);
    from.allocate(3);
    to.allocate(4);
    to = std::move(from);
    EXPECT_TRUE(to.contains(3) && !to.contains(4));
    EXPECT_TRUE(from.contains(4));
}

TEST(CxxPool, IteratorsAreMultiPass)
{
    qv::id_pool pool("pool", 5, 300);
    for (int id : {5, 36, 37, 200, 300})
        pool.allocate(id);
    qv::id_pool::iterator i = pool.begin(), copy = i;
    EXPECT_EQ(5, *i++);
    EXPECT_EQ(36, *i);
    EXPECT_EQ(5, *copy);
    EXPECT_EQ(36, *++copy);
    EXPECT_EQ(copy, i);
    EXPECT_EQ(5, std::ranges::distance(pool));
    EXPECT_EQ(300, std::ranges::max(pool));
    EXPECT_EQ(36, *std::ranges::adjacent_find(pool, [](int a, int b) { return b == a + 1; }));
}

TEST(CxxPool, WalksAsFarAsTheCFunction)
{
    support::Random random(1);
    for (int round = 0; round < 300; round++) {
        int min = static_cast<int>(random() % 100);
        qv::id_pool pool("pool", min, min + static_cast<int>(random() % 300));
        if (round % 3 == 0)
            idpool_resize(pool.get(), 1 + static_cast<int>(random() % 600));
        for (int k = 0; k < 40; k++)
            pool.allocate(min + static_cast<int>(random() % 600));
        random.doing("walk from", min);
        std::vector<int> by_call;
        for (int id = min; idpool_get_next_allocated_id(pool.get(), id, &id) == 0; id++)
            by_call.push_back(id);
        EXPECT_EQ(std::vector<int>(pool.begin(), pool.end()), by_call);
        for (int from : {-1, 0, min - 1, min, min + 40, pool.get()->max_id, pool.get()->max_id + 1, INT32_MAX}) {
            int id = 0;
            bool found = idpool_get_next_allocated_id(pool.get(), from, &id) == 0;
            qv::id_pool::iterator at(pool.get(), from);
            EXPECT_EQ(found, at != pool.end());
            EXPECT_TRUE(!found || *at == id);
        }
    }
}
