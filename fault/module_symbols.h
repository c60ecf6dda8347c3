// SPDX-License-Identifier: Apache-2.0
// module_symbols.h - the module and the symbol that an address belongs to, found without a lock. Signal-safe.
//
// dladdr() waits for the dynamic loader's lock. A handler cannot: the lock may be held by the interrupted thread, or by
// a thread that waits for it, such as one in a plug-in's constructor. So the module comes from _dl_find_object(), which
// is lock-free, and the symbol from the module's dynamic symbol table, which is read here. The results equal dladdr1().
//
//     fault::symbol_lookup lookup(address);
//     if (lookup.is_found()) {
//         lookup.append_file_name(&text);
//         lookup.append_symbol_name(&text);
//     }
//     if (!lookup.is_current())
//         ... the module was unloaded meanwhile: the texts may be anything
#ifndef LIBCOMMON_FAULT_MODULE_SYMBOLS_H
#define LIBCOMMON_FAULT_MODULE_SYMBOLS_H

#include "fault/safe_memory.h"

#include <cstddef>

namespace qv::fault {

// Builds a text in a caller-provided buffer. Text that does not fit is cut and still counted. Terminated after each
// step if there is any room.
class text_buffer {
public:
    text_buffer(char *to, std::size_t size) : to_(to), size_(size) { clear(); }

    std::size_t length() const { return length_; } // of the whole text
    void clear();
    void append(char c);
    void append(const char *text);
    void append_hex(unsigned long value); // with "0x" unless it is 0
    void append_pointer(unsigned long address);

private:
    char *to_;
    std::size_t size_;
    std::size_t length_ = 0;
};

// True when the address lies in a loaded module's range. False where _dl_find_object() is missing.
bool is_in_module(unsigned long address);

// Distinguishes a module from one that is loaded later at the same place, for a caller that caches a look-up.
struct module_identity {
    unsigned long start = 0, end = 0;
    unsigned long map = 0;       // the loader's record; 0 for no module
    unsigned long file_name = 0; // a hash of it
    bool is_known() const { return map != 0; }
    bool operator==(const module_identity &) const = default;
};

// The module that holds an address of code that is running, which keeps it loaded.
module_identity identify_module(unsigned long address);

class best_symbol;

class symbol_lookup {
public:
    explicit symbol_lookup(unsigned long address);

    // False when no module with a file name holds the address.
    bool is_found() const { return file_name_ != 0; }
    bool has_symbol() const { return symbol_name_ != 0; }
    unsigned long load_bias() const { return module_.load_bias; }
    unsigned long symbol_address() const { return symbol_address_; }

    void append_file_name(text_buffer *text) { append_text(file_name_, text); }
    void append_symbol_name(text_buffer *text) { append_text(symbol_name_, text); }

    // True while the module is still the one that was found first.
    bool is_current() const;

private:
    // The loader's data of a module; `map` identifies it.
    struct module {
        unsigned long start = 0, end = 0; // the range around the address
        unsigned long map = 0;
        unsigned long load_bias = 0;
        unsigned long dynamic = 0;
    };
    // Addresses of the tables within the module, 0 for none.
    struct tables {
        unsigned long symbols = 0, strings = 0, strings_size = 0, hash = 0, gnu_hash = 0;
    };

    static bool find_module(unsigned long address, module *found);
    void look_up();
    void look_up_by_loader();
    bool read_module_record();
    bool read_tables(tables *found);
    void scan_gnu_hash(const tables &table);
    void scan_all(const tables &table);
    void take(const best_symbol &best, const tables &table);
    void append_text(unsigned long from, text_buffer *text);

    unsigned long address_;
    safe_memory memory_{safe_memory::subject::module};
    module module_;
    unsigned long tables_start_ = 0, tables_end_ = 0; // the range of the whole module
    unsigned long file_name_ = 0;
    unsigned long symbol_name_ = 0;
    unsigned long symbol_address_ = 0;
};

} // namespace qv::fault

#endif
