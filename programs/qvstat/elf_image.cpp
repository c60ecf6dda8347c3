// SPDX-License-Identifier: Apache-2.0
#include "elf_image.h"

#include <algorithm>
#include <cstring>
#include <elf.h>
#include <vector>

namespace qvstat {
namespace {

// Bounds on what a damaged image can make us read.
constexpr unsigned kMaxSegments = 128;
constexpr std::uint64_t kMaxDynamic = 16384; // bytes
constexpr unsigned kMaxChain = 4096;         // symbols with one hash bucket
constexpr std::size_t kMaxName = 64;
constexpr std::uint64_t kMaxNotes = 4096; // bytes of a segment of notes

constexpr std::uint64_t kPage = 4096;

struct image {
    std::uint64_t bias = 0;
    std::vector<Elf64_Phdr> segments;
};

std::optional<image> read_image(const memory_source &memory, std::uint64_t base)
{
    auto header = load<Elf64_Ehdr>(memory, base);
    if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 || header->e_ident[EI_CLASS] != ELFCLASS64 ||
        header->e_phentsize != sizeof(Elf64_Phdr) || header->e_phnum > kMaxSegments)
        return std::nullopt;
    image result;
    result.segments.resize(header->e_phnum);
    if (!memory.read(base + header->e_phoff, result.segments.data(), result.segments.size() * sizeof(Elf64_Phdr)))
        return std::nullopt;
    auto first = std::find_if(result.segments.begin(), result.segments.end(),
                              [](const Elf64_Phdr &segment) { return segment.p_type == PT_LOAD; });
    if (first == result.segments.end())
        return std::nullopt;
    result.bias = base - (first->p_vaddr & ~(kPage - 1));
    return result;
}

// The parts of an image by which its symbols are found.
struct symbol_tables {
    std::uint64_t symbols = 0;
    std::uint64_t strings = 0;
    std::uint64_t hashes = 0; // GNU's hash table
};

std::optional<symbol_tables> read_tables(const memory_source &memory, const image &object)
{
    auto dynamic = std::find_if(object.segments.begin(), object.segments.end(),
                                [](const Elf64_Phdr &segment) { return segment.p_type == PT_DYNAMIC; });
    if (dynamic == object.segments.end())
        return std::nullopt;
    std::vector<Elf64_Dyn> entries(std::min(dynamic->p_memsz, kMaxDynamic) / sizeof(Elf64_Dyn));
    if (!memory.read(object.bias + dynamic->p_vaddr, entries.data(), entries.size() * sizeof(Elf64_Dyn)))
        return std::nullopt;
    symbol_tables tables;
    for (const Elf64_Dyn &entry : entries) {
        // Some loaders add the bias to the section in memory, others leave it alone.
        std::uint64_t address = entry.d_un.d_ptr < object.bias ? entry.d_un.d_ptr + object.bias : entry.d_un.d_ptr;
        if (entry.d_tag == DT_NULL)
            break;
        if (entry.d_tag == DT_SYMTAB)
            tables.symbols = address;
        else if (entry.d_tag == DT_STRTAB)
            tables.strings = address;
        else if (entry.d_tag == DT_GNU_HASH)
            tables.hashes = address;
    }
    if (tables.symbols == 0 || tables.strings == 0 || tables.hashes == 0)
        return std::nullopt;
    return tables;
}

std::uint32_t hash_of(std::string_view name)
{
    std::uint32_t hash = 5381;
    for (char c : name)
        hash = hash * 33 + static_cast<unsigned char>(c);
    return hash;
}

bool has_name(const memory_source &memory, std::uint64_t address, std::string_view name)
{
    char text[kMaxName] = {};
    return name.size() < sizeof text && memory.read(address, text, name.size() + 1) && text[name.size()] == '\0' &&
           name == std::string_view(text, name.size());
}

// GNU's hash table: a header of four numbers, a filter, the first symbol of each bucket, then the hash of each symbol,
// whose lowest bit marks the last one of a bucket.
struct hash_header {
    std::uint32_t bucket_count;
    std::uint32_t first_symbol;
    std::uint32_t filter_words;
    std::uint32_t filter_shift;
};

std::optional<Elf64_Sym> find_symbol(const memory_source &memory, const symbol_tables &tables, std::string_view name)
{
    auto header = load<hash_header>(memory, tables.hashes);
    if (!header || header->bucket_count == 0)
        return std::nullopt;
    std::uint64_t buckets =
        tables.hashes + sizeof(hash_header) + std::uint64_t{header->filter_words} * sizeof(std::uint64_t);
    std::uint64_t hashes = buckets + std::uint64_t{header->bucket_count} * sizeof(std::uint32_t);
    std::uint32_t hash = hash_of(name);
    auto index = load<std::uint32_t>(memory, buckets + hash % header->bucket_count * sizeof(std::uint32_t));
    if (!index || *index < header->first_symbol)
        return std::nullopt;
    for (unsigned i = 0; i < kMaxChain; i++) {
        std::uint64_t number = std::uint64_t{*index} + i;
        auto found = load<std::uint32_t>(memory, hashes + (number - header->first_symbol) * sizeof(std::uint32_t));
        if (!found)
            return std::nullopt;
        if ((*found | 1) == (hash | 1)) {
            auto symbol = load<Elf64_Sym>(memory, tables.symbols + number * sizeof(Elf64_Sym));
            if (symbol && has_name(memory, tables.strings + symbol->st_name, name))
                return symbol;
        }
        if ((*found & 1) != 0)
            break;
    }
    return std::nullopt;
}

// A note's fields are padded to multiples of 4.
std::uint64_t padded(std::uint32_t size)
{
    return (std::uint64_t{size} + 3) & ~std::uint64_t{3};
}

std::optional<std::uint64_t> find_in_notes(const memory_source &memory, std::uint64_t at, std::uint64_t end,
                                           std::string_view owner, std::uint32_t type)
{
    while (at + sizeof(Elf64_Nhdr) <= end) {
        auto note = load<Elf64_Nhdr>(memory, at);
        if (!note)
            return std::nullopt;
        std::uint64_t name = at + sizeof(Elf64_Nhdr);
        std::uint64_t content = name + padded(note->n_namesz);
        if (note->n_type == type && note->n_namesz == owner.size() + 1 && note->n_descsz == sizeof(std::int64_t) &&
            has_name(memory, name, owner)) {
            auto distance = load<std::uint64_t>(memory, content);
            return distance ? std::optional(content + *distance) : std::nullopt;
        }
        at = content + padded(note->n_descsz);
    }
    return std::nullopt;
}

} // namespace

