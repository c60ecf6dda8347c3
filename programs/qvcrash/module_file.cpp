// SPDX-License-Identifier: Apache-2.0
#include "module_file.h"

#include "demangle.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <filesystem>
#include <gelf.h>
#include <unistd.h>
#include <unordered_map>

using namespace qv;

namespace qvcrash {
namespace {

std::string to_hex(const void *bytes, std::size_t size)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; i++) {
        auto byte = static_cast<const unsigned char *>(bytes)[i];
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string elf_build_id(Elf *elf)
{
    const void *bytes;
    ssize_t size = ::dwelf_elf_gnu_build_id(elf, &bytes);
    return size > 0 ? to_hex(bytes, static_cast<std::size_t>(size)) : std::string();
}

const char *string_attribute(Dwarf_Die *die, unsigned name)
{
    Dwarf_Attribute attribute;
    return ::dwarf_formstring(::dwarf_attr_integrate(die, name, &attribute));
}

bool has_code(Dwarf_Die *die)
{
    return ::dwarf_hasattr(die, DW_AT_low_pc) || ::dwarf_hasattr(die, DW_AT_ranges);
}

// Entries follow one another in the file; a reference backwards would never end.
bool next_sibling(Dwarf_Die *die)
{
    Dwarf_Off offset = ::dwarf_dieoffset(die);
    return ::dwarf_siblingof(die, die) == 0 && ::dwarf_dieoffset(die) > offset;
}

constexpr int kDeepestScope = 256; // what is nested deeper is no program's

// Where a function was declared: its namespace and class are around that entry, not around the one that has its code.
Dwarf_Die declaration_of(Dwarf_Die die)
{
    constexpr int kMostSteps = 4; // from an inlined function to its abstract one, and from there into its class
    for (int step = 0; step < kMostSteps; step++) {
        Dwarf_Attribute attribute;
        Dwarf_Attribute *link = ::dwarf_attr(&die, DW_AT_abstract_origin, &attribute);
        if (link == nullptr)
            link = ::dwarf_attr(&die, DW_AT_specification, &attribute);
        Dwarf_Die target;
        if (link == nullptr || ::dwarf_formref_die(link, &target) == nullptr)
            break;
        die = target;
    }
    return die;
}

// The entries around one in its unit, the outermost first; none if it is not found. An entry's offset lies between
// those of the entry around it and of that one's next sibling.
std::vector<Dwarf_Die> scopes_around(Dwarf_Die *entry)
{
    std::vector<Dwarf_Die> scopes;
    Dwarf_Off wanted = ::dwarf_dieoffset(entry);
    Dwarf_Die scope, die;
    if (::dwarf_diecu(entry, &scope, nullptr, nullptr) == nullptr)
        return scopes;
    for (int depth = 0; depth < kDeepestScope && ::dwarf_child(&scope, &die) == 0; depth++) {
        Dwarf_Die last = die;
        while (::dwarf_dieoffset(&die) <= wanted) {
            last = die;
            if (!next_sibling(&die))
                break;
        }
        if (::dwarf_dieoffset(&last) == wanted)
            return scopes;
        scopes.push_back(last);
        scope = last;
    }
    return {};
}

// The class of a lambda has no name. Its functions besides operator() are what a pointer to the lambda calls.
std::string class_name(Dwarf_Die *type, std::string_view function)
{
    if (const char *name = string_attribute(type, DW_AT_name))
        return name;
    bool is_lambda = function.starts_with("operator()") || function == "_FUN" || function == "__invoke";
    return is_lambda ? "{lambda}" : "{unnamed}";
}

std::string function_name(Dwarf_Die *die, int depth = 0);

bool is_class(Dwarf_Die *die)
{
    int tag = ::dwarf_tag(die);
    return tag == DW_TAG_class_type || tag == DW_TAG_structure_type || tag == DW_TAG_union_type;
}

bool is_external(Dwarf_Die *die)
{
    Dwarf_Attribute attribute;
    bool flag = false;
    return ::dwarf_formflag(::dwarf_attr_integrate(die, DW_AT_external, &attribute), &flag) == 0 && flag;
}

// A function's name with the namespaces, classes and functions around it.
std::string qualified_name(Dwarf_Die *die, const std::string &name, int depth)
{
    Dwarf_Die declaration = declaration_of(*die);
    std::vector<Dwarf_Die> scopes = scopes_around(&declaration);
    auto is_function = [](Dwarf_Die scope) { return ::dwarf_tag(&scope) == DW_TAG_subprogram; };
    auto inner = std::find_if(scopes.rbegin(), scopes.rend(), is_function).base(); // after the innermost function
    std::string text;
    if (inner != scopes.begin()) {
        text = function_name(&inner[-1], depth + 1); // whose entry may lie outside of its class
        text += text.ends_with(')') ? "::" : "()::";
    }
    bool is_member = !text.empty();
    for (auto scope = inner; scope != scopes.end(); ++scope) {
        const char *space = string_attribute(&*scope, DW_AT_name);
        if (is_class(&*scope))
            text += class_name(&*scope, name) + "::";
        else if (::dwarf_tag(&*scope) == DW_TAG_namespace)
            text += (space != nullptr ? space : "(anonymous namespace)") + std::string("::");
        is_member |= is_class(&*scope);
    }
    bool is_of_c = !is_member && is_external(die); // other functions with external linkage have a linkage name
    return is_of_c ? name : text + name;
}

// Compilers leave out the linkage name of a function that no other file can call, such as a lambda in an anonymous
// namespace. The plain name alone may be "operator()".
std::string function_name(Dwarf_Die *die, int depth)
{
    constexpr int kDeepestFunction = 8; // functions in classes in functions
    for (unsigned name : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name}) {
        if (const char *text = string_attribute(die, name))
            return demangle(text);
    }
    const char *name = string_attribute(die, DW_AT_name);
    if (name == nullptr)
        return {};
    return depth == kDeepestFunction ? name : qualified_name(die, name, depth);
}

// Adds the functions around an address within a scope, the outermost first; false if there are none. Namespaces and
// classes have no addresses themselves: clang defines functions in them, where dwarf_getscopes() does not look.
bool add_functions(Dwarf_Die *scope, Dwarf_Addr address, int depth, std::vector<Dwarf_Die> *chain)
{
    Dwarf_Die die;
    if (depth == kDeepestScope || ::dwarf_child(scope, &die) != 0)
        return false;
    do {
        bool is_around = has_code(&die);
        if (is_around && ::dwarf_haspc(&die, address) != 1)
            continue;
        int tag = ::dwarf_tag(&die);
        if (is_around && tag == DW_TAG_subprogram)
            chain->assign(1, die);
        else if (is_around && tag == DW_TAG_inlined_subroutine)
            chain->push_back(die);
        if (add_functions(&die, address, depth + 1, chain) || is_around)
            return true;
    } while (next_sibling(&die));
    return false;
}

// The functions around an address in a compilation unit, the innermost inlined one first.
std::vector<Dwarf_Die> function_chain(Dwarf_Die *unit, Dwarf_Addr address)
{
    std::vector<Dwarf_Die> chain;
    add_functions(unit, address, 0, &chain);
    std::reverse(chain.begin(), chain.end());
    return chain;
}

// A line table may name files relative to the folder that the compiler ran in.
std::string full_path(Dwarf_Die *unit, const char *name)
{
    std::filesystem::path path = name;
    Dwarf_Attribute attribute;
    const char *folder = ::dwarf_formstring(::dwarf_attr(unit, DW_AT_comp_dir, &attribute));
    if (path.is_relative() && folder != nullptr)
        path = folder / path;
    return path.lexically_normal().string();
}

// Where an inlined function was called.
void set_call_site(Dwarf_Die *unit, Dwarf_Die *inlined, source_frame *frame)
{
    Dwarf_Attribute attribute;
    Dwarf_Word number;
    Dwarf_Files *files;
    std::size_t count;
    if (::dwarf_formudata(::dwarf_attr(inlined, DW_AT_call_line, &attribute), &number) == 0)
        frame->line = static_cast<int>(number);
    if (::dwarf_formudata(::dwarf_attr(inlined, DW_AT_call_file, &attribute), &number) == 0 &&
        ::dwarf_getsrcfiles(unit, &files, &count) == 0 && number < count) {
        if (const char *name = ::dwarf_filesrc(files, number, nullptr, nullptr))
            frame->file = full_path(unit, name);
    }
}

// ---- calls, by their encoding ----

constexpr std::size_t kLongestCall = 7;

bool ends_in_call_aarch64(const unsigned char *end)
{
    std::uint32_t word;
    std::memcpy(&word, end - sizeof word, sizeof word);
    bool is_bl = (word & 0xFC000000u) == 0x94000000u;
    bool is_blr = (word & 0xFEFFF800u) == 0xD63F0800u || (word & 0xFFFFFC1Fu) == 0xD63F0000u; // signed, plain
    return is_bl || is_blr;
}

bool ends_in_call_x86_64(const unsigned char *end, std::size_t size)
{
    if (size >= 5 && end[-5] == 0xE8)
        return true;
    // FF /2: the ModRM byte says how many bytes of address follow.
    for (std::size_t length = 2; length <= std::min(size, kLongestCall); length++) {
        if (end[-static_cast<std::ptrdiff_t>(length)] != 0xFF)
            continue;
        unsigned char modrm = end[1 - static_cast<std::ptrdiff_t>(length)];
        if ((modrm >> 3 & 7) != 2)
            continue;
        unsigned mode = modrm >> 6, base = modrm & 7;
        std::size_t need = 2;
        if (mode != 3 && base == 4)
            need++; // a SIB byte
        if (mode == 1)
            need++;
        else if (mode == 2 || (mode == 0 && base == 5))
            need += 4;
        if (need == length)
            return true;
    }
    return false;
}

// ---- returns ----

constexpr std::size_t kLongestReturn = 4;

bool is_return_aarch64(const unsigned char *code)
{
    std::uint32_t word;
    std::memcpy(&word, code, sizeof word);
    bool is_signed = word == 0xD65F0BFFu || word == 0xD65F0FFFu; // retaa, retab
    return is_signed || (word & 0xFFFFFC1Fu) == 0xD65F0000u;
}

bool is_return_x86_64(const unsigned char *code)
{
    constexpr unsigned char kRepeat = 0xF3; // a prefix that older processors predict better
    return code[0] == 0xC3 || code[0] == 0xC2 || (code[0] == kRepeat && code[1] == 0xC3);
}

class dwfl_module final : public module_file {
public:
    dwfl_module(std::string path, debug_finder *finder) : path_(std::move(path)), finder_(finder) {}

