// SPDX-License-Identifier: Apache-2.0
// Sequences of operations on identifier pools and sparse tables, compared with bits and maps. The first byte picks one.
#include "cxx/idpool.hpp"
#include "idtable.h"

#include "tests/fuzz/input.h"

#include <algorithm>
#include <map>
#include <vector>

namespace {

using fuzz::Input;
using fuzz::require;

int messages;

} // namespace

// Replaces the console's: each failure is reported once per level.
extern "C" int console_print(const char *, ...)
{
    messages++;
    return 0;
}

extern "C" int qv_clog(const char *, ...)
{
    messages++;
    return 0;
}

namespace {

// ---- pools ----

// The model of a pool, over single bits. Bits after the last identifier count as allocated.
struct PoolModel {
    int min, max, words, next = 0;
    std::vector<bool> bits;

    PoolModel(int low, int high) : min(low), max(high), words((high - low) / 32 + 1), bits(4096) { take_spare(); }
    int count() const { return max - min + 1; }
    int present() const { return (count() + 31) / 32; }
    bool in_range(int id) const { return id >= min && id <= max; }
    auto bit(int offset) { return bits[static_cast<std::size_t>(offset)]; }
    void take_spare()
    {
        for (int offset = count(); offset < 32 * std::max(present(), words); offset++)
            bit(offset) = true;
    }
    // Scans from the cursor to the end of the scanned words and wraps. The cursor itself may lie beyond them.
    int find_next()
    {
        if (!bit(next))
            return next;
        const int end = 32 * words, start = next / 32 % words * 32 + next % 32;
        for (int i = 0; i <= end; i++)
            if (!bit((start + i) % end))
                return (start + i) % end;
        return -1;
    }
    int take()
    {
        int offset = find_next();
        if (offset < 0)
            return -1;
        bit(offset) = true;
        next = offset + 1 < count() ? offset + 1 : 0;
        return min + offset;
    }
    int take_lowest()
    {
        for (int offset = 0; offset < 32 * std::max(words, std::min(words + 1, present())); offset++) {
            if (!bit(offset)) {
                bit(offset) = true;
                return min + offset;
            }
        }
        return -1;
    }
    void resize(int to)
    {
        if (to == count())
            return;
        const int kept = 8 * std::min((to + 31) / 32, present());
        std::fill(bits.begin() + kept, bits.end(), false);
        max = min + to - 1;
        take_spare();
        if (next >= to)
            next = 0;
    }
};

void run_idpool(Input &input)
{
    const int min = input.byte();
    const int first_count = 1 + input.byte() % 200;
    qv::id_pool pool("fuzz", min, min + first_count - 1);
    PoolModel model(min, min + first_count - 1);
    while (!input.empty()) {
        const int id = min - 2 + input.byte() * 2 % (model.count() + 4);
        const bool inside = model.in_range(id);
        const bool taken = inside && model.bit(id - min);
        switch (input.below(7)) {
        case 0:
            require(pool.allocate().value_or(-1) == model.take());
            break;
        case 1:
            require(pool.allocate_lowest().value_or(-1) == model.take_lowest());
            break;
        case 2:
            require(pool.allocate(id) == (inside && !taken));
            if (inside)
                model.bit(id - min) = true;
            break;
        case 3:
            require(pool.free(id) == taken);
            if (inside)
                model.bit(id - min) = false;
            break;
        case 4:
            require(idpool_is_id_allocated(pool.get(), id) == (inside ? taken : -1));
            break;
        case 5: {
            std::vector<int> expected;
            for (int offset = 0; offset < std::min(model.count(), 32 * model.words); offset++)
                if (model.bit(offset))
                    expected.push_back(min + offset);
            require(std::vector<int>(pool.begin(), pool.end()) == expected);
            int next = -1;
            auto at = std::lower_bound(expected.begin(), expected.end(), id);
            bool found = inside && at != expected.end();
            require(idpool_get_next_allocated_id(pool.get(), id, &next) == (found ? 0 : -1));
            require(!found || next == *at);
            break;
        }
        default:
            if (input.below(4) == 0) {
                int to = 1 + input.byte() * 3 % 500;
                require(idpool_resize(pool.get(), to) == 1);
                model.resize(to);
            }
        }
        require(pool.get()->next == model.next && pool.get()->max_id == model.max);
    }
}

// ---- tables ----

using Values = std::map<unsigned, std::uintptr_t>;

std::uintptr_t value_at(const Values &values, unsigned key)
{
    auto at = values.find(key);
    return at != values.end() ? at->second : 0;
}

bool any_between(const Values &values, unsigned first, unsigned last)
{
    auto at = values.lower_bound(first);
    return at != values.end() && at->first <= last;
}

// Three cursors. None returns to 0 when the one before it advances.
std::uintptr_t next16(const Values &values, unsigned base, unsigned key)
{
    unsigned middle = key >> 6 & 63, low = key & 63;
    for (unsigned high = key >> 12 & 15; high < 16; high++) {
        if (!any_between(values, base | high << 12, base | high << 12 | 0xFFF))
            continue;
        for (; middle < 64; middle++) {
            unsigned block = base | high << 12 | middle << 6;
            if (!any_between(values, block, block | 63))
                continue;
            for (; low < 64; low++)
                if (std::uintptr_t value = value_at(values, block | low))
                    return value;
        }
    }
    return 0;
}

std::uintptr_t next32(const Values &values, unsigned key)
{
    for (auto at = values.lower_bound(key & 0xFFFF0000); at != values.end();) {
        unsigned base = at->first & 0xFFFF0000;
        if (std::uintptr_t value = next16(values, base, base == (key & 0xFFFF0000) ? key & 0xFFFF : 0))
            return value;
        if (base == 0xFFFF0000)
            break;
        at = values.lower_bound(base + 0x10000);
    }
    return 0;
}

// Few keys near the borders of blocks, so that nodes are often created and freed.
unsigned key_of(Input &input, bool wide)
{
    static const unsigned kLow[] = {0, 1, 62, 63, 64, 65, 0xFBF, 0xFC0, 0xFFF, 0x1000, 0x1001, 0x2040, 0xFFC0, 0xFFFF};
    unsigned key = kLow[input.below(std::size(kLow))];
    return wide ? kLow[input.below(std::size(kLow))] << 16 | key : key;
}

void run_idtable(Input &input)
{
    const bool wide = input.below(2) != 0;
    idtable_node *root = idtable_alloc_table();
    auto *insert = wide ? idtable32_insert_entry : idtable16_insert_entry;
    auto *update = wide ? idtable32_update_entry : idtable16_update_entry;
    auto *remove = wide ? idtable32_remove_entry : idtable16_remove_entry;
    auto *find = wide ? idtable32_find_entry : idtable16_find_entry;
    auto *find_next = wide ? idtable32_find_next_entry : idtable16_find_next_entry;
    Values model;
    std::uintptr_t fresh = 1;
    while (!input.empty()) {
        const unsigned key = key_of(input, wide);
        const std::uintptr_t known = value_at(model, key);
        messages = 0;
        switch (input.below(6)) {
        case 0:
        case 1:
            require(insert(root, key, fresh) == (known == 0 ? 0 : -1) && (messages != 0) == (known != 0));
            model.emplace(key, fresh++);
            break;
        case 2:
            require(remove(root, key) == (known != 0 ? 0 : -1) && (messages != 0) == (known == 0));
            model.erase(key);
            break;
        case 3:
            require(update(root, key, fresh) == (known != 0 ? 0 : -1) && (messages != 0) == (known == 0));
            if (known != 0)
                model[key] = fresh++;
            break;
        case 4:
            if (wide) {
                require(idtable32_find_and_remove_entry(root, key) == known);
                model.erase(key);
            }
            break;
        default:
            require(find_next(root, key) == (wide ? next32(model, key) : next16(model, 0, key)));
        }
        require(find(root, key) == value_at(model, key));
    }
    while (!model.empty()) {
        require(remove(root, model.begin()->first) == 0);
        model.erase(model.begin());
    }
    require(root->count == 0);
    idtable_free_table(root);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size > 4096)
        return 0;
    Input input(data, size);
    if (input.below(2) == 0)
        run_idpool(input);
    else
        run_idtable(input);
    return 0;
}
