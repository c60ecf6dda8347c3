// SPDX-License-Identifier: Apache-2.0
// A tree of numbered objects: filled in random order, walked in order, emptied in random order. Times are per object.
#include "cxx/rbtree.hpp"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>
#if __has_include(<boost/intrusive/set.hpp>)
#define HAVE_BOOST
#include <boost/intrusive/options.hpp>
#include <boost/intrusive/set.hpp>
#endif
#if __has_include(<bsd/sys/tree.h>)
#define HAVE_BSD_TREE
#include <bsd/sys/tree.h>
#endif

namespace {

/* ---- the trees ---- */

struct Object {
    rb_node node;
    unsigned key;
};

// The search and the walk in the form that C callers write. The descent is the peers': what differs is the library.
struct ByCall {
    using Object = ::Object;
    rb_root root{};

    static Object *object_of(rb_node *node) { return reinterpret_cast<Object *>(node); }

    void insert(Object &object)
    {
        rb_node *parent = nullptr;
        bool goes_left = false;
        for (rb_node *node = root.node; node != nullptr;) {
            parent = node;
            goes_left = object.key < object_of(node)->key;
            node = goes_left ? node->left : node->right;
        }
        object.node = {reinterpret_cast<std::uintptr_t>(parent), nullptr, nullptr};
        (parent == nullptr ? root.node : goes_left ? parent->left : parent->right) = &object.node;
        rb_insert_color(&object.node, &root);
    }
    void erase(Object &object) { rb_erase(&object.node, &root); }
    unsigned long sum() const
    {
        unsigned long sum = 0;
        for (rb_node *node = rb_first(&root); node != nullptr; node = rb_next(node))
            sum += object_of(node)->key;
        return sum;
    }
};

template <typename Set>
unsigned long sum_of(const Set &set)
{
    unsigned long sum = 0;
    for (const auto &object : set)
        sum += object.key;
    return sum;
}

struct ByView {
    using Object = ::Object;
    qv::rb_tree<Object, &Object::node, &Object::key> tree;
    void insert(Object &object) { tree.insert(object); }
    void erase(Object &object) { tree.erase(object); }
    unsigned long sum() const { return sum_of(tree); }
};

#ifdef HAVE_BOOST
namespace bi = boost::intrusive;

using Hook = bi::set_base_hook<bi::optimize_size<true>, bi::link_mode<bi::normal_link>>;

struct HookedObject : Hook {
    unsigned key;
    friend bool operator<(const HookedObject &a, const HookedObject &b) { return a.key < b.key; }
};
static_assert(sizeof(Hook) == sizeof(rb_node));

struct Boost {
    using Object = HookedObject;
    bi::multiset<Object, bi::base_hook<Hook>, bi::constant_time_size<false>> set;
    void insert(Object &object) { set.insert(object); }
    void erase(Object &object) { set.erase(set.iterator_to(object)); }
    unsigned long sum() const { return sum_of(set); }
};
#endif

#ifdef HAVE_BSD_TREE
struct BsdObject {
    RB_ENTRY(BsdObject) entry;
    unsigned key;
};

int compare(const BsdObject *a, const BsdObject *b)
{
    return a->key < b->key ? -1 : a->key > b->key;
}

RB_HEAD(BsdHead, BsdObject);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
RB_PROTOTYPE(BsdHead, BsdObject, entry, compare)
RB_GENERATE(BsdHead, BsdObject, entry, compare)
#pragma GCC diagnostic pop

struct Bsd {
    using Object = BsdObject;
    mutable BsdHead head = RB_INITIALIZER(&head);
    void insert(Object &object) { RB_INSERT(BsdHead, &head, &object); }
    void erase(Object &object) { RB_REMOVE(BsdHead, &head, &object); }
    unsigned long sum() const
    {
        unsigned long sum = 0;
        Object *object;
        RB_FOREACH(object, BsdHead, &head)
        sum += object->key;
        return sum;
    }
};
#endif

struct MappedObject {
    unsigned key;
};

struct Std {
    using Object = MappedObject;
    std::map<unsigned, Object *> map;
    void insert(Object &object) { map.emplace(object.key, &object); }
    void erase(Object &object) { map.erase(object.key); }
    unsigned long sum() const
    {
        unsigned long sum = 0;
        for (const auto &[key, object] : map)
            sum += key;
        return sum;
    }
};

/* ---- the work ---- */

// Orders of n objects in turn, too many for a branch predictor to learn: it learns the descents of one order of 1,000.
class Orders {
public:
    Orders(std::size_t n, unsigned seed)
    {
        std::mt19937 random(seed);
        orders_.resize(std::max<std::size_t>(kMinSteps / n, 1));
        for (auto &order : orders_) {
            order.resize(n);
            std::iota(order.begin(), order.end(), 0U);
            std::shuffle(order.begin(), order.end(), random);
        }
    }
    const std::vector<unsigned> &next()
    {
        at_ = at_ + 1 == orders_.size() ? 0 : at_ + 1;
        return orders_[at_];
    }

private:
    static constexpr std::size_t kMinSteps = std::size_t{1} << 18;

    std::vector<std::vector<unsigned>> orders_;
    std::size_t at_ = 0;
};

template <typename Tree>
void add(const std::string &name, std::size_t n)
{
    auto add_work = [&](const char *work, auto measured) {
        benchmark::RegisterBenchmark((work + ("/" + name + "/" + std::to_string(n))).c_str(), [=](auto &state) {
            std::vector<typename Tree::Object> objects(n);
            for (std::size_t i = 0; i < n; i++)
                objects[i].key = static_cast<unsigned>(i);
            measured(state, objects, Orders(n, 1), Orders(n, 2));
            state.counters["per object"] = benchmark::Counter(
                static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
        })->Unit(benchmark::kMicrosecond);
    };
    auto fill = [](Tree &tree, auto &objects, const auto &order) {
        for (unsigned i : order)
            tree.insert(objects[i]);
    };
    auto empty = [](Tree &tree, auto &objects, const auto &order) {
        for (unsigned i : order)
            tree.erase(objects[i]);
    };
    add_work("insert", [=](benchmark::State &state, auto &objects, auto &&come, auto &&go) {
        for (auto _ : state) {
            Tree tree;
            fill(tree, objects, come.next());
            state.PauseTiming();
            empty(tree, objects, go.next());
            state.ResumeTiming();
        }
    });
    add_work("walk", [=](benchmark::State &state, auto &objects, auto &&come, auto &&go) {
        Tree tree;
        fill(tree, objects, come.next());
        for (auto _ : state)
            benchmark::DoNotOptimize(tree.sum());
        empty(tree, objects, go.next());
    });
    add_work("erase", [=](benchmark::State &state, auto &objects, auto &&come, auto &&go) {
        for (auto _ : state) {
            state.PauseTiming();
            Tree tree;
            fill(tree, objects, come.next());
            state.ResumeTiming();
            empty(tree, objects, go.next());
        }
    });
}

const bool registered = [] {
    for (std::size_t n = 1000; n <= 10000000; n *= 10) {
        add<ByCall>("ours", n);
        add<ByView>("ours_view", n);
#ifdef HAVE_BOOST
        add<Boost>("boost_intrusive", n);
#endif
#ifdef HAVE_BSD_TREE
        add<Bsd>("bsd_tree", n);
#endif
        add<Std>("std", n);
    }
    return true;
}();

} // namespace
