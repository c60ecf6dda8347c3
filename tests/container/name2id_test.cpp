// SPDX-License-Identifier: Apache-2.0
#include "name2id.h"

#include "support/random.h"
#include "support/scarce_memory.h"
#include "support/support.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

name2id_entry *add(name2id_tbl *table, const char *name, unsigned id)
{
    name2id_entry *entry = name2id_entry_create(name, id);
    EXPECT_EQ(0, name2id_entry_insert(table, entry));
    return entry;
}

name2id_entry *add2(name2id_tbl *table, const char *name, unsigned scope, unsigned id)
{
    name2id_entry *entry = name2id_entry_create2(name, scope, id);
    EXPECT_EQ(0, name2id_entry_insert2(table, entry));
    return entry;
}

std::vector<std::string> names(const name2id_tbl *table)
{
    std::vector<std::string> result;
    name2id_entry *const *where = &table->first;
    for (; *where != nullptr; where = &(*where)->next) {
        EXPECT_EQ(where, (*where)->prev);
        result.emplace_back((*where)->name);
    }
    EXPECT_EQ(where, table->last);
    EXPECT_EQ(result.size(), table->hashtbl->count);
    return result;
}

std::vector<std::string> released;

void release(void *data)
{
    released.emplace_back(static_cast<const char *>(data));
}

} // namespace

TEST(Name2id, EmptyTable)
{
    name2id_tbl *table = name2id_tbl_create(4, 7);
    ASSERT_NE(nullptr, table);
    EXPECT_EQ(nullptr, table->first);
    EXPECT_EQ(&table->first, table->last);
    EXPECT_EQ(4, table->hashtbl->log_size);
    EXPECT_EQ(1, table->hashtbl->flag);
    EXPECT_EQ(296, table->hashtbl->link_offset);
    EXPECT_EQ(-1, name2id(table->hashtbl, "x"));
    name2id_tbl_destory(table);
    name2id_tbl_destory(nullptr);
    name2id_tbl_destory2(nullptr);
}

TEST(Name2id, BadSizeGivesNoTable)
{
    EXPECT_EQ(nullptr, name2id_tbl_create(21, 0));
    EXPECT_EQ(nullptr, name2id_tbl_create2(21, 0));
    EXPECT_EQ(nullptr, create_name2id_hash_tbl(21, 0));
    EXPECT_EQ(0U, support::read_file(support::kConsole).find("log size of the table must be between 1 and 2^20\n"));
}

TEST(Name2id, EveryCreateFailsWithoutMemory)
{
    for (auto *create : {name2id_tbl_create, name2id_tbl_create2}) {
        for (int allowed : {0, 1, 2}) { // the record, the hash table's record, its buckets
            support::allocations_left = allowed;
            name2id_tbl *table = create(4, 0);
            support::allocations_left = -1;
            EXPECT_EQ(nullptr, table);
        }
    }
    support::allocations_left = 0;
    name2id_entry *entry = name2id_entry_create("a", 1);
    name2id_entry *scoped = name2id_entry_create2("a", 1, 1);
    support::allocations_left = -1;
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(nullptr, scoped);
}

TEST(Name2id, ANewEntryHasItsKeyAndNoData)
{
    name2id_entry *entry = name2id_entry_create("trust", 7);
    EXPECT_STREQ("trust", entry->name);
    EXPECT_EQ(7U, entry->id);
    EXPECT_EQ(0U, entry->id2);
    EXPECT_EQ(nullptr, entry->data);
    EXPECT_TRUE(entry->data_free == std::free);
    std::free(entry);
    entry = name2id_entry_create2("trust", 3, 9);
    EXPECT_EQ(3U, entry->id);
    EXPECT_EQ(9U, entry->id2);
    std::free(entry);
    EXPECT_EQ(nullptr, name2id_entry_create(nullptr, 1));
}

TEST(Name2id, FindsTheNewestOfEqualNames)
{
    name2id_tbl *table = name2id_tbl_create(2, 0);
    add(table, "a", 1);
    add(table, "b", 2);
    name2id_entry *newest = add(table, "a", 3);
    EXPECT_EQ(3, name2id(table->hashtbl, "a"));
    EXPECT_EQ(newest, name2id_entry_find(table->hashtbl, "a"));
    EXPECT_EQ(0, name2id_entry_remove(table, newest));
    EXPECT_EQ(1, name2id(table->hashtbl, "a"));
    EXPECT_EQ(-1, name2id(table->hashtbl, "c"));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), names(table));
    name2id_tbl_destory(table);
}

