// SPDX-License-Identifier: Apache-2.0
#include "idtable.h"

#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <map>

using namespace support;

namespace {

idtable_node *below(const idtable_node *node, unsigned slot)
{
    return reinterpret_cast<idtable_node *>(node->slots[slot]);
}

// What a call prints on the console.
template <typename Call>
std::string said(Call call)
{
    std::size_t before = read_file(kConsole).size();
    call();
    return read_file(kConsole).substr(before);
}

std::string error(const char *function, const std::string &text)
{
    return std::string("*** ERROR *** ") + function + ": " + text + "\n";
}

// The same for a call that is allowed this many allocations.
template <typename Call>
std::string said_with(int allowed, Call call)
{
    return said([&] {
        allocations_left = allowed;
        call();
        allocations_left = -1;
    });
}

void destroy32(idtable_node *root)
{
    for (unsigned high = 0; high < 65536; high++)
        idtable_free_table(reinterpret_cast<idtable_node *>(idtable16_find_entry(root, high)));
    idtable_free_table(root);
}

struct Table : testing::Test {
    idtable_node *root = idtable_alloc_table();
};
struct IdTable16 : Table {
    void TearDown() override { idtable_free_table(root); }
};
struct IdTable32 : Table {
    void TearDown() override { destroy32(root); }
};

} // namespace

// ---- nodes ----

TEST(IdTableNode, OrdersGiveSizes)
{
    for (auto [order, size] : {std::pair{0, 1U}, {4, 16U}, {6, 64U}, {14, 16384U}, {15, 32768U}}) {
        idtable_node *node = idtable_alloc_table_internal(order);
        ASSERT_NE(nullptr, node);
        EXPECT_EQ(size, node->size);
        EXPECT_EQ(0, node->count);
        for (unsigned i = 0; i < size; i++)
            ASSERT_EQ(0U, node->slots[i]);
        free(node);
    }
}

TEST(IdTableNode, AnOrderThatOverflowsTheSizeGivesNoSlots)
{
    for (int order : {16, 17, 31, 32, 64, 1000, -1, -1000}) {
        idtable_node *node = idtable_alloc_table_internal(order);
        ASSERT_NE(nullptr, node);
        EXPECT_EQ(0, node->size);
        idtable_free_table(node);
    }
}

TEST(IdTableNode, ARootHas16Slots)
{
    idtable_node *root = idtable_alloc_table();
    EXPECT_EQ(16, root->size);
    EXPECT_EQ(0, root->count);
    idtable_free_table(root);
    idtable_free_table(nullptr);
}

TEST(IdTableNode, ANodeWithoutMemoryIsReported)
{
    EXPECT_EQ(error("idtable_alloc_table_internal", "Can't alloc memory, size 520"),
              said_with(0, [] { EXPECT_EQ(nullptr, idtable_alloc_table_internal(6)); }));
    EXPECT_EQ(error("idtable_alloc_table_internal", "Can't alloc memory, size 136"),
              said_with(0, [] { EXPECT_EQ(nullptr, idtable_alloc_table()); }));
    EXPECT_EQ(error("idtable_alloc_table_internal", "Can't alloc memory, size 8"),
              said_with(0, [] { EXPECT_EQ(nullptr, idtable_alloc_table_internal(16)); }));
}

TEST(IdTableNode, FreeingEmptyInnerNodes)
{
    idtable_free_table(idtable_alloc_table_internal(6));
    idtable_free_table(idtable_alloc_table_internal(0)); // shorter than a root
}

// ---- 16 bits ----

TEST_F(IdTable16, CountsOfTheLevels)
{
    EXPECT_EQ(0, idtable16_insert_entry(root, 0x0000, 11));
    EXPECT_EQ(0, idtable16_insert_entry(root, 0xFFFF, 22));
    EXPECT_EQ(2, root->count);
    for (unsigned end : {0U, 1U}) {
        idtable_node *table2 = below(root, end * 15);
        EXPECT_EQ(64, table2->size);
        EXPECT_EQ(1, table2->count);
        idtable_node *table3 = below(table2, end * 63);
        EXPECT_EQ(64, table3->size);
        EXPECT_EQ(1, table3->count);
        EXPECT_EQ(end == 0 ? 11U : 22U, table3->slots[end * 63]);
    }
    EXPECT_EQ(0, idtable16_remove_entry(root, 0xFFFF));
    EXPECT_EQ(1, root->count);
    EXPECT_EQ(0U, root->slots[15]);
    EXPECT_EQ(0, idtable16_remove_entry(root, 0x0000));
    EXPECT_EQ(0, root->count);
}

