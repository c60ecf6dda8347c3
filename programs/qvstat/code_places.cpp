// SPDX-License-Identifier: Apache-2.0
#include "code_places.h"

#include "elf_image.h"

#include <algorithm>
#include <cstdio>
#include <sys/stat.h>

using namespace qv;

namespace qvstat {
namespace {

std::string hexadecimal(std::uint64_t number)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

std::vector<qvcrash::root_folder> folders(const std::vector<std::string> &paths)
{
    std::vector<qvcrash::root_folder> result;
    for (const std::string &path : paths) {
        qvcrash::root_folder folder(path);
        if (folder.exists())
            result.push_back(std::move(folder));
    }
    return result;
}

} // namespace

code_places::code_places(const target &process, const std::vector<std::string> &debug_folders)
    : process_(process), roots_(folders({"/proc/" + std::to_string(process.process()) + "/root", "/"})),
      debug_folders_(folders(debug_folders)), debug_(roots_, debug_folders_, false)
{}

std::unique_ptr<qvcrash::module_file> code_places::open(const mapping &where)
{
    for (const qvcrash::root_folder &root : roots_) {
        base::unique_fd file = root.open(where.path);
        struct stat status = {};
        // A file that was replaced since has another inode.
        if (file && ::fstat(file.get(), &status) == 0 && status.st_ino == where.inode)
            return qvcrash::module_file::open(std::move(file), where.path, &debug_);
    }
    return nullptr;
}

const code_places::module &code_places::module_of(const mapping &where)
{
    auto found = modules_.find(where.path);
    if (found != modules_.end())
        return found->second;
    module result;
    auto is_start = [&where](const mapping &each) { return each.path == where.path && each.offset == 0; };
    auto first = std::find_if(process_.mappings().begin(), process_.mappings().end(), is_start);
    std::uint64_t base = first != process_.mappings().end() ? first->start : where.start - where.offset;
    auto bias = load_bias(process_.memory(), base);
    result.bias = bias.value_or(base);
    if (bias && where.inode != 0)
        result.file = open(where);
    return modules_.emplace(where.path, std::move(result)).first->second;
}

code_place code_places::find(std::uint64_t address, bool is_return_address)
{
    code_place place;
    place.address = address;
    auto contains = [address](const mapping &each) { return address >= each.start && address < each.end; };
    auto where = std::find_if(process_.mappings().begin(), process_.mappings().end(), contains);
    if (where == process_.mappings().end() || where->path.empty())
        return place;
    const module &object = module_of(*where);
    place.module = where->path;
    place.offset = address - object.bias;
    if (object.file != nullptr)
        place.functions = object.file->look_up(*place.offset - (is_return_address ? 1 : 0));
    return place;
}

std::string describe(const code_place &place)
{
    if (!place.offset)
        return hexadecimal(place.address);
    std::string text;
    for (const qvcrash::source_frame &function : place.functions) {
        if (function.function.empty())
            continue;
        if (!text.empty())
            text += ", inlined in ";
        text += function.function;
        if (!function.file.empty())
            text += " at " + function.file + ':' + std::to_string(function.line);
    }
    std::string module = place.module.substr(place.module.rfind('/') + 1) + '+' + hexadecimal(*place.offset);
    return text.empty() ? module : text + " (" + module + ')';
}

} // namespace qvstat
