// SPDX-License-Identifier: Apache-2.0
// Object files as hostile input: whatever is damaged, the look-ups end, and soon.
#include "module_file.h"

#include "support/support.h"

#include <chrono>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;
using namespace qvcrash;
using namespace qv;

namespace {

// Small, with debug information and symbols.
const std::string kPlugin = build_dir() + "/tests/named_plugin.so";

// Asks everything that an analysis asks.
void use_file(const std::string &path)
{
    base::unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    build_id_of(file);
    std::unique_ptr<module_file> module = module_file::open(std::move(file), "/x", nullptr);
    if (module == nullptr)
        return;
    module->has_lines();
    module->image_end();
    module->symbol_addresses("plugin_run");
    for (std::uint64_t address = 0; address < 0x1400; address += 0x90) {
        module->look_up(address);
        module->is_code(address);
        module->is_function_start(address);
        module->follows_call(address);
        module->is_return(address);
        module->keeps_link_register(address);
    }
}

// Runs in a child, so that a crash is a result; its processor time and memory are limited.
int status_of(const std::function<void()> &work)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        rlimit seconds = {10, 10};
        ::setrlimit(RLIMIT_CPU, &seconds);
        work();
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    return status;
}

TEST(ModuleFile, NamesAFunctionAndItsLine)
{
    base::unique_fd file(::open(kPlugin.c_str(), O_RDONLY | O_CLOEXEC));
    std::unique_ptr<module_file> module = module_file::open(std::move(file), "/x", nullptr);
    ASSERT_NE(nullptr, module);
    std::vector<std::uint64_t> places = module->symbol_addresses("plugin_run");
    ASSERT_EQ(1u, places.size());
    EXPECT_TRUE(module->is_function_start(places[0]));
    EXPECT_FALSE(module->is_function_start(places[0] + 1));
    ASSERT_FALSE(module->look_up(places[0]).empty());
    EXPECT_EQ("plugin_run", module->look_up(places[0])[0].function);
}

// The functions at a place of the plug-in, the innermost first.
std::vector<std::string> names_at(int index)
{
    void *plugin = ::dlopen(kPlugin.c_str(), RTLD_NOW);
    auto place_of = reinterpret_cast<const void *(*)(int)>(::dlsym(plugin, "plugin_place"));
    const void *place = place_of(index);
    Dl_info loaded;
    EXPECT_NE(0, ::dladdr(place, &loaded));
    base::unique_fd file(::open(kPlugin.c_str(), O_RDONLY | O_CLOEXEC));
    std::unique_ptr<module_file> module = module_file::open(std::move(file), "/x", nullptr);
    auto address = reinterpret_cast<std::uint64_t>(place) - reinterpret_cast<std::uint64_t>(loaded.dli_fbase);
    std::vector<std::string> names;
    for (const source_frame &frame : module->look_up(address))
        names.push_back(frame.function);
    return names;
}

// Compilers that give functions of one file no linkage name leave the namespace to the reader.
TEST(ModuleFile, NamesHaveTheirNamespacesAndClasses)
{
    EXPECT_THAT(names_at(0), testing::ElementsAre(testing::StartsWith("plugin::(anonymous namespace)::item::count")));
    EXPECT_THAT(names_at(1), testing::ElementsAre(testing::StartsWith("plugin::(anonymous namespace)::plain")));
    EXPECT_THAT(names_at(3), testing::ElementsAre("plugin_run")) << "in a namespace, but of C";
}

TEST(ModuleFile, LambdasHaveTheFunctionAroundThem)
{
    std::vector<std::string> names = names_at(2);
    ASSERT_FALSE(names.empty());
    EXPECT_THAT(names, testing::Each(testing::StartsWith("plugin::(anonymous namespace)::lambda_of_function()::")));
}

TEST(ModuleFile, CutFiles)
{
    std::string whole = read_file(kPlugin);
    ASSERT_FALSE(whole.empty());
    constexpr std::size_t kSteps = 300;
    std::size_t step = std::max<std::size_t>(1, whole.size() / kSteps);
    for (std::size_t first = 0; first < whole.size(); first += 50 * step) {
        EXPECT_EQ(0, status_of([&] {
                      for (std::size_t size = first; size < std::min(whole.size(), first + 50 * step); size += step) {
                          write_file("/tmp/cut.so", whole.substr(0, size));
                          use_file("/tmp/cut.so");
                      }
                  }))
            << "cut from " << first;
    }
}

// The seed is fixed: a failure comes again.
std::string damaged(const std::string &whole, unsigned seed)
{
    std::mt19937 random(seed);
    std::string text = whole;
    // The heads and the sections' table are where most decisions are taken.
    std::size_t range = seed % 3 == 0 ? sizeof(Elf64_Ehdr) + 12 * sizeof(Elf64_Phdr) : text.size();
    std::size_t changes = 1 + random() % 8;
    for (std::size_t i = 0; i < changes; i++) {
        std::size_t at = random() % range;
        if (seed % 3 == 1)
            at = text.size() - 1 - random() % (40 * sizeof(Elf64_Shdr));
        text[at] = static_cast<char>(random() % 4 == 0 ? 0xFF : text[at] ^ (1 << random() % 8));
    }
    return text;
}

TEST(ModuleFile, TwoThousandDamagedFiles)
{
    constexpr unsigned kFiles = 2100, kBatch = 100;
    std::string whole = read_file(kPlugin);
    ASSERT_GT(whole.size(), 40 * sizeof(Elf64_Shdr));
    for (unsigned first = 0; first < kFiles; first += kBatch) {
        EXPECT_EQ(0, status_of([&] {
                      for (unsigned seed = first; seed < first + kBatch; seed++) {
                          write_file("/tmp/damaged.so", damaged(whole, seed));
                          use_file("/tmp/damaged.so");
                      }
                  }))
            << "seeds from " << first;
    }
}

} // namespace