TEST_F(IdTable16, SlotsOfAKey)
{
    idtable16_insert_entry(root, 0xA5C3, 1); // 1010 010111 000011
    EXPECT_EQ(1U, below(below(root, 10), 23)->slots[3]);
    idtable16_insert_entry(root, 0xA5C2, 2);
    EXPECT_EQ(1, below(root, 10)->count);
    EXPECT_EQ(2, below(below(root, 10), 23)->count);
}

TEST_F(IdTable16, HigherKeyBitsAreIgnored)
{
    idtable16_insert_entry(root, 0xABCD1234, 7);
    EXPECT_EQ(7U, idtable16_find_entry(root, 0x1234));
    EXPECT_EQ(7U, idtable16_find_entry(root, 0x11234));
    EXPECT_EQ(0, idtable16_remove_entry(root, 0xFFFF1234));
}

TEST_F(IdTable16, ADuplicateIsReportedAndSkipped)
{
    idtable16_insert_entry(root, 5, 0x123456789ABCDEF0);
    EXPECT_EQ(error("idtable16_insert_entry", "Find duplicate entry 9abcdef0, skip insert"),
              said([&] { EXPECT_EQ(-1, idtable16_insert_entry(root, 5, 2)); }));
    EXPECT_EQ(0x123456789ABCDEF0U, idtable16_find_entry(root, 5));
    EXPECT_EQ(1, below(below(root, 0), 0)->count);
}

TEST_F(IdTable16, AValueOf0IsCountedButNotFound)
{
    EXPECT_EQ(0, idtable16_insert_entry(root, 5, 0));
    EXPECT_EQ(1, below(below(root, 0), 0)->count);
    EXPECT_EQ(0U, idtable16_find_entry(root, 5));
    EXPECT_EQ(error("idtable16_remove_entry", "Entry not exist"),
              said([&] { EXPECT_EQ(-1, idtable16_remove_entry(root, 5)); }));
    EXPECT_EQ(0, idtable16_insert_entry(root, 5, 9));
    EXPECT_EQ(2, below(below(root, 0), 0)->count);
}

TEST_F(IdTable16, InsertionWithoutMemory)
{
    EXPECT_EQ(error("idtable_alloc_table_internal", "Can't alloc memory, size 520") +
                  error("idtable16_insert_entry", "Can't alloc memory for table2"),
              said_with(0, [&] { EXPECT_EQ(-1, idtable16_insert_entry(root, 5, 1)); }));
    EXPECT_EQ(0, root->count);
    EXPECT_EQ(error("idtable_alloc_table_internal", "Can't alloc memory, size 520") +
                  error("idtable16_insert_entry", "Can't alloc memory for table3"),
              said_with(1, [&] { EXPECT_EQ(-1, idtable16_insert_entry(root, 5, 1)); }));
    EXPECT_EQ(1, root->count) << "the table2 remains";
    EXPECT_EQ(0, below(root, 0)->count);
    EXPECT_EQ(0, idtable16_insert_entry(root, 5, 1));
}

TEST_F(IdTable16, MissingKeysAreReported)
{
    idtable16_insert_entry(root, 0x1000, 1);
    struct {
        unsigned key;
        const char *text;
    } missing[] = {{0x2000, "Table2 not exist"}, {0x1040, "Table3 not exist"}, {0x1001, "Entry not exist"}};
    for (const auto &m : missing) {
        EXPECT_EQ(error("idtable16_remove_entry", m.text),
                  said([&] { EXPECT_EQ(-1, idtable16_remove_entry(root, m.key)); }));
        EXPECT_EQ(error("idtable16_update_entry", m.text),
                  said([&] { EXPECT_EQ(-1, idtable16_update_entry(root, m.key, 3)); }));
        EXPECT_EQ("", said([&] { EXPECT_EQ(0U, idtable16_find_entry(root, m.key)); }));
    }
    EXPECT_EQ(1U, idtable16_find_entry(root, 0x1000));
}

TEST_F(IdTable16, UpdateReplaces)
{
    idtable16_insert_entry(root, 0x1000, 1);
    EXPECT_EQ(0, idtable16_update_entry(root, 0x1000, 2));
    EXPECT_EQ(2U, idtable16_find_entry(root, 0x1000));
    EXPECT_EQ(1, below(below(root, 1), 0)->count);
}

