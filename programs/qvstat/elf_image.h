// SPDX-License-Identifier: Apache-2.0
// elf_image.h - a loaded object file, read from the memory of its process. The file itself may be gone or replaced.
#ifndef QVSTAT_ELF_IMAGE_H
#define QVSTAT_ELF_IMAGE_H

#include "memory_source.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace qvstat {

/** What is added to a file's own addresses. @param base  where the file's first page is mapped */
std::optional<std::uint64_t> load_bias(const memory_source &memory, std::uint64_t base);

/** The address of a variable that the object at `base` exports; nothing when it has none of this name. */
std::optional<std::uint64_t> find_variable(const memory_source &memory, std::uint64_t base, std::string_view name);

/** What the owner's note of this type in the object at `base` refers to, by its distance from the note's content. */
std::optional<std::uint64_t> find_noted(const memory_source &memory, std::uint64_t base, std::string_view owner,
                                        std::uint32_t type);

} // namespace qvstat

#endif
