// SPDX-License-Identifier: Apache-2.0
// name2id.hpp - name-to-identifier tables for C++ hosts: owned, with results that tell a miss from all ones.
//
//     qv::name_table zones(8);
//     if (zones.insert("trust", 7) == nullptr)
//         ...                                           // no memory
//     if (auto id = zones.find("trust"))
//         ...                                           // *id == 7
#ifndef LIBCOMMON_CXX_NAME2ID_HPP
#define LIBCOMMON_CXX_NAME2ID_HPP

#include "../name2id.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <utility>

namespace qv {

// Names alone. A table that could not be made, or was moved away, converts to false; only insert() may be called on it,
// which fails.
class name_table {
public:
    explicit name_table(unsigned log_size) : table_(name2id_tbl_create(log_size, 0)) {}
    ~name_table() { name2id_tbl_destory(table_); }
    name_table(name_table &&other) noexcept : table_(std::exchange(other.table_, nullptr)) {}
    name_table &operator=(name_table &&other) noexcept
    {
        std::swap(table_, other.table_);
        return *this;
    }

    explicit operator bool() const { return table_ != nullptr; }
    name2id_tbl *get() const { return table_; }

    // The new entry, owned by the table. Null when it is not in the table: without memory, for a null name, or where
    // there is no table.
    name2id_entry *insert(const char *name, std::uint32_t id)
    {
        name2id_entry *entry = name2id_entry_create(name, id);
        if (name2id_entry_insert(table_, entry) == 0)
            return entry;
        std::free(entry);
        return nullptr;
    }

    std::optional<std::uint32_t> find(const char *name) const
    {
        const name2id_entry *entry = name2id_entry_find(table_->hashtbl, name);
        return entry != nullptr ? std::optional(entry->id) : std::nullopt;
    }

    // Removes the newest entry of a name; false when there is none.
    bool erase(const char *name)
    {
        name2id_entry *entry = name2id_entry_find(table_->hashtbl, name);
        return entry != nullptr && name2id_entry_remove(table_, entry) == 0;
    }

private:
    name2id_tbl *table_;
};

} // namespace qv

#endif
