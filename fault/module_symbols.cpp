// SPDX-License-Identifier: Apache-2.0
// dladdr1() without a lock. Nothing that is read here is trusted: another thread may unload the module during the
// look-up, and its former memory may then hold anything. Reads use safe_memory, indexes stay within the module's range,
// and no walk over a table is longer than the range.
#include "fault/module_symbols.h"

#include "fault/find_object.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>

namespace qv::fault {

find_object_function find_object;

namespace {

using symbol = ElfW(Sym);
using hash_word = Elf32_Word;

// What the kernel passed to the program at its start. It lies at the top of the main thread's stack, which a crash may
// have overwritten, so it is read when the library is loaded.
struct {
    char **arguments;
    const ElfW(Phdr) * headers;
    unsigned long header_count;
    unsigned long loader_base; // 0 in a program that was started by calling the loader
    unsigned long page_mask;
} program_start;

[[gnu::constructor]] void save_program_start(int, char **argv)
{
    program_start.arguments = argv;
    program_start.headers = reinterpret_cast<const ElfW(Phdr) *>(::getauxval(AT_PHDR));
    program_start.header_count = ::getauxval(AT_PHNUM);
    program_start.loader_base = ::getauxval(AT_BASE);
    program_start.page_mask = ::getauxval(AT_PAGESZ) - 1;
}

// The loader reads the program's file name from the arguments at each look-up, so a host that replaces the first one
// sees the new one.
unsigned long program_name()
{
    return reinterpret_cast<unsigned long>(program_start.arguments != nullptr ? program_start.arguments[0]
                                                                              : program_invocation_name);
}

// A table that ends at `limit` at the latest, read upwards in pieces of `capacity` elements.
template <typename element, std::size_t capacity>
class table_reader {
public:
    table_reader(safe_memory *memory, unsigned long table, unsigned long limit)
        : memory_(memory), table_(table), most_(limit > table ? (limit - table) / sizeof(element) : 0)
    {}

    // Null when the element cannot be read. Valid up to the next call.
    const element *at(unsigned long index)
    {
        if (index - first_ >= count_ && !fetch(index))
            return nullptr;
        return &elements_[index - first_];
    }

private:
    bool fetch(unsigned long index)
    {
        if (index >= most_)
            return false;
        std::size_t wanted = std::min(most_ - index, capacity) * sizeof(element);
        first_ = index;
        count_ = memory_->copy(table_ + index * sizeof(element), elements_.data(), wanted) / sizeof(element);
        return count_ != 0;
    }

