// SPDX-License-Identifier: Apache-2.0
#include "rbtree.h"

#include "cxx/rbtree.hpp"
#include "support/random.h"
#include "support/support.h"

#include <algorithm>
#include <cstring>
#include <map>

using namespace support;

namespace {

struct item {
    int key = 0;
    rb_node node = {};
};

item &item_of(rb_node *node)
{
    return *reinterpret_cast<item *>(reinterpret_cast<char *>(node) - offsetof(item, node));
}

rb_node *parent_of(const rb_node *node)
{
    return reinterpret_cast<rb_node *>(node->parent_color & ~std::uintptr_t{3});
}

bool is_red(const rb_node *node)
{
    return node != nullptr && (node->parent_color & 1) == 0;
}

void insert(rb_root &tree, item &x)
{
    rb_node **slot = &tree.node, *parent = nullptr;
    while (*slot != nullptr) {
        parent = *slot;
        slot = x.key < item_of(parent).key ? &parent->left : &parent->right;
    }
    x.node = {reinterpret_cast<std::uintptr_t>(parent), nullptr, nullptr};
    *slot = &x.node;
    rb_insert_color(&x.node, &tree);
}

std::vector<int> forward(const rb_root &tree)
{
    std::vector<int> keys;
    for (rb_node *node = rb_first(&tree); node != nullptr; node = rb_next(node))
        keys.push_back(item_of(node).key);
    return keys;
}

std::vector<int> backward(const rb_root &tree)
{
    std::vector<int> keys;
    for (rb_node *node = rb_last(&tree); node != nullptr; node = rb_prev(node))
        keys.push_back(item_of(node).key);
    return keys;
}

// The number of black nodes on every path down from this node, or -1 if a rule is broken.
int black_height(const rb_node *node, const rb_node *parent)
{
    if (node == nullptr)
        return 0;
    if (parent_of(node) != parent || (node->parent_color & 2) != 0)
        return -1;
    if (is_red(node) && (is_red(node->left) || is_red(node->right)))
        return -1;
    int left = black_height(node->left, node);
    int right = black_height(node->right, node);
    return left == right && left >= 0 ? left + (is_red(node) ? 0 : 1) : -1;
}

testing::AssertionResult is_sound(const rb_root &tree)
{
    if (is_red(tree.node))
        return testing::AssertionFailure() << "a red root";
    if (black_height(tree.node, nullptr) < 0)
        return testing::AssertionFailure() << "a broken rule";
    return testing::AssertionSuccess();
}

// Checks the rules only where an insertion may break them: from the new node to the root.
bool way_up_is_sound(const rb_node *node, const rb_root &tree)
{
    for (const rb_node *parent; (parent = parent_of(node)) != nullptr; node = parent) {
        if ((is_red(node) && is_red(parent)) || (parent->left != node && parent->right != node))
            return false;
    }
    return node == tree.node && !is_red(node);
}

void depths(const rb_node *node, int depth, int &least, int &most)
{
    if (node == nullptr) {
        least = std::min(least, depth);
        most = std::max(most, depth);
        return;
    }
    depths(node->left, depth + 1, least, most);
    depths(node->right, depth + 1, least, most);
}

} // namespace

TEST(RbTree, AnEmptyTree)
{
    rb_root tree = {};
    EXPECT_EQ(nullptr, rb_first(&tree));
    EXPECT_EQ(nullptr, rb_last(&tree));
    EXPECT_EQ(nullptr, rb_first_postorder(&tree));
    EXPECT_EQ(nullptr, rb_next_postorder(nullptr));
}

TEST(RbTree, ASingleNode)
{
    rb_root tree = {};
    item x;
    insert(tree, x);
    EXPECT_EQ(&x.node, tree.node);
    EXPECT_EQ(1U, x.node.parent_color) << "no parent, black";
    EXPECT_EQ(&x.node, rb_first(&tree));
    EXPECT_EQ(&x.node, rb_last(&tree));
    EXPECT_EQ(nullptr, rb_next(&x.node));
    EXPECT_EQ(nullptr, rb_prev(&x.node));
    EXPECT_EQ(&x.node, rb_first_postorder(&tree));
    EXPECT_EQ(nullptr, rb_next_postorder(&x.node));
    rb_erase(&x.node, &tree);
    EXPECT_EQ(nullptr, tree.node);
}

TEST(RbTree, ANodeThatIsItsOwnParentIsInNoTree)
{
    item x;
    x.node.parent_color = reinterpret_cast<std::uintptr_t>(&x.node);
    item y;
    x.node.left = x.node.right = &y.node;
    EXPECT_EQ(nullptr, rb_next(&x.node));
    EXPECT_EQ(nullptr, rb_prev(&x.node));
    x.node.parent_color |= 1;
    EXPECT_EQ(nullptr, rb_next(&x.node));
}

