// SPDX-License-Identifier: Apache-2.0
// Names of addresses, compared with those of the loader, and look-ups while the loader is busy or unloads the module.
#include "backtrace.h"
#include "fault/crash_support.h"
#include "support/machine.h"

#include <atomic>
#include <climits>
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/mman.h>

using namespace support;
using namespace crash;

namespace {

using Addresses = std::vector<unsigned long>;

constexpr int kFrames = 20;

unsigned long at(const void *p)
{
    return reinterpret_cast<unsigned long>(p);
}

// The texts of a backtrace section for synthetic frame records with these return addresses.
std::vector<std::string> texts_of(const Addresses &addresses)
{
    procps_read_maps();
    std::vector<std::string> texts;
    int file = ::memfd_create("section", 0);
    for (std::size_t first = 0; first < addresses.size(); first += kFrames) {
        std::size_t count = std::min<std::size_t>(kFrames, addresses.size() - first);
        unsigned long records[kFrames + 1][2] = {};
        for (std::size_t i = 0; i < count; i++) {
            records[i][0] = at(&records[i + 1]);
            records[i][1] = addresses[first + i];
        }
        ucontext_t context;
        std::memset(&context, 0, sizeof context);
        support::set_frame_pointer(context, at(records));
        support::set_program_counter(context, 1); // not a code address
        crash_record rec = {};
        rec.uctx = &context;
        coredump_backtrace_to_file(file, &rec);
    }
    std::string all(static_cast<std::size_t>(::lseek(file, 0, SEEK_CUR)), '\0');
    EXPECT_EQ(::pread(file, all.data(), all.size(), 0), static_cast<ssize_t>(all.size()));
    ::close(file);
    for (const std::string &line : lines(all)) {
        std::size_t arrow = line.find("> -> ");
        if (arrow != std::string::npos)
            texts.push_back(line.substr(arrow + 5));
    }
    return texts;
}

// The text that the loader's answer requires.
std::string expected_text(unsigned long addr)
{
    Dl_info info = {};
    link_map *map = nullptr;
    char text[1024];
    auto *pointer = reinterpret_cast<void *>(addr);
    if (::dladdr1(pointer, &info, reinterpret_cast<void **>(&map), RTLD_DL_LINKMAP) == 0 || info.dli_fname == nullptr ||
        info.dli_fname[0] == '\0') {
        std::snprintf(text, sizeof text, "%p", pointer);
        return text;
    }
    unsigned long base = info.dli_sname != nullptr ? at(info.dli_saddr) : map->l_addr;
    if (info.dli_sname == nullptr && base == 0)
        std::snprintf(text, sizeof text, "%s() [%p]", info.dli_fname, pointer);
    else
        std::snprintf(text, sizeof text, "%s(%s%c%#tx) [%p]", info.dli_fname,
                      info.dli_sname != nullptr ? info.dli_sname : "", addr < base ? '-' : '+',
                      static_cast<std::ptrdiff_t>(addr < base ? base - addr : addr - base), pointer);
    return text;
}

std::string expected_name(unsigned long addr)
{
    Dl_info info = {};
    char text[4096];
    auto *pointer = reinterpret_cast<void *>(addr);
    if (::dladdr(pointer, &info) != 0 && info.dli_sname != nullptr)
        std::snprintf(text, sizeof text, "%s@%p", info.dli_sname, pointer);
    else
        std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

void expect_loaders_answers(Addresses addresses)
{
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    std::vector<std::string> texts = texts_of(addresses);
    ASSERT_EQ(texts.size(), addresses.size());
    std::size_t named = 0;
    for (std::size_t i = 0; i < addresses.size(); i++) {
        ASSERT_EQ(expected_text(addresses[i]), texts[i]) << i;
        named += texts[i].find("()") == std::string::npos && texts[i].find("(+") == std::string::npos ? 1 : 0;
        if (i % 16 != 0 || addresses[i] == 0)
            continue;
        char name[4096];
        std::string wanted = expected_name(addresses[i]);
        ASSERT_EQ(get_function_name_by_ptr(reinterpret_cast<void *>(addresses[i]), name, sizeof name),
                  static_cast<int>(wanted.size()));
        ASSERT_EQ(std::string(name), wanted);
    }
    ::printf("%zu addresses, %zu named\n", addresses.size(), named);
}

// A module as dl_iterate_phdr() reports it.
struct Module {
    std::string name;
    unsigned long bias;
    std::vector<ElfW(Phdr)> headers;
};

std::vector<Module> modules()
{
    std::vector<Module> all;
    ::dl_iterate_phdr(
        [](dl_phdr_info *info, std::size_t, void *to) {
            static_cast<std::vector<Module> *>(to)->push_back(
                {info->dlpi_name, info->dlpi_addr, {info->dlpi_phdr, info->dlpi_phdr + info->dlpi_phnum}});
            return 0;
        },
        &all);
    return all;
}

// The addresses on both sides of each bound of the module's segments and of their pages, and some in between.
void add_grid(const Module &module, std::size_t steps, Addresses *to)
{
    for (const ElfW(Phdr) & header : module.headers) {
        if (header.p_type != PT_LOAD)
            continue;
        unsigned long start = module.bias + header.p_vaddr, end = start + header.p_memsz;
        for (unsigned long edge : {start, end, start & ~0xfffUL, (end + 0xfff) & ~0xfffUL, (end + 0x1fff) & ~0xfffUL}) {
            for (unsigned long addr = edge - 2; addr != edge + 3; addr++)
                to->push_back(addr);
        }
        for (std::size_t i = 1; i < steps; i++)
            to->push_back(start + header.p_memsz / steps * i + i % 7);
    }
}

// The first and last byte of each dynamic symbol of the module, their neighbours and one byte within. With a stride,
// of every stride-th symbol.
void add_symbols(const Module &module, std::size_t stride, Addresses *to)
{
    const ElfW(Sym) *symbols = nullptr;
    const Elf32_Word *gnu = nullptr, *old = nullptr;
    for (const ElfW(Phdr) & header : module.headers) {
        if (header.p_type != PT_DYNAMIC)
            continue;
        bool is_relocated = (header.p_flags & PF_W) != 0;
        const auto *tag = reinterpret_cast<const ElfW(Dyn) *>(module.bias + header.p_vaddr);
        for (; tag->d_tag != DT_NULL; tag++) {
            unsigned long value = tag->d_un.d_ptr + (is_relocated ? 0 : module.bias);
            if (tag->d_tag == DT_SYMTAB)
                symbols = reinterpret_cast<const ElfW(Sym) *>(value);
            if (tag->d_tag == DT_GNU_HASH)
                gnu = reinterpret_cast<const Elf32_Word *>(value);
            if (tag->d_tag == DT_HASH)
                old = reinterpret_cast<const Elf32_Word *>(value);
        }
    }
    std::size_t count = old != nullptr ? old[1] : 0;
    if (old == nullptr && gnu != nullptr) {
        const Elf32_Word *buckets = gnu + 4 + 2 * gnu[2], *chains = buckets + gnu[0];
        count = *std::max_element(buckets, chains);
        while (count >= gnu[1] && (chains[count++ - gnu[1]] & 1) == 0) {
        }
    }
    for (std::size_t i = 1; i < count; i += stride) {
        unsigned long start = module.bias + symbols[i].st_value, size = symbols[i].st_size;
        for (unsigned long addr :
             {start - 1, start, start + size / 2, start + size - 1, start + size, start + size + 1})
            to->push_back(addr);
    }
}

const Module &module_named(const std::vector<Module> &all, const std::string &part)
{
    for (const Module &module : all) {
        if (part.empty() ? module.name.empty() : module.name.find(part) != std::string::npos)
            return module;
    }
    ADD_FAILURE() << part;
    return all.front();
}

void compare_module(const std::string &part, std::size_t stride)
{
    std::vector<Module> all = modules();
    const Module &module = module_named(all, part);
    Addresses addresses;
    add_grid(module, effort(400), &addresses);
    add_symbols(module, under_emulation() ? stride * 8 : stride, &addresses);
    expect_loaders_answers(addresses);
}

} // namespace

// ---- the same answers as the loader's ----

TEST(Names, TheProgram)
{
    compare_module("", 1);
}

TEST(Names, TheCLibrary)
{
    compare_module("libc.so", under_emulation() ? 5 : 1);
}

TEST(Names, TheLoader)
{
    compare_module("ld-linux", 1);
}

TEST(Names, TheLibrary)
{
    compare_module("libcommon", 1);
}

TEST(Names, TheKernelsModule)
{
    if (::getauxval(AT_SYSINFO_EHDR) == 0)
        GTEST_SKIP() << "this kernel maps no module";
    compare_module("vdso", 1);
}

TEST(Names, AnUnmappedAddress)
{
    expect_loaders_answers(
        {0, 1, 0x1234, at(&kFrames) | 1UL << 63, ~0UL, ~0xfffUL, at(::dlsym(RTLD_DEFAULT, "errno"))});
}

// ---- other modules and programs ----

namespace {

void compare_loaded(const std::string &file)
{
    std::string path = build_dir() + "/tests/" + file;
    ASSERT_NE(nullptr, ::dlopen(path.c_str(), RTLD_NOW)) << ::dlerror();
    compare_module(file, 1);
}

} // namespace

TEST(Names, AModuleWithTheOlderHashTableOnly)
{
    compare_loaded("plugin_sysv.so");
}

TEST(Names, AModuleWithTheNewerHashTableOnly)
{
    compare_loaded("plugin_gnu.so");
}

TEST(Names, AModuleBelowItsLinkAddress)
{
    compare_loaded("plugin_high.so");
    void *module = ::dlopen((build_dir() + "/tests/plugin_high.so").c_str(), RTLD_NOW);
    auto find = reinterpret_cast<char *(*)()>(::dlsym(module, "high_function"));
    std::string text = texts_of({at(find()) + 0x1000}).at(0);
    EXPECT_NE(std::string::npos, text.find("plugin_high.so(-0x")) << text;
}

// A module at its link address has load bias 0, which gives no distance.
TEST(Names, ANamelessAddressOfTheProgram)
{
    unsigned long nameless = at(reinterpret_cast<void *>(&expected_text));
    unsigned long bias = module_named(modules(), "").bias;
    char wanted[512];
    if (bias == 0)
        std::snprintf(wanted, sizeof wanted, "%s() [0x%lx]", program_invocation_name, nameless);
    else
        std::snprintf(wanted, sizeof wanted, "%s(+0x%lx) [0x%lx]", program_invocation_name, nameless - bias, nameless);
    EXPECT_EQ(wanted, texts_of({nameless}).at(0));
}