std::optional<std::uint64_t> load_bias(const memory_source &memory, std::uint64_t base)
{
    auto object = read_image(memory, base);
    return object ? std::optional(object->bias) : std::nullopt;
}

std::optional<std::uint64_t> find_variable(const memory_source &memory, std::uint64_t base, std::string_view name)
{
    auto object = read_image(memory, base);
    auto tables = object ? read_tables(memory, *object) : std::nullopt;
    auto symbol = tables ? find_symbol(memory, *tables, name) : std::nullopt;
    if (!symbol || symbol->st_shndx == SHN_UNDEF || ELF64_ST_TYPE(symbol->st_info) != STT_OBJECT)
        return std::nullopt;
    return object->bias + symbol->st_value;
}

std::optional<std::uint64_t> find_noted(const memory_source &memory, std::uint64_t base, std::string_view owner,
                                        std::uint32_t type)
{
    auto object = read_image(memory, base);
    for (const Elf64_Phdr &segment : object ? object->segments : std::vector<Elf64_Phdr>()) {
        if (segment.p_type != PT_NOTE)
            continue;
        std::uint64_t start = object->bias + segment.p_vaddr;
        auto found = find_in_notes(memory, start, start + std::min(segment.p_memsz, kMaxNotes), owner, type);
        if (found)
            return found;
    }
    return std::nullopt;
}

} // namespace qvstat
