// SPDX-License-Identifier: Apache-2.0
// name2id.hpp - name-to-identifier tables for C++ hosts: owned, with results that distinguish a miss from all ones.
//
//     qv::name_table zones(8);
//     if (zones.insert("trust", 7) == nullptr)
//         ...                                           // no memory
//     if (auto id = zones.find("trust"))
//         ...                                           // *id == 7
#ifndef LIBCOMMON_CXX_NAME2ID_HPP
#define LIBCOMMON_CXX_NAME2ID_HPP

#include "../name2id.h"
#include "owner.hpp"

#include <cstdint>
#include <cstdlib>
#include <optional>

namespace qv {

// Names alone. A table that could not be made, or was moved away, converts to false; only insert() may be called on it,
// which fails.
class name_table : public detail::owner<name2id_tbl, name2id_tbl_destory> {
public:
    explicit name_table(unsigned log_size) : owner(name2id_tbl_create(log_size, 0)) {}

    // Returns the new entry, which the table owns, or null: without memory, for a null name, or without a table.
    name2id_entry *insert(const char *name, std::uint32_t id)
    {
        name2id_entry *entry = name2id_entry_create(name, id);
        if (name2id_entry_insert(get(), entry) == 0)
            return entry;
        std::free(entry);
        return nullptr;
    }

    std::optional<std::uint32_t> find(const char *name) const
    {
        const name2id_entry *entry = name2id_entry_find(get()->hashtbl, name);
        return entry != nullptr ? std::optional(entry->id) : std::nullopt;
    }

    // Removes the newest entry of a name; false when there is none.
    bool erase(const char *name)
    {
        name2id_entry *entry = name2id_entry_find(get()->hashtbl, name);
        return entry != nullptr && name2id_entry_remove(get(), entry) == 0;
    }
};

} // namespace qv

#endif
