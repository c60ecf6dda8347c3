// SPDX-License-Identifier: Apache-2.0
// Sparse tables by identifier.
#include "idtable.h"

#include "console_print.h"
#include "container/zeroed_malloc.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace qv;

static_assert(offsetof(idtable_node, size) == 0 && offsetof(idtable_node, count) == 2);
static_assert(offsetof(idtable_node, slots) == sizeof(uintptr_t));

namespace {

constexpr int kRootOrder = 4;
constexpr int kInnerOrder = 6;
constexpr int kMostOrder = 15; // the largest whose size fits the 16-bit field
constexpr unsigned kRootSlots = 1U << kRootOrder;
constexpr unsigned kInnerSlots = 1U << kInnerOrder;
constexpr unsigned kRootShift = 2 * kInnerOrder;
constexpr unsigned kHalfBits = 16;
constexpr unsigned kHalves = 1U << kHalfBits;
constexpr unsigned kHalfMask = kHalves - 1;

unsigned root_index(unsigned key)
{
    return (key >> kRootShift) & (kRootSlots - 1);
}

unsigned table2_index(unsigned key)
{
    return (key >> kInnerOrder) & (kInnerSlots - 1);
}

unsigned table3_index(unsigned key)
{
    return key & (kInnerSlots - 1);
}

idtable_node *child(const idtable_node *node, unsigned slot)
{
    return reinterpret_cast<idtable_node *>(node->slots[slot]);
}

void report(const char *function, const char *text)
{
    console_print("*** ERROR *** %s: %s\n", function, text);
}

// The node below a slot, created and counted if missing. Null, after a report, without memory.
idtable_node *child_or_new(idtable_node *node, unsigned slot, const char *function, const char *text)
{
    if (node->slots[slot] != 0)
        return child(node, slot);
    idtable_node *made = idtable_alloc_table_internal(kInnerOrder);
    if (made == nullptr) {
        report(function, text);
        return nullptr;
    }
    node->slots[slot] = reinterpret_cast<std::uintptr_t>(made);
    node->count++;
    return made;
}

// The nodes that lead from the root to a stored value.
struct path {
    idtable_node *table2;
    idtable_node *table3; // null, after a report, when there is no value
};

path find_path(idtable_node *root, unsigned key, const char *function)
{
    idtable_node *table2 = child(root, root_index(key));
    if (table2 == nullptr) {
        report(function, "Table2 not exist");
        return {};
    }
    idtable_node *table3 = child(table2, table2_index(key));
    if (table3 == nullptr) {
        report(function, "Table3 not exist");
        return {};
    }
    if (table3->slots[table3_index(key)] == 0) {
        report(function, "Entry not exist");
        return {};
    }
    return {table2, table3};
}

// Clears a slot; true when that leaves the node empty.
bool clear(idtable_node *node, unsigned slot)
{
    node->slots[slot] = 0;
    return --node->count == 0;
}

// idtable16_find_entry(), to be compiled into its callers: the exported one is not.
std::uintptr_t find(const idtable_node *root, unsigned key)
{
    const idtable_node *table2 = child(root, root_index(key));
    if (table2 == nullptr)
        return 0;
    const idtable_node *table3 = child(table2, table2_index(key));
    return table3 != nullptr ? table3->slots[table3_index(key)] : 0;
}

idtable_node *sub_root(const idtable_node *root, unsigned high)
{
    return reinterpret_cast<idtable_node *>(find(root, high));
}

// Removes a value from the table of its low half, and that table with its last value. Returns 0, or -1 after the
// reports of idtable16_remove_entry().
int remove_and_prune(idtable_node *root, idtable_node *sub, unsigned key)
{
    if (idtable16_remove_entry(sub, key & kHalfMask) != 0)
        return -1;
    if (sub->count != 0)
        return 0;
    if (idtable16_remove_entry(root, key >> kHalfBits) != 0)
        return -1;
    idtable_free_table(sub);
    return 0;
}

// The first high half from `high` on that has a table; kHalves when there is none. A missing inner node skips all its
// keys.
unsigned next_half(const idtable_node *root, unsigned high)
{
    while (high < kHalves) {
        const idtable_node *table2 = child(root, root_index(high));
        if (table2 == nullptr) {
            high = (high | ((1U << kRootShift) - 1)) + 1;
            continue;
        }
        const idtable_node *table3 = child(table2, table2_index(high));
        if (table3 == nullptr) {
            high = (high | (kInnerSlots - 1)) + 1;
            continue;
        }
        if (table3->slots[table3_index(high)] != 0)
            return high;
        high++;
    }
    return kHalves;
}

} // namespace

