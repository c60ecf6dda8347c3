// SPDX-License-Identifier: Apache-2.0
#include "util/exported_variable.h"

#include <cstddef>
#include <cstdint>
#include <link.h>

namespace qv {
namespace {

// What the executable's dynamic section says of its relocations. The ones of the procedure linkage table are not among
// them.
struct relocation_table {
    ElfW(Addr) bias = 0;
    const ElfW(Rela) *first = nullptr;
    std::size_t count = 0;
    const ElfW(Sym) *symbols = nullptr;
};

// The loader adds the bias to the addresses of the section where it may write to it.
template <typename T>
const T *at(ElfW(Addr) address, ElfW(Addr) bias)
{
    return reinterpret_cast<const T *>(address < bias ? address + bias : address);
}

relocation_table read_dynamic_section(const ElfW(Dyn) * entry, ElfW(Addr) bias)
{
    relocation_table table;
    table.bias = bias;
    for (; entry->d_tag != DT_NULL; entry++) {
        if (entry->d_tag == DT_RELA)
            table.first = at<ElfW(Rela)>(entry->d_un.d_ptr, bias);
        else if (entry->d_tag == DT_RELASZ)
            table.count = entry->d_un.d_val / sizeof(ElfW(Rela));
        else if (entry->d_tag == DT_SYMTAB)
            table.symbols = at<ElfW(Sym)>(entry->d_un.d_ptr, bias);
    }
    return table;
}

// Called for the executable, which is the first object, and stops there.
int read_executable(dl_phdr_info *object, std::size_t, void *result)
{
    for (std::size_t i = 0; i < object->dlpi_phnum; i++) {
        const ElfW(Phdr) &segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_DYNAMIC)
            *static_cast<relocation_table *>(result) = read_dynamic_section(
                reinterpret_cast<const ElfW(Dyn) *>(object->dlpi_addr + segment.p_vaddr), object->dlpi_addr);
    }
    return 1;
}

} // namespace

// The type of a copy relocation differs from machine to machine. Any other relocation at a variable of the executable
// stores the address of something else.
bool is_copy_in_executable(const void *address)
{
    relocation_table table;
    dl_iterate_phdr(read_executable, &table);
    if (table.first == nullptr || table.symbols == nullptr)
        return false;
    const auto place = reinterpret_cast<std::uintptr_t>(address) - table.bias;
    for (std::size_t i = 0; i < table.count; i++) {
        const ElfW(Rela) &relocation = table.first[i];
        const std::size_t symbol = ELF64_R_SYM(relocation.r_info);
        if (relocation.r_offset == place && symbol != 0 && table.symbols[symbol].st_value == place)
            return true;
    }
    return false;
}

} // namespace qv