    safe_memory *memory_;
    unsigned long table_;
    unsigned long most_;      // elements up to the limit
    unsigned long first_ = 0; // the piece: its first index and its length
    unsigned long count_ = 0;
    std::array<element, capacity> elements_;
};

using word_reader = table_reader<hash_word, 128>;
using symbol_reader = table_reader<symbol, 32>;

unsigned type_of(const symbol &candidate)
{
    return ELF64_ST_TYPE(candidate.st_info);
}

// Whether a symbol names an address in the module. An undefined function with an address does too: the address is that
// of its entry in the program's linkage table.
bool names_an_address(const symbol &candidate)
{
    return type_of(candidate) != STT_TLS && candidate.st_shndx != SHN_ABS &&
           (candidate.st_shndx != SHN_UNDEF || candidate.st_value != 0);
}

bool covers(const symbol &candidate, unsigned long offset)
{
    if (offset < candidate.st_value)
        return false;
    unsigned long distance = offset - candidate.st_value;
    bool has_no_extent = candidate.st_shndx == SHN_UNDEF || candidate.st_size == 0;
    return distance < candidate.st_size || (has_no_extent && distance == 0);
}

bool is_global(const symbol &candidate)
{
    unsigned binding = ELF64_ST_BIND(candidate.st_info);
    return binding == STB_GLOBAL || binding == STB_WEAK;
}

// The segments of a module that the kernel mapped. They may lie apart, and mappings between them do not belong to the
// module. The loader closes such gaps in the modules that it maps itself.
struct segments {
    unsigned long start = ~0UL, end = 0;
    bool hold_address = false;
};

segments survey(const ElfW(Phdr) * headers, unsigned long count, unsigned long load_bias, unsigned long address)
{
    unsigned long page_mask = program_start.page_mask;
    segments found;
    bool is_contiguous = true, is_inside = false;
    for (unsigned long i = 0; i < count; i++) {
        if (headers[i].p_type != PT_LOAD)
            continue;
        unsigned long start = load_bias + headers[i].p_vaddr;
        if (found.end != 0 && ((found.end + page_mask) & ~page_mask) != (start & ~page_mask))
            is_contiguous = false;
        if (address - start < headers[i].p_memsz)
            is_inside = true;
        found.start = std::min(found.start, start & ~page_mask);
        found.end = start + headers[i].p_memsz;
    }
    found.hold_address = is_inside || (is_contiguous && address >= found.start && address < found.end);
    return found;
}

segments survey_program(unsigned long load_bias, unsigned long address)
{
    return survey(program_start.headers, program_start.header_count, load_bias, address);
}

// Of the loader. Missing, with address 0, in a program that was started by calling the loader.
segments survey_loader(unsigned long address)
{
    unsigned long base = program_start.loader_base;
    if (base == 0)
        return {};
    auto *file = reinterpret_cast<const ElfW(Ehdr) *>(base);
    return survey(reinterpret_cast<const ElfW(Phdr) *>(base + file->e_phoff), file->e_phnum, base, address);
}

// The kernel may map its own module between the loader's segments. Then _dl_find_object() finds the first one only.
unsigned long place_to_find(unsigned long address)
{
    return survey_loader(address).hold_address ? program_start.loader_base : address;
}

} // namespace

// The innermost symbol that covers an address; of several at the same place, the first.
class best_symbol {
public:
    best_symbol(unsigned long offset, unsigned long strings_size) : offset_(offset), strings_size_(strings_size) {}

    void consider(const symbol &candidate)
    {
        if (!names_an_address(candidate) || !covers(candidate, offset_) || candidate.st_name >= strings_size_)
            return;
        if (is_found_ && candidate.st_value <= best_.st_value)
            return;
        is_found_ = true;
        best_ = candidate;
    }