TEST(Name2id, LargeIdentifiersAndTheMissLookAlike)
{
    name2id_tbl *table = name2id_tbl_create(2, 0);
    add(table, "all ones", 0xFFFFFFFF);
    EXPECT_EQ(0xFFFFFFFFU, static_cast<unsigned>(name2id(table->hashtbl, "all ones")));
    EXPECT_EQ(0xFFFFFFFFU, static_cast<unsigned>(name2id(table->hashtbl, "none")));
    EXPECT_EQ(-1, name2id(table->hashtbl, nullptr));
    name2id_tbl_destory(table);
}

TEST(Name2id, NamesAreCutAt255)
{
    name2id_tbl *table = name2id_tbl_create(2, 0);
    std::string longer(300, 'x');
    name2id_entry *entry = add(table, longer.c_str(), 5);
    EXPECT_EQ(255U, std::strlen(entry->name));
    EXPECT_EQ(-1, name2id(table->hashtbl, longer.c_str()));
    EXPECT_EQ(5, name2id(table->hashtbl, longer.substr(0, 255).c_str()));
    EXPECT_EQ(-1, name2id(table->hashtbl, longer.substr(0, 254).c_str()));
    name2id_tbl_destory(table);
}

TEST(Name2id, NullArgumentsAreRefused)
{
    name2id_tbl *table = name2id_tbl_create(2, 0);
    name2id_entry *entry = name2id_entry_create("a", 1);
    name2id_tbl hollow{};
    for (auto *call : {name2id_entry_insert, name2id_entry_remove, name2id_entry_insert2, name2id_entry_remove2}) {
        EXPECT_EQ(-1, call(nullptr, entry));
        EXPECT_EQ(-1, call(&hollow, entry));
        EXPECT_EQ(-1, call(table, nullptr));
    }
    std::free(entry);
    name2id_tbl_destory(table);
}

TEST(Name2id, ATableWithoutItsHashTableIsDestroyed)
{
    for (auto *destroy : {name2id_tbl_destory, name2id_tbl_destory2}) {
        name2id_tbl *table = name2id_tbl_create(2, 0);
        char a[] = "a", b[] = "b";
        add(table, "a", 1)->data = a;
        add(table, "b", 2)->data = b;
        for (name2id_entry *entry = table->first; entry != nullptr; entry = entry->next)
            entry->data_free = release;
        hashtbl_destroy(table->hashtbl);
        table->hashtbl = nullptr;
        name2id_entry *entry = name2id_entry_create("c", 3);
        for (auto *call : {name2id_entry_insert, name2id_entry_remove, name2id_entry_insert2, name2id_entry_remove2})
            EXPECT_EQ(-1, call(table, entry));
        std::free(entry);
        released.clear();
        destroy(table);
        EXPECT_EQ((std::vector<std::string>{"a", "b"}), released);
    }
}

TEST(Name2id, NullNamesMatchNothing)
{
    name2id_tbl *table = name2id_tbl_create(2, 0);
    EXPECT_EQ(nullptr, name2id_entry_create(nullptr, 1));
    EXPECT_EQ(nullptr, name2id_entry_create2(nullptr, 1, 1));
    EXPECT_EQ(nullptr, name2id_entry_find(table->hashtbl, nullptr));
    EXPECT_EQ(nullptr, name2id_entry_find2(table->hashtbl, nullptr, 0));
    EXPECT_EQ(-1, name2id(table->hashtbl, nullptr));
    EXPECT_EQ(-1, name2id2(table->hashtbl, nullptr, 0));
    EXPECT_EQ(0, name2id_comp(nullptr, nullptr));
    EXPECT_EQ(0, name2id_comp2(nullptr, nullptr));
    EXPECT_EQ(0U, name2id_string_hash(nullptr, 3));
    name2id_tbl_destory(table);
}

TEST(Name2id, TheEmptyNameIsAName)
{
    name2id_tbl *table = name2id_tbl_create(2, 0);
    EXPECT_EQ(-1, name2id(table->hashtbl, ""));
    name2id_entry *entry = add(table, "", 7);
    EXPECT_EQ(0U, entry->link.hash);
    EXPECT_EQ(7, name2id(table->hashtbl, ""));
    EXPECT_EQ(entry, name2id_entry_find(table->hashtbl, ""));
    EXPECT_EQ(-1, name2id(table->hashtbl, "a"));
    EXPECT_EQ(1, name2id_comp("", ""));
    EXPECT_EQ(0, name2id_comp("", "a"));
    EXPECT_EQ(0, name2id_entry_remove(table, entry));
    EXPECT_EQ(-1, name2id(table->hashtbl, ""));
    name2id_tbl_destory(table);

    table = name2id_tbl_create2(2, 0);
    add2(table, "", 5, 50);
    EXPECT_EQ(50, name2id2(table->hashtbl, "", 5));
    EXPECT_EQ(-1, name2id2(table->hashtbl, "", 6));
    name2id_tbl_destory2(table);
}