TEST_F(IdTable16, FindNextReachesToTheEndOfABlock)
{
    idtable16_insert_entry(root, 5, 50);
    idtable16_insert_entry(root, 200, 2000);
    EXPECT_EQ(50U, idtable16_find_next_entry(root, 3));
    EXPECT_EQ(50U, idtable16_find_next_entry(root, 5));
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 6)) << "6 to 63 are empty, and the search ends with the block";
    EXPECT_EQ(2000U, idtable16_find_next_entry(root, 64)) << "missing tables are skipped";
    EXPECT_EQ(2000U, idtable16_find_next_entry(root, 64 + 8));
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 64 + 9)) << "the key's slot is kept: 200 is at slot 8 of its block";
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 201));
}

TEST_F(IdTable16, FindNextKeepsItsSlotsAcrossTheTopLevel)
{
    idtable16_insert_entry(root, 0x3000 + 64 * 10 + 20, 7);
    EXPECT_EQ(7U, idtable16_find_next_entry(root, 0x1000 + 64 * 10 + 20)) << "missing table2s are skipped";
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 0x1000 + 64 * 11)) << "the middle slot is kept";
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 0x1000 + 64 * 10 + 21)) << "and the low slot";
    idtable16_insert_entry(root, 0x1000 + 64 * 5, 1);
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 0x1000 + 64 * 6)) << "the first table2 found uses up the middle slot";
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 0xFFFF));
}

TEST_F(IdTable16, FindNextSeesTheLastSlotsOfEachLevel)
{
    idtable16_insert_entry(root, 0x2FFF, 7); // root slot 2, table2 slot 63, table3 slot 63
    EXPECT_EQ(7U, idtable16_find_next_entry(root, 0x2FFF));
    EXPECT_EQ(7U, idtable16_find_next_entry(root, 0x2FC0));
    EXPECT_EQ(7U, idtable16_find_next_entry(root, 0x2000)) << "all slots of the table2 are searched";
    EXPECT_EQ(7U, idtable16_find_next_entry(root, 0x0FFF)) << "slots 63 and 63 are kept across the root's slots";
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 0x3000));
    idtable16_insert_entry(root, 0xFFFF, 8);
    EXPECT_EQ(8U, idtable16_find_next_entry(root, 0xFFFF));
    EXPECT_EQ(8U, idtable16_find_next_entry(root, 0x3000)) << "the root's last slot";
    EXPECT_EQ(7U, idtable16_find_next_entry(root, 0x1FFF));
    idtable16_insert_entry(root, 0x0000, 9);
    EXPECT_EQ(9U, idtable16_find_next_entry(root, 0x0000));
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 0x0001)) << "the first block is found and used up";
    EXPECT_EQ(0U, idtable16_find_next_entry(root, 0x0040)) << "the table2 is found and its 64 slots are used up";
}

// ---- 32 bits ----

TEST_F(IdTable32, SubRootsAreMadeAndFreedOnDemand)
{
    EXPECT_EQ(0, idtable32_insert_entry(root, 0x00010005, 15));
    EXPECT_EQ(0, idtable32_insert_entry(root, 0x00010006, 16));
    EXPECT_EQ(0, idtable32_insert_entry(root, 0xFFFFFFFF, 99));
    auto *sub = reinterpret_cast<idtable_node *>(idtable16_find_entry(root, 1));
    ASSERT_NE(nullptr, sub);
    EXPECT_EQ(16, sub->size);
    EXPECT_EQ(15U, idtable16_find_entry(sub, 5));
    EXPECT_EQ(99U, idtable32_find_entry(root, 0xFFFFFFFF));
    EXPECT_EQ(0U, idtable32_find_entry(root, 0x00010007));
    EXPECT_EQ(0U, idtable32_find_entry(root, 0x00020005));
    EXPECT_EQ(0, idtable32_remove_entry(root, 0x00010005));
    EXPECT_NE(0U, idtable16_find_entry(root, 1));
    EXPECT_EQ(0, idtable32_remove_entry(root, 0x00010006));
    EXPECT_EQ(0U, idtable16_find_entry(root, 1));
    EXPECT_EQ(1, root->count);
}

TEST_F(IdTable32, FindAndRemove)
{
    idtable32_insert_entry(root, 0x00010005, 15);
    EXPECT_EQ("", said([&] { EXPECT_EQ(0U, idtable32_find_and_remove_entry(root, 0x00010006)); }));
    EXPECT_EQ(error("idtable32_find_and_remove_entry", "no such table"),
              said([&] { EXPECT_EQ(0U, idtable32_find_and_remove_entry(root, 0x00020005)); }));
    EXPECT_EQ("", said([&] { EXPECT_EQ(15U, idtable32_find_and_remove_entry(root, 0x00010005)); }));
    EXPECT_EQ(0, root->count) << "its sub-root is gone too";
}