TEST(RbTree, AscendingKeys)
{
    std::vector<item> items(1000);
    rb_root tree = {};
    for (int i = 0; i < 1000; i++) {
        items[static_cast<std::size_t>(i)].key = i + 1;
        insert(tree, items[static_cast<std::size_t>(i)]);
        ASSERT_TRUE(is_sound(tree));
    }
    std::vector<int> keys = forward(tree);
    ASSERT_EQ(1000U, keys.size());
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    int least = 1000, most = 0;
    depths(tree.node, 0, least, most);
    EXPECT_LE(most, 2 * least);
}

TEST(RbTree, AMillionSequentialInsertionsStayBalanced)
{
    std::size_t count = effort(1000000);
    std::vector<item> items(count);
    rb_root tree = {};
    for (std::size_t i = 0; i < count; i++) {
        items[i].key = static_cast<int>(i);
        insert(tree, items[i]);
        ASSERT_TRUE(way_up_is_sound(&items[i].node, tree)) << i;
        if ((i & (i - 1)) == 0) { // the whole tree at each power of two
            ASSERT_TRUE(is_sound(tree)) << i;
        }
    }
    ASSERT_TRUE(is_sound(tree));
    std::size_t seen = 0;
    for (rb_node *node = rb_first(&tree); node != nullptr; node = rb_next(node))
        ASSERT_EQ(static_cast<int>(seen++), item_of(node).key);
    EXPECT_EQ(count, seen);
}

TEST(RbTree, RotationsKeepTheOrder)
{
    std::vector<item> items(3);
    rb_root tree = {};
    for (int i : {1, 0, 2})
        items[static_cast<std::size_t>(i)].key = i, insert(tree, items[static_cast<std::size_t>(i)]);
    ASSERT_EQ(&items[1].node, tree.node);
    __rb_rotate_left(&items[1].node, &tree);
    EXPECT_EQ(&items[2].node, tree.node);
    EXPECT_EQ(&items[1].node, items[2].node.left);
    EXPECT_EQ(&items[2].node, parent_of(&items[1].node));
    EXPECT_EQ((std::vector<int>{0, 1, 2}), forward(tree));
    __rb_rotate_right(&items[2].node, &tree);
    EXPECT_EQ(&items[1].node, tree.node);
    EXPECT_EQ((std::vector<int>{0, 1, 2}), forward(tree));
    EXPECT_TRUE(is_sound(tree)) << "a rotation does not move colours";
}

TEST(RbTree, ReplaceTakesOverPlaceAndColour)
{
    std::vector<item> items(20), others(20);
    for (std::size_t i = 0; i < items.size(); i++) {
        rb_root tree = {};
        for (std::size_t k = 0; k < items.size(); k++)
            items[k].key = static_cast<int>(k), insert(tree, items[k]);
        item before = items[i];
        others[i].key = items[i].key;
        rb_replace_node(&items[i].node, &others[i].node, &tree);
        EXPECT_TRUE(is_sound(tree));
        EXPECT_EQ(before.node.parent_color, others[i].node.parent_color);
        EXPECT_EQ(before.node.parent_color, items[i].node.parent_color) << "the replaced node's fields do not change";
        std::vector<rb_node *> nodes;
        for (rb_node *node = rb_first(&tree); node != nullptr; node = rb_next(node))
            nodes.push_back(node);
        ASSERT_EQ(items.size(), nodes.size());
        EXPECT_EQ(&others[i].node, nodes[i]);
        rb_erase(&others[i].node, &tree);
        EXPECT_TRUE(is_sound(tree));
    }
}

TEST(RbTree, PostOrderGivesChildrenBeforeParents)
{
    Random random(1);
    for (std::size_t count : {std::size_t{2}, std::size_t{3}, std::size_t{10}, std::size_t{500}}) {
        random.doing("tree of", count);
        std::vector<item> items(count);
        rb_root tree = {};
        for (item &x : items)
            x.key = static_cast<int>(random() % 1000), insert(tree, x);
        std::map<const rb_node *, int> seen;
        const rb_node *last = nullptr;
        for (rb_node *node = rb_first_postorder(&tree); node != nullptr; node = rb_next_postorder(node)) {
            EXPECT_EQ(1, ++seen[node]);
            EXPECT_TRUE(node->left == nullptr || seen.count(node->left) == 1);
            EXPECT_TRUE(node->right == nullptr || seen.count(node->right) == 1);
            last = node;
        }
        EXPECT_EQ(count, seen.size());
        EXPECT_EQ(tree.node, last);
    }
}

TEST(RbTree, PostOrderOfAWholeTreeCanBeFreed)
{
    rb_root tree = {};
    for (int i = 0; i < 100; i++) {
        auto *x = new item;
        x->key = i * 37 % 100;
        insert(tree, *x);
    }
    int freed = 0;
    rb_node *next;
    for (rb_node *node = rb_first_postorder(&tree); node != nullptr; node = next) {
        next = rb_next_postorder(node);
        delete &item_of(node);
        freed++;
    }
    EXPECT_EQ(100, freed);
}