TEST(Name2id, HashTablesOfBothFamilies)
{
    for (auto *create : {create_name2id_hash_tbl, create_name2id_hash_tbl2}) {
        for (int flag : {0, 1, -3}) {
            hashtbl *index = create(3, flag);
            ASSERT_NE(nullptr, index);
            EXPECT_EQ(3, index->log_size);
            EXPECT_EQ(offsetof(name2id_entry, link), index->link_offset);
            EXPECT_EQ(flag != 0, index->flag);
            EXPECT_EQ(0U, index->count);
            hashtbl_destroy(index);
        }
        EXPECT_EQ(nullptr, create(21, 0));
    }
    for (auto *create : {name2id_tbl_create, name2id_tbl_create2}) {
        name2id_tbl *table = create(3, 1);
        EXPECT_EQ(1, table->hashtbl->flag);
        EXPECT_EQ(offsetof(name2id_entry, link), table->hashtbl->link_offset);
        name2id_tbl_destory(table);
        table = create(3, 0);
        EXPECT_EQ(0, table->hashtbl->flag);
        name2id_tbl_destory2(table);
    }
}

TEST(Name2id, RemoveReleasesData)
{
    name2id_tbl *table = name2id_tbl_create(2, 0);
    name2id_entry *entry = add(table, "custom", 1);
    char text[] = "custom data";
    entry->data = text;
    entry->data_free = release;
    name2id_entry *plain = add(table, "plain", 2);
    plain->data = std::malloc(16); // the address sanitizer reports it unless free() is called
    plain->data_free = nullptr;
    add(table, "none", 3)->data_free = release;
    EXPECT_EQ(0, name2id_entry_remove(table, entry));
    EXPECT_EQ(0, name2id_entry_remove(table, plain));
    EXPECT_EQ(0, name2id_entry_remove(table, table->first));
    EXPECT_EQ(std::vector<std::string>{"custom data"}, released);
    EXPECT_TRUE(names(table).empty());
    name2id_tbl_destory(table);
}

TEST(Name2id, DestroyReleasesInOrderOfInsertion)
{
    name2id_tbl *table = name2id_tbl_create(0, 0);
    released.clear();
    static char texts[][2] = {"1", "2", "3"};
    for (char *text : texts) {
        name2id_entry *entry = add(table, text, 0);
        entry->data = text;
        entry->data_free = release;
    }
    name2id_tbl_destory(table);
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), released);
}

TEST(Name2id, DataFunctionsMaySearchTheTable)
{
    static name2id_tbl *table = name2id_tbl_create(0, 0);
    static int found = 0;
    for (const char *name : {"a", "b", "c"}) {
        name2id_entry *entry = add(table, name, 1);
        entry->data = entry;
        entry->data_free = [](void *data) {
            found = name2id(table->hashtbl, static_cast<name2id_entry *>(data)->name);
            EXPECT_EQ(-1, name2id(table->hashtbl, "nothing"));
        };
    }
    name2id_entry_remove(table, table->first->next);
    EXPECT_EQ(-1, found);
    EXPECT_EQ(1, name2id(table->hashtbl, "c"));
    name2id_tbl_destory(table);
    EXPECT_EQ(-1, found);
}

TEST(Name2id, EntriesOfOtherTablesAreLeftAlone)
{
    name2id_tbl *table = name2id_tbl_create(1, 0);
    name2id_tbl *other = name2id_tbl_create(1, 0);
    name2id_entry *loose = name2id_entry_create("a", 1);
    name2id_entry *theirs = add(other, "a", 2);
    add(table, "a", 3);
    EXPECT_EQ(0, name2id_entry_remove(table, loose));
    EXPECT_EQ(0, name2id_entry_remove(table, theirs));
    EXPECT_EQ(std::vector<std::string>{"a"}, names(table));
    EXPECT_EQ(std::vector<std::string>{"a"}, names(other));
    EXPECT_EQ(2, name2id(other->hashtbl, "a"));
    std::free(loose);
    name2id_tbl_destory(table);
    name2id_tbl_destory(other);
}