TEST_F(IdTable32, FailuresAreReportedOnBothLevels)
{
    idtable32_insert_entry(root, 0x00010005, 15);
    EXPECT_EQ(error("idtable16_insert_entry", "Find duplicate entry 0000000f, skip insert") +
                  error("idtable32_insert_entry", "insert fails"),
              said([&] { EXPECT_EQ(-1, idtable32_insert_entry(root, 0x00010005, 1)); }));
    EXPECT_EQ(error("idtable32_remove_entry", "no such table"),
              said([&] { EXPECT_EQ(-1, idtable32_remove_entry(root, 0x00020005)); }));
    EXPECT_EQ(error("idtable16_remove_entry", "Table2 not exist") + error("idtable32_remove_entry", "remove fails"),
              said([&] { EXPECT_EQ(-1, idtable32_remove_entry(root, 0x00011005)); }));
    EXPECT_EQ(error("idtable32_update_entry", "no such table"),
              said([&] { EXPECT_EQ(-1, idtable32_update_entry(root, 0x00020005, 1)); }));
    EXPECT_EQ(error("idtable16_update_entry", "Entry not exist") + error("idtable32_update_entry", "update fails"),
              said([&] { EXPECT_EQ(-1, idtable32_update_entry(root, 0x00010006, 1)); }));
    EXPECT_EQ(0, idtable32_update_entry(root, 0x00010005, 16));
    EXPECT_EQ(16U, idtable32_find_entry(root, 0x00010005));
}

TEST_F(IdTable32, InsertionWithoutMemory)
{
    const std::string no_memory = error("idtable_alloc_table_internal", "Can't alloc memory, size 520");
    EXPECT_EQ(error("idtable_alloc_table_internal", "Can't alloc memory, size 136") +
                  error("idtable32_insert_entry", "Can't alloc memory for table"),
              said_with(0, [&] { EXPECT_EQ(-1, idtable32_insert_entry(root, 1, 1)); }));
    if (!under_sanitizer()) { // contract: the sub-root is not freed
        EXPECT_EQ(no_memory + error("idtable16_insert_entry", "Can't alloc memory for table2") +
                      error("idtable32_insert_entry", "insert fails"),
                  said_with(1, [&] { EXPECT_EQ(-1, idtable32_insert_entry(root, 1, 1)); }));
    }
    EXPECT_EQ(no_memory + error("idtable16_insert_entry", "Can't alloc memory for table2") +
                  error("idtable32_insert_entry", "insert fails"),
              said_with(3, [&] { EXPECT_EQ(-1, idtable32_insert_entry(root, 1, 1)); }));
    EXPECT_NE(0U, idtable16_find_entry(root, 0)) << "the sub-root is inserted by then, and empty";
    EXPECT_EQ(0, idtable32_insert_entry(root, 1, 1));
}

TEST_F(IdTable32, FindNextContinuesInLaterSubRoots)
{
    idtable32_insert_entry(root, 0x00010005, 15);
    idtable32_insert_entry(root, 0x00020000, 20);
    idtable32_insert_entry(root, 0xFFFF0000, 99);
    EXPECT_EQ(15U, idtable32_find_next_entry(root, 0));
    EXPECT_EQ(15U, idtable32_find_next_entry(root, 0x00010005));
    EXPECT_EQ(20U, idtable32_find_next_entry(root, 0x00010006));
    EXPECT_EQ(99U, idtable32_find_next_entry(root, 0x00020001));
    EXPECT_EQ(99U, idtable32_find_next_entry(root, 0x00030000));
    EXPECT_EQ(0U, idtable32_find_next_entry(root, 0xFFFF0001));
    EXPECT_EQ(0U, idtable32_find_next_entry(root, 0xFFFFFFFF));
}