TEST(RbTree, ErasingMovesNoNode)
{
    std::vector<item> items(200);
    rb_root tree = {};
    for (std::size_t i = 0; i < items.size(); i++)
        items[i].key = static_cast<int>(i * 71 % 200), insert(tree, items[i]);
    std::vector<int> keys = forward(tree);
    for (std::size_t i = 0; i < items.size(); i++) {
        rb_erase(&items[i].node, &tree);
        std::erase(keys, items[i].key);
        for (std::size_t k = 0; k < items.size(); k++)
            ASSERT_EQ(static_cast<int>(k * 71 % 200), items[k].key);
        ASSERT_EQ(keys, forward(tree));
        ASSERT_TRUE(is_sound(tree));
    }
}

TEST(RbTreeModel, SmallTreesStaySoundAfterEveryOperation)
{
    Random random(7);
    for (std::size_t round = 0; round < effort(60); round++) {
        std::size_t most = round % 10 == 0 ? 1000 : 1 + random() % 60;
        std::vector<item> items(most);
        std::vector<item *> in, out;
        for (item &x : items)
            out.push_back(&x);
        rb_root tree = {};
        for (std::size_t step = 0; step < 3 * most; step++) {
            bool grow = in.empty() || (!out.empty() && random() % 5 < (step < 2 * most ? 3 : 1));
            auto &from = grow ? out : in;
            std::size_t i = random() % from.size();
            item *x = from[i];
            from.erase(from.begin() + static_cast<std::ptrdiff_t>(i));
            random.doing(grow ? "insert into a tree of" : "erase from a tree of", in.size());
            if (grow) {
                x->key = static_cast<int>(random() % 300);
                insert(tree, *x);
                in.push_back(x);
            } else {
                rb_erase(&x->node, &tree);
                out.push_back(x);
            }
            ASSERT_TRUE(is_sound(tree));
        }
        std::vector<int> keys;
        for (item *x : in)
            keys.push_back(x->key);
        std::sort(keys.begin(), keys.end());
        ASSERT_EQ(keys, forward(tree));
        std::reverse(keys.begin(), keys.end());
        ASSERT_EQ(keys, backward(tree));
    }
}

TEST(RbTreeModel, RandomWorkAgreesWithAMultimap)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        Random random(seed);
        std::vector<item> items(5000);
        std::multimap<int, item *> model;
        std::vector<std::multimap<int, item *>::iterator> places(items.size(), model.end());
        rb_root tree = {};
        for (std::size_t step = 0; step < effort(1000000); step++) {
            std::size_t i = random() % items.size();
            item &x = items[i];
            random.doing("item", i);
            if (places[i] == model.end()) {
                x.key = static_cast<int>(random() % 4000);
                insert(tree, x);
                places[i] = model.emplace(x.key, &x); // after its equals, like insert()
                continue;
            }
            auto after = std::next(places[i]);
            ASSERT_EQ(after != model.end() ? &after->second->node : nullptr, rb_next(&x.node));
            ASSERT_EQ(places[i] != model.begin() ? &std::prev(places[i])->second->node : nullptr, rb_prev(&x.node));
            if (random() % 2 == 0)
                continue;
            rb_erase(&x.node, &tree);
            model.erase(places[i]);
            places[i] = model.end();
        }
        ASSERT_TRUE(is_sound(tree));
    }
}

// ---- the typed view ----

TEST(RbTreeView, FindsWalksAndErases)
{
    std::vector<item> items(100);
    qv::rb_tree<item, &item::node, &item::key> tree;
    EXPECT_TRUE(tree.empty());
    EXPECT_TRUE(tree.begin() == tree.end());
    for (std::size_t i = 0; i < items.size(); i++)
        items[i].key = static_cast<int>(i * 37 % 100) * 2, tree.insert(items[i]);
    int expected = 0;
    for (item &x : tree) {
        EXPECT_EQ(expected, x.key);
        expected += 2;
    }
    EXPECT_EQ(42, tree.find(42)->key);
    EXPECT_EQ(nullptr, tree.find(43));
    EXPECT_EQ(44, tree.lower_bound(43)->key);
    EXPECT_EQ(198, tree.lower_bound(198)->key);
    EXPECT_EQ(nullptr, tree.lower_bound(199));
    EXPECT_EQ(198, (--tree.end())->key);
    tree.erase(*tree.find(42));
    EXPECT_EQ(nullptr, tree.find(42));
    EXPECT_TRUE(is_sound(*tree.get()));
    const auto &fixed = tree;
    EXPECT_EQ(99, std::distance(fixed.begin(), fixed.end()));

    auto moved = std::move(tree);
    int released = 0;
    moved.clear([&](item &) { released++; });
    EXPECT_EQ(99, released);
    EXPECT_TRUE(moved.empty());
}
