// SPDX-License-Identifier: Apache-2.0
#include "symbolizer.h"

#include <algorithm>

using namespace qv;

namespace qvcrash {
namespace {

constexpr std::uint64_t kPage = 4096; // load biases are multiples of it on every machine

constexpr const char *kProgramFolders[] = {"/usr/sbin/", "/usr/bin/",        "/sbin/",
                                           "/bin/",      "/usr/local/sbin/", "/usr/local/bin/"};

std::string last_component(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

// The load biases that a reference allows; several where its symbol has several versions. Nothing when the file would
// have to say where the symbol lies, and does not.
std::vector<std::uint64_t> possible_biases(const code_reference &code, module_file *file)
{
    if (!code.offset)
        return code.symbol.empty() ? std::vector<std::uint64_t>{0} : std::vector<std::uint64_t>{};
    std::uint64_t base = code.address - static_cast<std::uint64_t>(*code.offset);
    if (code.symbol.empty())
        return {base};
    std::vector<std::uint64_t> biases;
    if (file != nullptr) {
        for (std::uint64_t symbol : file->symbol_addresses(code.symbol))
            biases.push_back(base - symbol);
    }
    return biases;
}

// False when the reference does not fit: the file is of another build.
bool note_bias(const code_reference &code, used_module *module)
{
    std::vector<std::uint64_t> biases = possible_biases(code, module->file);
    auto fits = [module](std::uint64_t bias) { return module->bias ? bias == *module->bias : bias % kPage == 0; };
    auto found = std::find_if(biases.begin(), biases.end(), fits);
    if (found == biases.end())
        return false;
    module->bias = *found;
    return true;
}

// Whether the file can have been running at an address: it has a call before it, or is where the crash was.
bool can_have_run(const crash_log &log, const code_reference &code, const used_module &module)
{
    std::uint64_t address = code.address - *module.bias;
    if (log.pc == code.address)
        return module.file->is_code(address);
    return module.file->is_code(address - 1) && module.file->follows_call(address).value_or(true);
}

// A file that has a call at none of the log's return addresses is another one. Some may fail in the right file: the
// walk is led astray by code without frame pointers.
void check_calls(const crash_log &log, const std::vector<code_reference> &references, used_module *module)
{
    if (module->file == nullptr || !module->bias)
        return;
    auto runs = [&](const code_reference &code) {
        return code.file == module->logged_path && can_have_run(log, code, *module);
    };
    if (std::none_of(references.begin(), references.end(), runs))
        module->sameness = identity::differs;
}

} // namespace

// A program that is not position-independent has the bias 0 and starts far above it.
bool used_module::contains(std::uint64_t address) const
{
    if (!bias || address < *bias || address - *bias < (file != nullptr ? file->image_start() : 0))
        return false;
    return end != 0 ? address < end : file != nullptr && address - *bias < file->image_end();
}

used_module *module_map::by_path(const std::string &path) const
{
    auto found = std::find_if(modules_.begin(), modules_.end(), [&](const auto &m) { return m->logged_path == path; });
    return found != modules_.end() ? found->get() : nullptr;
}

const used_module *module_map::module_at(std::uint64_t address) const
{
    // What is loaded there now comes before what was.
    const used_module *gone = nullptr;
    for (const auto &module : modules_) {
        if (!module->contains(address))
            continue;
        if (!module->is_gone)
            return module.get();
        gone = module.get();
    }
    return gone;
}

// A return address may lie after the last instruction of its function; the call itself does not.
resolved_address module_map::look_up(const used_module *module, std::uint64_t address, bool is_return_address)
{
    resolved_address result;
    result.module = module;
    if (module == nullptr || !module->bias)
        return result;
    result.offset = address - *module->bias;
    if (module->file != nullptr && module->sameness != identity::differs)
        result.frames = module->file->look_up(*result.offset - (is_return_address ? 1 : 0));
    return result;
}

resolved_address module_map::resolve(const code_reference &code, bool is_return_address) const
{
    // The loader's name of the program may be any; its place is better.
    const used_module *module = module_at(code.address);
    if (module == nullptr && !code.file.empty())
        module = by_path(code.file);
    return look_up(module, code.address, is_return_address);
}

resolved_address module_map::resolve(std::uint64_t address, bool is_return_address) const
{
    return look_up(module_at(address), address, is_return_address);
}

symbolizer::symbolizer(const symbol_options &options) : is_own_machine_(options.roots.empty())
{
    auto add = [this](const std::string &path, std::vector<root_folder> *folders) {
        root_folder folder(path);
        if (folder.exists())
            folders->push_back(std::move(folder));
        else
            missing_.push_back(path);
    };
    for (const std::string &path : options.roots)
        add(path, &roots_);
    if (is_own_machine_)
        add("/", &roots_);
    for (const std::string &path : options.debug_folders)
        add(path, &debug_folders_);
    debug_ = std::make_unique<debug_files>(roots_, debug_folders_, options.use_servers);
}

symbolizer::opened symbolizer::try_open(const root_folder &root, const std::string &path)
{
    base::unique_fd file = root.open(path);
    if (!file)
        return {};
    opened result;
    result.file = module_file::open(std::move(file), path, debug_.get());
    if (result.file != nullptr)
        result.found_path = root.display(path);
    return result;
}

// The loader's name of the main program is what it was started by: perhaps relative, perhaps rewritten by the program.
symbolizer::opened symbolizer::search(const std::string &path, const std::string &process)
{
    std::vector<std::string> names = {last_component(path)};
    if (!process.empty() && process != names.front())
        names.push_back(process);
    for (const root_folder &root : roots_) {
        for (const std::string &name : names) {
            if (name.empty())
                continue;
            for (const char *folder : kProgramFolders) {
                if (opened result = try_open(root, folder + name); result.file != nullptr)
                    return result;
            }
            if (is_own_machine_)
                continue; // a whole machine is too much to search
            opened result;
            root.find(name, [&](const std::string &candidate, const base::unique_fd &) {
                result = try_open(root, '/' + candidate);
                return result.file != nullptr;
            });
            if (result.file != nullptr)
                return result;
        }
    }
    return {};
}

const symbolizer::opened &symbolizer::open(const std::string &logged_path, const std::string &process)
{
    std::string path(without_deleted_mark(logged_path));
    bool is_absolute = path.starts_with('/');
    std::string key = is_absolute ? path : path + '\n' + process;
    auto found = cache_.find(key);
    if (found != cache_.end())
        return found->second;
    opened result;
    for (const root_folder &root : roots_) {
        if (is_absolute && result.file == nullptr)
            result = try_open(root, path);
    }
    if (!is_absolute && is_own_machine_ && path.find('/') != std::string::npos)
        result = try_open(root_folder("."), path);
    if (result.file == nullptr)
        result = search(path, is_absolute ? std::string() : process);
    return cache_.emplace(std::move(key), std::move(result)).first->second;
}

used_module *symbolizer::add_module(const std::string &path, const crash_log &log, module_map *map)
{
    const opened &found = open(path, log.process);
    map->modules_.push_back(std::make_unique<used_module>());
    used_module *module = map->modules_.back().get();
    module->logged_path = path;
    module->found_path = found.found_path;
    module->file = found.file.get();
    module->sameness = module->file != nullptr ? identity::unknown : identity::missing;
    if (module->file != nullptr && log.from != machine::unknown && module->file->built_for() != log.from)
        module->sameness = identity::differs;
    return module;
}

// The debug information alone, for a file that is gone or was replaced while it ran.
const symbolizer::opened &symbolizer::open_by_build_id(const detailed_module &listed)
{
    std::string key = '\n' + listed.build_id;
    auto found = cache_.find(key);
    if (found != cache_.end())
        return found->second;
    opened result;
    std::string path(without_deleted_mark(listed.path));
    if (base::unique_fd file = debug_->find({listed.build_id, {}, 0, path})) {
        result.found_path = "the debug file of build " + listed.build_id;
        result.file = module_file::open(std::move(file), path, debug_.get());
    }
    return cache_.emplace(std::move(key), std::move(result)).first->second;
}

// From the details: paths, places and build ids of all modules.
void symbolizer::load_listed(const crash_log &log, module_map *map)
{
    for (const detailed_module &listed : log.details->modules) {
        used_module *module = add_module(listed.path, log, map);
        module->bias = listed.bias;
        module->end = listed.end;
        module->is_gone = listed.is_gone;
        if (listed.build_id.empty())
            continue;
        if (module->file != nullptr)
            module->sameness = module->file->build_id() == listed.build_id ? identity::same : identity::differs;
        if (module->sameness == identity::same)
            continue;
        if (const opened &debug = open_by_build_id(listed); debug.file != nullptr) {
            module->file = debug.file.get();
            module->found_path = debug.found_path;
            module->sameness = identity::same;
        }
    }
}

// From the backtrace: the modules that it names, with the biases that its symbols and offsets imply.
void symbolizer::load_named(const crash_log &log, const std::vector<code_reference> &references, module_map *map)
{
    for (const code_reference &code : references) {
        if (code.file.empty())
            continue;
        used_module *module = map->by_path(code.file);
        if (module == nullptr)
            module = add_module(code.file, log, map);
        if (!note_bias(code, module) && module->file != nullptr)
            module->sameness = identity::differs;
    }
    for (const auto &module : map->modules_)
        check_calls(log, references, module.get());
}

module_map symbolizer::load(const crash_log &log, const std::vector<code_reference> &references)
{
    module_map map;
    if (log.details && !log.details->modules.empty())
        load_listed(log, &map);
    else
        load_named(log, references, &map);
    return map;
}

} // namespace qvcrash