    bool is_found() const { return is_found_; }
    const symbol &get() const { return best_; }

private:
    unsigned long offset_; // from the module's load bias
    unsigned long strings_size_;
    bool is_found_ = false;
    symbol best_ = {};
};

void text_buffer::clear()
{
    length_ = 0;
    if (size_ != 0)
        to_[0] = '\0';
}

void text_buffer::append(char c)
{
    if (length_ + 1 < size_) {
        to_[length_] = c;
        to_[length_ + 1] = '\0';
    }
    length_++;
}

void text_buffer::append(const char *text)
{
    while (*text != '\0')
        append(*text++);
}

void text_buffer::append_hex(unsigned long value)
{
    constexpr int kDigitBits = 4;
    if (value != 0)
        append("0x");
    int shift = 0;
    while (shift < 60 && value >> shift >> kDigitBits != 0)
        shift += kDigitBits;
    for (; shift >= 0; shift -= kDigitBits)
        append("0123456789abcdef"[value >> shift & 0xf]);
}

// As printf() writes it.
void text_buffer::append_pointer(unsigned long address)
{
    if (address == 0)
        append("(nil)");
    else
        append_hex(address);
}

bool is_in_module(unsigned long address)
{
    found_object found;
    return find_object != nullptr && find_object(reinterpret_cast<void *>(address), &found) == 0;
}

module_identity identify_module(unsigned long address)
{
    module_identity result;
    found_object found;
    if (find_object == nullptr || find_object(reinterpret_cast<void *>(address), &found) != 0)
        return result;
    result.start = reinterpret_cast<unsigned long>(found.start);
    result.end = reinterpret_cast<unsigned long>(found.end);
    result.map = reinterpret_cast<unsigned long>(found.map);
    const char *name = found.map != nullptr ? found.map->l_name : nullptr;
    for (; name != nullptr && *name != '\0'; name++)
        result.file_name = result.file_name * 31 + static_cast<unsigned char>(*name);
    return result;
}

symbol_lookup::symbol_lookup(unsigned long address) : address_(address)
{
    base::errno_guard keep;
    if (find_object != nullptr)
        look_up();
    else
        look_up_by_loader();
}

bool symbol_lookup::is_current() const
{
    if (find_object == nullptr)
        return true; // the loader's answer
    module now;
    if (!find_module(address_, &now))
        return module_.map == 0;
    return now.map == module_.map && now.start == module_.start && now.end == module_.end;
}

bool symbol_lookup::find_module(unsigned long address, module *found)
{
    found_object object;
    if (find_object(reinterpret_cast<void *>(place_to_find(address)), &object) != 0)
        return false;
    found->start = reinterpret_cast<unsigned long>(object.start);
    found->end = reinterpret_cast<unsigned long>(object.end);
    found->map = reinterpret_cast<unsigned long>(object.map);
    return true;
}

void symbol_lookup::look_up()
{
    tables table;
    if (!find_module(address_, &module_))
        return;
    if (!read_module_record()) {
        file_name_ = 0;
        return;
    }
    if (!read_tables(&table))
        return;
    if (table.gnu_hash != 0)
        scan_gnu_hash(table);
    else
        scan_all(table);
}

// Systems before glibc 2.35 offer nothing better.
void symbol_lookup::look_up_by_loader()
{
    Dl_info info = {};
    link_map *map = nullptr;
    if (::dladdr1(reinterpret_cast<void *>(address_), &info, reinterpret_cast<void **>(&map), RTLD_DL_LINKMAP) == 0)
        return;
    module_.load_bias = map != nullptr ? map->l_addr : 0;
    file_name_ = reinterpret_cast<unsigned long>(info.dli_fname);
    symbol_name_ = reinterpret_cast<unsigned long>(info.dli_sname);
    symbol_address_ = reinterpret_cast<unsigned long>(info.dli_saddr);
}

// Reads the loader's record of the module; false when the address is not the module's after all. The program is the
// module without a name that comes first. Its segments may be found one by one.
bool symbol_lookup::read_module_record()
{
    link_map map;
    if (memory_.copy(module_.map, &map, sizeof map) != sizeof map)
        return false;
    module_.load_bias = map.l_addr;
    module_.dynamic = reinterpret_cast<unsigned long>(map.l_ld);
    tables_start_ = module_.start;
    tables_end_ = module_.end;
    auto name = reinterpret_cast<unsigned long>(map.l_name);
    char first = '\0';
    if (name == 0 || memory_.copy(name, &first, 1) != 1)
        return false;
    if (first != '\0') {
        file_name_ = name;
        bool is_loader = module_.load_bias != 0 && module_.load_bias == program_start.loader_base;
        return !is_loader || survey_loader(address_).hold_address;
    }
    segments program = survey_program(module_.load_bias, address_);
    if (map.l_prev != nullptr || !program.hold_address)
        return false;
    tables_start_ = program.start;
    tables_end_ = program.end;
    name = program_name();
    if (name != 0 && memory_.copy(name, &first, 1) == 1 && first != '\0')
        file_name_ = name;
    return true;
}

// The loader adds the load bias to the addresses in the section of dynamic tags unless that is read-only, as the
// kernel's own module's is.
bool symbol_lookup::read_tables(tables *found)
{
    table_reader<ElfW(Dyn), 16> tags(&memory_, module_.dynamic, tables_end_);
    auto in_memory = [this](unsigned long address) {
        bool is_relocated = address >= tables_start_ && address < tables_end_;
        return is_relocated ? address : address + module_.load_bias;
    };
    for (unsigned long i = 0; const ElfW(Dyn) *tag = tags.at(i); i++) {
        if (tag->d_tag == DT_NULL)
            break;
        if (tag->d_tag == DT_SYMTAB)
            found->symbols = in_memory(tag->d_un.d_ptr);
        if (tag->d_tag == DT_STRTAB)
            found->strings = in_memory(tag->d_un.d_ptr);
        if (tag->d_tag == DT_STRSZ)
            found->strings_size = tag->d_un.d_val;
        if (tag->d_tag == DT_HASH)
            found->hash = in_memory(tag->d_un.d_ptr);
        if (tag->d_tag == DT_GNU_HASH)
            found->gnu_hash = in_memory(tag->d_un.d_ptr);
    }
    return found->symbols != 0 && found->strings != 0;
}

// Only the symbols that the hash table leads to: it has those that are defined here, chain after chain.
//
//     | buckets | symbol base | bloom words | shift | bloom: 8 bytes each | a word per bucket | a word per symbol |
//
// A bucket holds the index of its first symbol, or 0. The lowest bit of a symbol's word ends the chain.
void symbol_lookup::scan_gnu_hash(const tables &table)
{
    constexpr unsigned long kBloomWord = sizeof(ElfW(Addr));
    struct {
        hash_word buckets, symbol_base, bloom_words, shift;
    } head;
    if (memory_.copy(table.gnu_hash, &head, sizeof head) != sizeof head)
        return;
    unsigned long first_bucket = table.gnu_hash + sizeof head + head.bloom_words * kBloomWord;
    unsigned long chain_start = first_bucket + head.buckets * sizeof(hash_word);
    word_reader buckets(&memory_, first_bucket, tables_end_);
    word_reader chains(&memory_, chain_start, tables_end_);
    symbol_reader symbols(&memory_, table.symbols, tables_end_);
    best_symbol best(address_ - module_.load_bias, table.strings_size);

    unsigned long left = (tables_end_ - tables_start_) / sizeof(symbol);
    for (unsigned long bucket = 0; left != 0 && bucket < head.buckets; bucket++) {
        const hash_word *first = buckets.at(bucket);
        if (first == nullptr)
            break;
        if (*first < head.symbol_base || *first == 0)
            continue;
        for (unsigned long index = *first; left != 0; index++, left--) {
            const symbol *candidate = symbols.at(index);
            const hash_word *chain = chains.at(index - head.symbol_base);
            if (candidate == nullptr || chain == nullptr)
                return; // unloaded
            best.consider(*candidate);
            if ((*chain & 1) != 0)
                break;
        }
    }
    take(best, table);
}

// Without that table: all global symbols, by the count that the older hash table has in its second word. A module
// without either is malformed. Its strings usually follow its symbols.
void symbol_lookup::scan_all(const tables &table)
{
    unsigned long count = table.strings > table.symbols ? (table.strings - table.symbols) / sizeof(symbol) : 0;
    hash_word head[2];
    if (table.hash != 0)
        count = memory_.copy(table.hash, head, sizeof head) == sizeof head ? head[1] : 0;
    symbol_reader symbols(&memory_, table.symbols, tables_end_);
    best_symbol best(address_ - module_.load_bias, table.strings_size);
    for (unsigned long i = 0; i < count; i++) {
        const symbol *candidate = symbols.at(i);
        if (candidate == nullptr)
            break;
        if (is_global(*candidate))
            best.consider(*candidate);
    }
    take(best, table);
}

void symbol_lookup::take(const best_symbol &best, const tables &table)
{
    if (!best.is_found())
        return;
    symbol_name_ = table.strings + best.get().st_name;
    symbol_address_ = module_.load_bias + best.get().st_value;
}

void symbol_lookup::append_text(unsigned long from, text_buffer *text)
{
    constexpr unsigned long kLongest = 1 << 20; // longer than any name; unterminated garbage may reach it
    table_reader<char, 64> characters(&memory_, from, from + kLongest);
    if (from == 0)
        return;
    for (unsigned long i = 0; const char *next = characters.at(i); i++) {
        if (*next == '\0')
            return;
        text->append(*next);
    }
}

} // namespace qv::fault
