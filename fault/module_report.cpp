// SPDX-License-Identifier: Apache-2.0
// The modules come from the mapping list, not from the loader. The loader's list changes under a lock, and its name of
// the program is what the program was started as. Bias, size and build id are read from the ELF header in memory, which
// may be unmapped at any moment.
#include "fault/module_report.h"

#include "base/errno_guard.h"
#include "base/unique_fd.h"
#include "fault/line_reader.h"
#include "fault/safe_memory.h"
#include "signal_printf.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <link.h>

namespace qv::fault {
namespace {

constexpr std::size_t kMaxPath = 512;
constexpr std::size_t kKeptPath = 96; // of an unloaded module
constexpr std::size_t kMaxNoted = 64;
constexpr std::size_t kBuildIdSize = 20; // SHA-1; longer ones are cut
constexpr std::size_t kMaxHeaders = 32;
constexpr std::size_t kMaxNotes = 1024;

struct module {
    unsigned long start = 0; // of its first mapping
    unsigned long end = 0;
    unsigned long bias = 0;
    std::uint8_t build_id[kBuildIdSize] = {};
    std::uint8_t build_id_size = 0;
    char path[kMaxPath] = {};
};

// A note's fields are padded to multiples of 4.
constexpr std::size_t padded(std::size_t size)
{
    return (size + 3) & ~std::size_t{3};
}

// Cuts `text` to the room, terminated. The buffer is zeroed.
template <std::size_t size>
void copy_text(char (&to)[size], const char *text)
{
    std::memcpy(to, text, ::strnlen(text, size - 1));
}

class header_reader {
public:
    // False when there is no ELF header at the module's start.
    bool read(module *m)
    {
        ElfW(Ehdr) header;
        if (memory_.copy(m->start, &header, sizeof header) != sizeof header ||
            std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
            return false;
        std::size_t count = std::min<std::size_t>(header.e_phnum, kMaxHeaders);
        bool has_bias = false;
        for (std::size_t i = 0; i < count; i++) {
            ElfW(Phdr) program;
            unsigned long at = m->start + header.e_phoff + i * sizeof program;
            if (memory_.copy(at, &program, sizeof program) != sizeof program)
                break;
            if (program.p_type == PT_LOAD) {
                if (!has_bias)
                    m->bias = m->start - (program.p_vaddr - program.p_offset);
                has_bias = true;
                m->end = std::max(m->end, m->bias + program.p_vaddr + program.p_memsz);
            }
            if (program.p_type == PT_NOTE && m->build_id_size == 0)
                read_build_id(m->start + program.p_offset, program.p_filesz, m);
        }
        return has_bias;
    }

private:
    void read_build_id(unsigned long notes, std::size_t size, module *m)
    {
        constexpr char kOwner[] = "GNU";
        alignas(ElfW(Nhdr)) unsigned char bytes[kMaxNotes];
        size = memory_.copy(notes, bytes, std::min(size, sizeof bytes));
        for (std::size_t at = 0; at + sizeof(ElfW(Nhdr)) <= size;) {
            ElfW(Nhdr) note;
            std::memcpy(&note, bytes + at, sizeof note);
            std::size_t owner = at + sizeof note;
            std::size_t content = owner + padded(note.n_namesz);
            if (content > size || note.n_descsz > size - content)
                return;
            if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof kOwner &&
                std::memcmp(bytes + owner, kOwner, sizeof kOwner) == 0) {
                m->build_id_size = static_cast<std::uint8_t>(std::min<std::size_t>(note.n_descsz, kBuildIdSize));
                std::memcpy(m->build_id, bytes + content, m->build_id_size);
                return;
            }
            at = content + padded(note.n_descsz);
        }
    }