extern "C" {

// ---- tables ----

struct idtable_node *idtable_alloc_table_internal(int order)
{
    std::size_t slots = order >= 0 && order <= kMostOrder ? std::size_t{1} << order : 0;
    std::size_t size = (slots + 1) * sizeof(std::uintptr_t);
    auto *node = static_cast<idtable_node *>(container::zeroed_malloc(size));
    if (node == nullptr) {
        console_print("*** ERROR *** %s: Can't alloc memory, size %u\n", __func__, static_cast<unsigned>(size));
        return nullptr;
    }
    node->size = static_cast<std::uint16_t>(slots);
    return node;
}

struct idtable_node *idtable_alloc_table(void)
{
    return idtable_alloc_table_internal(kRootOrder);
}

void idtable_free_table(struct idtable_node *root)
{
    if (root == nullptr)
        return;
    for (unsigned i = 0; i < std::min<unsigned>(root->size, kRootSlots); i++) {
        idtable_node *table2 = child(root, i);
        if (table2 == nullptr)
            continue;
        for (unsigned k = 0; k < kInnerSlots; k++)
            std::free(child(table2, k));
        std::free(table2);
    }
    std::free(root);
}

// ---- 16-bit keys ----

int idtable16_insert_entry(struct idtable_node *root, unsigned key, uintptr_t value)
{
    idtable_node *table2 = child_or_new(root, root_index(key), __func__, "Can't alloc memory for table2");
    if (table2 == nullptr)
        return -1;
    idtable_node *table3 = child_or_new(table2, table2_index(key), __func__, "Can't alloc memory for table3");
    if (table3 == nullptr)
        return -1;
    std::uintptr_t &slot = table3->slots[table3_index(key)];
    if (slot != 0) {
        console_print("*** ERROR *** %s: Find duplicate entry %08x, skip insert\n", __func__,
                      static_cast<unsigned>(slot));
        return -1;
    }
    slot = value;
    table3->count++;
    return 0;
}

int idtable16_remove_entry(struct idtable_node *root, unsigned key)
{
    auto [table2, table3] = find_path(root, key, __func__);
    if (table3 == nullptr)
        return -1;
    if (!clear(table3, table3_index(key)))
        return 0;
    std::free(table3);
    if (!clear(table2, table2_index(key)))
        return 0;
    std::free(table2);
    clear(root, root_index(key));
    return 0;
}

uintptr_t idtable16_find_entry(const struct idtable_node *root, unsigned key)
{
    return find(root, key);
}

uintptr_t idtable16_find_next_entry(const struct idtable_node *root, unsigned key)
{
    // Contract: no cursor is reset to 0 when the one above it advances, so the first table3 found ends the search.
    unsigned middle = table2_index(key);
    unsigned low = table3_index(key);
    for (unsigned high = root_index(key); high < kRootSlots && middle < kInnerSlots; high++) {
        const idtable_node *table2 = child(root, high);
        if (table2 == nullptr)
            continue;
        for (; middle < kInnerSlots; middle++) {
            const idtable_node *table3 = child(table2, middle);
            if (table3 == nullptr)
                continue;
            for (; low < kInnerSlots; low++) {
                if (table3->slots[low] != 0)
                    return table3->slots[low];
            }
            return 0;
        }
    }
    return 0;
}

int idtable16_update_entry(struct idtable_node *root, unsigned key, uintptr_t value)
{
    idtable_node *table3 = find_path(root, key, __func__).table3;
    if (table3 == nullptr)
        return -1;
    table3->slots[table3_index(key)] = value;
    return 0;
}

// ---- 32-bit keys ----

int idtable32_insert_entry(struct idtable_node *root, unsigned key, uintptr_t value)
{
    idtable_node *sub = sub_root(root, key >> kHalfBits);
    if (sub == nullptr) {
        sub = idtable_alloc_table();
        if (sub == nullptr) {
            report(__func__, "Can't alloc memory for table");
            return -1;
        }
        if (idtable16_insert_entry(root, key >> kHalfBits, reinterpret_cast<std::uintptr_t>(sub)) != 0) {
            // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): contract: the new table is not freed
            report(__func__, "insert fails");
            return -1;
        }
    }
    if (idtable16_insert_entry(sub, key & kHalfMask, value) != 0) {
        report(__func__, "insert fails");
        return -1;
    }
    return 0;
}

int idtable32_remove_entry(struct idtable_node *root, unsigned key)
{
    idtable_node *sub = sub_root(root, key >> kHalfBits);
    if (sub == nullptr) {
        report(__func__, "no such table");
        return -1;
    }
    if (remove_and_prune(root, sub, key) != 0) {
        report(__func__, "remove fails");
        return -1;
    }
    return 0;
}

uintptr_t idtable32_find_and_remove_entry(struct idtable_node *root, unsigned key)
{
    idtable_node *sub = sub_root(root, key >> kHalfBits);
    if (sub == nullptr) {
        report(__func__, "no such table");
        return 0;
    }
    std::uintptr_t value = find(sub, key & kHalfMask);
    if (value != 0 && remove_and_prune(root, sub, key) != 0)
        report(__func__, "find and remove fails");
    return value;
}

uintptr_t idtable32_find_entry(const struct idtable_node *root, unsigned key)
{
    const idtable_node *sub = sub_root(root, key >> kHalfBits);
    return sub != nullptr ? find(sub, key & kHalfMask) : 0;
}

uintptr_t idtable32_find_next_entry(const struct idtable_node *root, unsigned key)
{
    unsigned first = key >> kHalfBits;
    for (unsigned high = next_half(root, first); high < kHalves; high = next_half(root, high + 1)) {
        std::uintptr_t value = idtable16_find_next_entry(sub_root(root, high), high == first ? key & kHalfMask : 0);
        if (value != 0)
            return value;
    }
    return 0;
}

int idtable32_update_entry(struct idtable_node *root, unsigned key, uintptr_t value)
{
    idtable_node *sub = sub_root(root, key >> kHalfBits);
    if (sub == nullptr) {
        report(__func__, "no such table");
        return -1;
    }
    if (idtable16_update_entry(sub, key & kHalfMask, value) != 0) {
        report(__func__, "update fails");
        return -1;
    }
    return 0;
}

} // extern "C"