TEST(Name2id, AnEntryThatTheHashTableLostIsStillReleased)
{
    name2id_tbl *table = name2id_tbl_create(1, 0);
    name2id_entry *entry = add(table, "a", 1);
    add(table, "b", 2);
    static int released;
    released = 0;
    entry->data = &released;
    entry->data_free = [](void *count) { ++*static_cast<int *>(count); };
    hashtbl_reset(table->hashtbl);
    EXPECT_EQ(0, name2id_entry_remove(table, entry));
    EXPECT_EQ(1, released);
    EXPECT_STREQ("b", table->first->name);
    EXPECT_EQ(&table->first, table->first->prev);
    EXPECT_EQ(&table->first->next, table->last);
    name2id_tbl_destory(table);
}

TEST(Name2id, AnEntryWhoseKeyChangedLeavesItsOldChain)
{
    name2id_tbl *table = name2id_tbl_create(8, 0);
    name2id_entry *entry = add2(table, "before", 1, 10);
    add2(table, "other", 1, 11);
    std::strcpy(entry->name, "after");
    entry->id = 77;
    EXPECT_EQ(0, name2id_entry_remove2(table, entry));
    EXPECT_EQ(-1, name2id2(table->hashtbl, "before", 1));
    EXPECT_EQ(std::vector<std::string>{"other"}, names(table));
    name2id_tbl_destory2(table);
}

TEST(Name2idScopes, ScopesAreIndependent)
{
    name2id_tbl *table = name2id_tbl_create2(3, 0);
    add2(table, "eth0", 1, 100);
    name2id_entry *second = add2(table, "eth0", 2, 200);
    EXPECT_EQ(100, name2id2(table->hashtbl, "eth0", 1));
    EXPECT_EQ(200, name2id2(table->hashtbl, "eth0", 2));
    EXPECT_EQ(-1, name2id2(table->hashtbl, "eth0", 3));
    EXPECT_EQ(second, name2id_entry_find2(table->hashtbl, "eth0", 2));
    EXPECT_EQ(name2id_string_hash("eth0", 4) ^ 2U, second->link.hash);
    EXPECT_EQ(0, name2id_entry_remove2(table, second));
    EXPECT_EQ(-1, name2id2(table->hashtbl, "eth0", 2));
    EXPECT_EQ(100, name2id2(table->hashtbl, "eth0", 1));
    name2id_tbl_destory2(table);
}

TEST(Name2id, ComparisonsMatchWholeKeys)
{
    EXPECT_EQ(1, name2id_comp("a", "a"));
    EXPECT_EQ(0, name2id_comp("a", "b"));
    EXPECT_EQ(0, name2id_comp(nullptr, "a"));
    EXPECT_EQ(0, name2id_comp("a", nullptr));
    name2id_entry *entry = name2id_entry_create2("a", 5, 6);
    name2id_key2 same = {"a", 5}, other_scope = {"a", 6}, other_name = {"b", 5}, no_name = {nullptr, 5};
    EXPECT_EQ(1, name2id_comp2(entry->name, &same));
    EXPECT_EQ(0, name2id_comp2(entry->name, &other_scope));
    EXPECT_EQ(0, name2id_comp2(entry->name, &other_name));
    EXPECT_EQ(0, name2id_comp2(entry->name, &no_name));
    EXPECT_EQ(0, name2id_comp2(entry->name, nullptr));
    EXPECT_EQ(0, name2id_comp2(nullptr, &same));
    std::free(entry);
    EXPECT_EQ(qv_string_hash("trust", 5), name2id_string_hash("trust", 5));
}

TEST(Name2id, RandomWorkAgreesWithAMap)
{
    for (unsigned seed = 1; seed <= 3; seed++) {
        support::Random random(seed);
        name2id_tbl *table = name2id_tbl_create2(5, 0);
        std::map<std::pair<std::string, unsigned>, std::vector<name2id_entry *>> model;
        for (std::size_t i = 0, n = support::effort(1000000); i < n; i++) {
            unsigned number = random() % 64, scope = random() % 4;
            std::string name = "n" + std::to_string(number);
            auto &same = model[{name, scope}];
            if (random() % 2 != 0 && same.size() < 3) {
                random.doing("insert: name, scope", number, scope);
                same.push_back(add2(table, name.c_str(), scope, static_cast<unsigned>(i)));
            } else if (!same.empty()) {
                std::size_t which = random() % same.size();
                random.doing("remove: name, scope, which", number, scope, which);
                ASSERT_EQ(0, name2id_entry_remove2(table, same[which]));
                same.erase(same.begin() + static_cast<std::ptrdiff_t>(which));
            }
            ASSERT_EQ(same.empty() ? nullptr : same.back(), name2id_entry_find2(table->hashtbl, name.c_str(), scope));
        }
        names(table);
        name2id_tbl_destory2(table);
    }
}