    ~dwfl_module() override { ::dwfl_end(session_); }

    dwfl_module(const dwfl_module &) = delete;
    dwfl_module &operator=(const dwfl_module &) = delete;

    bool load(base::unique_fd file)
    {
        session_ = ::dwfl_begin(&kCallbacks);
        if (session_ == nullptr)
            return false;
        int fd = file.get();
        module_ = ::dwfl_report_elf(session_, path_.c_str(), path_.c_str(), fd, 0, true);
        if (module_ == nullptr)
            return false;
        file.release(); // the session's from here on
        ::dwfl_report_end(session_, nullptr, nullptr);
        void **user_data;
        ::dwfl_module_info(module_, &user_data, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        *user_data = this;
        elf_ = ::dwfl_module_getelf(module_, &bias_);
        if (elf_ == nullptr)
            return false;
        build_id_ = elf_build_id(elf_);
        read_header();
        return true;
    }

    machine built_for() const override { return machine_; }
    const std::string &build_id() const override { return build_id_; }
    std::uint64_t image_start() const override { return std::min(image_start_, image_end_); }
    std::uint64_t image_end() const override { return image_end_; }

    bool has_lines() const override
    {
        Dwarf_Addr bias;
        return ::dwfl_module_getdwarf(module_, &bias) != nullptr;
    }

    std::vector<source_frame> look_up(std::uint64_t address) override
    {
        std::vector<source_frame> frames = look_up_lines(address);
        std::string symbol = symbol_at(address);
        if (frames.empty() && !symbol.empty())
            frames.emplace_back();
        if (!frames.empty() && (frames.back().function.empty() || is_longer_name(symbol, frames.back().function)))
            frames.back().function = symbol;
        return frames;
    }

    std::vector<std::uint64_t> symbol_addresses(const std::string &name) override
    {
        if (symbols_.empty())
            read_symbols();
        std::vector<std::uint64_t> addresses;
        auto [begin, end] = symbols_.equal_range(name);
        for (auto entry = begin; entry != end; ++entry)
            addresses.push_back(entry->second);
        return addresses;
    }

    bool is_code(std::uint64_t address) override
    {
        return std::any_of(code_.begin(), code_.end(), [&](const segment &s) { return s.contains(address); });
    }

    std::optional<bool> follows_call(std::uint64_t address) override
    {
        for (const segment &s : code_) {
            if (address <= s.start || address > s.end)
                continue;
            std::size_t size = std::min<std::uint64_t>(kLongestCall + 1, address - s.start);
            const unsigned char *code = read_code(s, address - size, size);
            if (code == nullptr)
                return {};
            const unsigned char *end = code + size;
            if (machine_ == machine::aarch64)
                return address % 4 == 0 && size >= 4 && ends_in_call_aarch64(end);
            if (machine_ == machine::x86_64)
                return ends_in_call_x86_64(end, size);
            return {};
        }
        return false;
    }

    std::optional<bool> is_return(std::uint64_t address) override
    {
        for (const segment &s : code_) {
            if (address < s.start || address > s.end || s.end - address < kLongestReturn)
                continue;
            const unsigned char *code = read_code(s, address, kLongestReturn);
            if (code == nullptr || machine_ == machine::unknown)
                return {};
            return machine_ == machine::aarch64 ? is_return_aarch64(code) : is_return_x86_64(code);
        }
        return {};
    }

    bool is_function_start(std::uint64_t address) override
    {
        GElf_Off offset;
        GElf_Sym symbol;
        const char *name = ::dwfl_module_addrinfo(module_, address, &offset, &symbol, nullptr, nullptr, nullptr);
        return name != nullptr && is_function(symbol) && offset == 0;
    }

    std::optional<bool> keeps_link_register(std::uint64_t address) override
    {
        Dwarf_Addr bias;
        Dwarf_CFI *unwinding = machine_ == machine::aarch64 ? ::dwfl_module_eh_cfi(module_, &bias) : nullptr;
        Dwarf_Frame *frame = nullptr;
        if (unwinding == nullptr || ::dwarf_cfi_addrframe(unwinding, address - bias, &frame) != 0)
            return {};
        Dwarf_Op room[3];
        Dwarf_Op *rule;
        std::size_t count;
        bool is_known = ::dwarf_frame_register(frame, kLinkRegister, room, &rule, &count) == 0;
        std::free(frame);
        if (!is_known)
            return {};
        return count == 0; // neither saved in memory nor moved
    }

private:
    static constexpr int kLinkRegister = 30;

    struct segment {
        std::uint64_t start, end, offset;
        bool contains(std::uint64_t address) const { return address >= start && address < end; }
    };

    // Null when the file ends before, or is a separate debug file, which has no code.
    const unsigned char *read_code(const segment &s, std::uint64_t address, std::size_t size)
    {
        if (is_without_code_)
            return nullptr;
        auto offset = static_cast<int64_t>(s.offset + (address - s.start));
        Elf_Data *data = ::elf_getdata_rawchunk(elf_, offset, size, ELF_T_BYTE);
        return data != nullptr && data->d_size >= size ? static_cast<const unsigned char *>(data->d_buf) : nullptr;
    }

    static int find_no_elf(Dwfl_Module *, void **, const char *, Dwarf_Addr, char **, Elf **) { return -1; }

    static int find_debug_file(Dwfl_Module *module, void **user_data, const char *, Dwarf_Addr, const char *,
                               const char *link, GElf_Word crc, char **)
    {
        (void)module;
        auto self = static_cast<dwfl_module *>(*user_data);
        if (self == nullptr || self->finder_ == nullptr)
            return -1;
        return self->finder_->find({self->build_id_, link != nullptr ? link : "", crc, self->path_}).release();
    }

    static constexpr Dwfl_Callbacks kCallbacks = {find_no_elf, find_debug_file, ::dwfl_offline_section_address,
                                                  nullptr};

    void read_header()
    {
        GElf_Ehdr header;
        if (::gelf_getehdr(elf_, &header) != nullptr)
            machine_ = header.e_machine == EM_AARCH64  ? machine::aarch64
                       : header.e_machine == EM_X86_64 ? machine::x86_64
                                                       : machine::unknown;
        is_without_code_ = lacks_code(elf_);
        std::size_t count = 0;
        ::elf_getphdrnum(elf_, &count);
        for (std::size_t i = 0; i < count; i++) {
            GElf_Phdr program;
            if (::gelf_getphdr(elf_, static_cast<int>(i), &program) == nullptr || program.p_type != PT_LOAD)
                continue;
            image_start_ = std::min(image_start_, program.p_vaddr);
            image_end_ = std::max(image_end_, program.p_vaddr + program.p_memsz);
            std::uint64_t size = is_without_code_ ? program.p_memsz : program.p_filesz;
            if ((program.p_flags & PF_X) != 0)
                code_.push_back({program.p_vaddr, program.p_vaddr + size, program.p_offset});
        }
    }

    // A separate debug file keeps the headers of the sections that it leaves out.
    static bool lacks_code(Elf *elf)
    {
        for (Elf_Scn *section = nullptr; (section = ::elf_nextscn(elf, section)) != nullptr;) {
            GElf_Shdr header;
            if (::gelf_getshdr(section, &header) != nullptr && header.sh_type == SHT_NOBITS &&
                (header.sh_flags & SHF_EXECINSTR) != 0)
                return true;
        }
        return false;
    }

    // Units without an address table, as clang makes them, are asked one by one.
    Dwarf_Die *find_unit(Dwarf_Addr address, Dwarf_Addr *bias)
    {
        if (Dwarf_Die *unit = ::dwfl_module_addrdie(module_, address, bias))
            return unit;
        Dwarf_Die *unit = nullptr;
        while ((unit = ::dwfl_module_nextcu(module_, unit, bias)) != nullptr) {
            if (::dwarf_haspc(unit, address - *bias) == 1)
                return unit;
        }
        return nullptr;
    }

    std::vector<source_frame> look_up_lines(std::uint64_t address)
    {
        std::vector<source_frame> frames;
        Dwarf_Addr bias;
        Dwarf_Die *unit = find_unit(address, &bias);
        if (unit == nullptr)
            return frames;
        source_frame frame;
        if (Dwarf_Line *line = ::dwarf_getsrc_die(unit, address - bias)) {
            if (const char *file = ::dwarf_linesrc(line, nullptr, nullptr))
                frame.file = full_path(unit, file);
            ::dwarf_lineno(line, &frame.line);
        }
        // The line belongs to the innermost function, each call site to the function around it.
        for (Dwarf_Die &die : function_chain(unit, address - bias)) {
            frame.function = function_name(&die);
            frame.is_inlined = ::dwarf_tag(&die) == DW_TAG_inlined_subroutine;
            frames.push_back(frame);
            frame = source_frame();
            set_call_site(unit, &die, &frame);
        }
        if (frames.empty() && !frame.file.empty())
            frames.push_back(frame);
        return frames;
    }

    // Symbols without a size are the linker's marks and name no function.
    static bool is_function(const GElf_Sym &symbol)
    {
        auto type = GELF_ST_TYPE(symbol.st_info);
        return (type == STT_FUNC || type == STT_GNU_IFUNC) && symbol.st_size != 0 && symbol.st_shndx != SHN_UNDEF;
    }

    // Debug information that has lines only names functions without their classes and namespaces.
    static bool is_longer_name(const std::string &symbol, const std::string &function)
    {
        return function.find("::") == std::string::npos &&
               symbol.find("::" + function.substr(0, function.find('<'))) != std::string::npos;
    }

    std::string symbol_at(std::uint64_t address)
    {
        GElf_Off offset;
        GElf_Sym symbol;
        const char *name = ::dwfl_module_addrinfo(module_, address, &offset, &symbol, nullptr, nullptr, nullptr);
        if (name == nullptr || !is_function(symbol) || offset >= symbol.st_size)
            return {};
        return demangle(name);
    }

    // What the loader can name: global symbols that are defined here.
    void read_symbols()
    {
        int count = ::dwfl_module_getsymtab(module_);
        for (int i = 0; i < count; i++) {
            GElf_Sym symbol;
            GElf_Addr address;
            const char *name = ::dwfl_module_getsym_info(module_, i, &symbol, &address, nullptr, nullptr, nullptr);
            if (name == nullptr || symbol.st_shndx == SHN_UNDEF || GELF_ST_BIND(symbol.st_info) == STB_LOCAL)
                continue;
            std::string plain = name;
            symbols_.emplace(plain.substr(0, plain.find('@')), address); // the static table has versions in its names
        }
    }

    std::string path_;
    debug_finder *finder_;
    Dwfl *session_ = nullptr;
    Dwfl_Module *module_ = nullptr;
    Elf *elf_ = nullptr;
    GElf_Addr bias_ = 0;
    machine machine_ = machine::unknown;
    std::string build_id_;
    std::uint64_t image_start_ = UINT64_MAX; // until a segment was read
    std::uint64_t image_end_ = 0;
    std::vector<segment> code_;
    bool is_without_code_ = false;
    std::unordered_multimap<std::string, std::uint64_t> symbols_;
};

} // namespace

std::unique_ptr<module_file> module_file::open(base::unique_fd file, const std::string &path, debug_finder *finder)
{
    auto result = std::make_unique<dwfl_module>(path, finder);
    if (!result->load(std::move(file)))
        return nullptr;
    return result;
}

std::string build_id_of(const base::unique_fd &file)
{
    ::elf_version(EV_CURRENT);
    Elf *elf = ::elf_begin(file.get(), ELF_C_READ_MMAP, nullptr);
    std::string id = elf != nullptr ? elf_build_id(elf) : std::string();
    ::elf_end(elf);
    return id;
}

} // namespace qvcrash