    safe_memory memory_{safe_memory::subject::module};
};

// The path of a mapping line: the rest of it from the first '/', since the other fields have none.
const char *path_of(const fault::mapping_line &mapping)
{
    const char *path = std::strchr(mapping.permissions, '/');
    return path != nullptr ? path : "";
}

// "r-xp 00000000 ...": whether the mapping is of the file's first byte.
bool is_file_start(const fault::mapping_line &mapping)
{
    const char *offset = std::strchr(mapping.permissions, ' ');
    return offset != nullptr && std::strncmp(offset, " 00000000 ", 10) == 0;
}

// Calls `visit` for each file that is mapped from its start and has code.
template <typename Visit>
void for_each_module(Visit visit)
{
    base::unique_fd fd(::open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
    if (!fd)
        return;
    fault::hfgets_state reader = {};
    reader.fd = fd.get();
    char line[fault::kLineSize];
    module current;
    header_reader headers;
    while (fault::hfgets(line, &reader) != nullptr) {
        fault::mapping_line mapping;
        if (!fault::parse_mapping(line, &mapping))
            continue;
        const char *path = path_of(mapping);
        if (*path != '\0' && is_file_start(mapping)) {
            current = module();
            current.start = mapping.start;
            copy_text(current.path, path);
        }
        bool is_code =
            mapping.permissions[0] != '\0' && mapping.permissions[1] != '\0' && mapping.permissions[2] == 'x';
        if (!is_code || current.start == 0 || std::strncmp(current.path, path, kMaxPath - 1) != 0)
            continue;
        if (headers.read(&current))
            visit(current);
        current.start = 0;
    }
}

// Two hexadecimal digits a byte; "-" for no build id.
void format_build_id(const std::uint8_t *id, std::size_t size, char *text)
{
    constexpr char kDigits[] = "0123456789abcdef";
    if (size == 0)
        *text++ = '-';
    for (std::size_t i = 0; i < size; i++) {
        *text++ = kDigits[id[i] >> 4];
        *text++ = kDigits[id[i] & 15];
    }
    *text = '\0';
}

// ---- modules that were noted ----

struct noted_module {
    unsigned long bias = 0;
    unsigned long end = 0; // 0 for a free entry
    std::uint8_t build_id[kBuildIdSize] = {};
    std::uint8_t build_id_size = 0;
    bool is_loaded = false; // as of the report that is being written
    char path[kKeptPath] = {};
};

// Protected by `is_noting`, which is only tried: a handler that interrupts a change omits the unloaded modules.
std::array<noted_module, kMaxNoted> noted;
std::size_t next_noted; // the oldest entry, replaced next
std::atomic_flag is_noting;

bool is_same(const noted_module &known, const module &m)
{
    return known.bias == m.bias && known.end == m.end && std::strncmp(known.path, m.path, kKeptPath - 1) == 0;
}

noted_module *find_noted(const module &m)
{
    auto found =
        std::find_if(noted.begin(), noted.end(), [&m](const noted_module &known) { return is_same(known, m); });
    return found != noted.end() ? &*found : nullptr;
}

void note(const module &m)
{
    if (find_noted(m) != nullptr)
        return;
    noted_module &entry = noted[next_noted++ % kMaxNoted];
    entry = {};
    entry.bias = m.bias;
    entry.end = m.end;
    entry.build_id_size = m.build_id_size;
    std::memcpy(entry.build_id, m.build_id, kBuildIdSize);
    copy_text(entry.path, m.path);
}

void report_module(int fd, const char *title, unsigned long bias, unsigned long end, const char *build_id,
                   const char *path)
{
    signal_printf(fd, "%s %016lx %016lx %s %s\n", title, bias, end, build_id, path);
}

} // namespace

void note_modules()
{
    base::errno_guard keep;
    if (is_noting.test_and_set(std::memory_order_acquire))
        return;
    for_each_module(note);
    is_noting.clear(std::memory_order_release);
}

void report_modules(int fd)
{
    bool has_notes = !is_noting.test_and_set(std::memory_order_acquire);
    if (has_notes) {
        for (noted_module &known : noted)
            known.is_loaded = false;
    }
    char id[2 * kBuildIdSize + 1];
    for_each_module([&](const module &m) {
        format_build_id(m.build_id, m.build_id_size, id);
        report_module(fd, "module :", m.bias, m.end, id, m.path);
        if (noted_module *known = has_notes ? find_noted(m) : nullptr)
            known->is_loaded = true;
    });
    if (!has_notes)
        return;
    for (const noted_module &known : noted) {
        if (known.end == 0 || known.is_loaded)
            continue;
        format_build_id(known.build_id, known.build_id_size, id);
        report_module(fd, "gone   :", known.bias, known.end, id, known.path);
    }
    is_noting.clear(std::memory_order_release);
}

} // namespace qv::fault