TEST_F(IdTable32, FindNextMeetsSubRootsAtTheFirstSlotAfterMissingBlocks)
{
    // High halves at slot 0 of a table3 or a table2 that follows a missing one, and at the last slots.
    const unsigned highs[] = {0x0040, 0x0FC0, 0x1000, 0x3000, 0x3FFF, 0xF000, 0xFFFF};
    for (unsigned high : highs) {
        idtable32_insert_entry(root, high << 16 | 3, high + 1);
        for (unsigned from : {0U, 1U, 0x3FU, 0x40U, 0xFFFU, 0x1000U, 0x2FFFU, 0x3001U, 0xEFFFU})
            EXPECT_EQ(from <= high ? high + 1 : 0U, idtable32_find_next_entry(root, from << 16)) << high << ' ' << from;
        EXPECT_EQ(high + 1, idtable32_find_next_entry(root, high << 16 | 3));
        EXPECT_EQ(0U, idtable32_find_next_entry(root, high << 16 | 4));
        EXPECT_EQ(0, idtable32_remove_entry(root, high << 16 | 3));
    }
    for (unsigned high : highs)
        idtable32_insert_entry(root, high << 16 | 3, high + 1);
    unsigned from = 0;
    for (unsigned high : highs) {
        EXPECT_EQ(high + 1, idtable32_find_next_entry(root, from));
        from = high << 16 | 4;
    }
    EXPECT_EQ(0U, idtable32_find_next_entry(root, from));
}

// ---- models: ordered maps, and find-next by the three cursors as they are described ----

namespace {

using Values = std::map<unsigned, std::uintptr_t>;

bool any_between(const Values &values, unsigned first, unsigned last)
{
    auto at = values.lower_bound(first);
    return at != values.end() && at->first <= last;
}

std::uintptr_t model_next16(const Values &values, unsigned key)
{
    unsigned m = key >> 6 & 63, l = key & 63;
    for (unsigned r = key >> 12 & 15; r < 16; r++) {
        if (!any_between(values, r << 12, r << 12 | 0xFFF))
            continue;
        for (; m < 64; m++) {
            unsigned block = r << 12 | m << 6;
            if (!any_between(values, block, block | 63))
                continue;
            for (; l < 64; l++)
                if (auto at = values.find(block | l); at != values.end())
                    return at->second;
        }
    }
    return 0;
}

std::uintptr_t model_next32(const std::map<unsigned, Values> &halves, unsigned key)
{
    for (auto at = halves.lower_bound(key >> 16); at != halves.end(); ++at)
        if (std::uintptr_t value = model_next16(at->second, at->first == key >> 16 ? key & 0xFFFF : 0))
            return value;
    return 0;
}

// Keys that often share tables, and sometimes have one to themselves.
unsigned some_key(std::mt19937 &random)
{
    auto bits = static_cast<unsigned>(random());
    return random() % 2 == 0 ? bits & 0x000300FF : bits & 0x8003F0C3;
}

} // namespace

TEST(IdTableModel, RandomWorkAgreesWithMaps)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        Random random(seed);
        idtable_node *root = idtable_alloc_table();
        std::map<unsigned, Values> model;
        Values missing;
        for (std::size_t step = 0; step < effort(1000000); step++) {
            unsigned key = some_key(random), high = key >> 16, low = key & 0xFFFF;
            auto half = model.find(high);
            Values &values = half != model.end() ? half->second : missing;
            auto at = values.find(low);
            std::uintptr_t held = at != values.end() ? at->second : 0;
            std::uintptr_t value = 1 + random() % 1000;
            unsigned operation = random() % 8;
            random.doing("operation, key, value, held", operation, key, value, held);
            switch (operation) {
            case 0:
            case 1:
                if (held != 0) // other cases test the messages of failures
                    break;
                ASSERT_EQ(0, idtable32_insert_entry(root, key, value));
                model[high][low] = value;
                break;
            case 2:
            case 3:
                if (held == 0)
                    break;
                if (random() % 2 == 0) {
                    ASSERT_EQ(0, idtable32_remove_entry(root, key));
                } else {
                    ASSERT_EQ(held, idtable32_find_and_remove_entry(root, key));
                }
                values.erase(at);
                if (values.empty())
                    model.erase(half);
                break;
            case 4:
                if (held == 0)
                    break;
                ASSERT_EQ(0, idtable32_update_entry(root, key, value));
                at->second = value;
                break;
            case 5:
                ASSERT_EQ(model_next32(model, key), idtable32_find_next_entry(root, key)) << std::hex << key;
                break;
            case 6:
                if (half != model.end()) {
                    auto *sub = reinterpret_cast<idtable_node *>(idtable16_find_entry(root, high));
                    ASSERT_EQ(model_next16(values, low), idtable16_find_next_entry(sub, low));
                }
                break;
            default:
                ASSERT_EQ(held, idtable32_find_entry(root, key));
            }
        }
        destroy32(root);
    }
}
