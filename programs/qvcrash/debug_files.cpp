// SPDX-License-Identifier: Apache-2.0
#include "debug_files.h"

#include <algorithm>
#include <elfutils/debuginfod.h>
#include <unistd.h>
#include <zlib.h>

using namespace qv;

namespace qvcrash {
namespace {

constexpr char kDebugRoot[] = "/usr/lib/debug";
constexpr std::size_t kIdFolderDigits = 2;

std::uint32_t check_sum(const base::unique_fd &file)
{
    unsigned char block[65536];
    uLong sum = ::crc32(0, nullptr, 0);
    off_t offset = 0;
    ssize_t n;
    while ((n = ::pread(file.get(), block, sizeof block, offset)) > 0) {
        sum = ::crc32(sum, block, static_cast<uInt>(n));
        offset += n;
    }
    return static_cast<std::uint32_t>(sum);
}

bool is_wanted(const base::unique_fd &file, const debug_request &request)
{
    if (!request.build_id.empty())
        return build_id_of(file) == request.build_id;
    return !request.link.empty() && check_sum(file) == request.crc;
}

std::string folder_of(const std::string &path)
{
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string last_component(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string by_build_id(const std::string &folder, const std::string &id)
{
    return folder + '/' + id.substr(0, kIdFolderDigits) + '/' + id.substr(kIdFolderDigits) + ".debug";
}

// Where a root has the debug file, the most precise place first.
std::vector<std::string> places_in_root(const debug_request &request)
{
    std::vector<std::string> places;
    if (request.build_id.size() > kIdFolderDigits)
        places.push_back(by_build_id(std::string(kDebugRoot) + "/.build-id", request.build_id));
    if (!request.link.empty()) {
        std::string link = last_component(request.link);
        std::string folder = folder_of(request.module_path);
        places.push_back(kDebugRoot + folder + '/' + link);
        places.push_back(folder + "/.debug/" + link);
        places.push_back(folder + '/' + link);
    }
    return places;
}

// A debug folder is what somebody copied from a build: a tree of build ids, debug files, or programs not stripped.
std::vector<std::string> places_in_folder(const debug_request &request)
{
    std::vector<std::string> places = places_in_root(request);
    std::string name = last_component(request.module_path);
    if (request.build_id.size() > kIdFolderDigits) {
        places.push_back(by_build_id("/.build-id", request.build_id));
        places.push_back(by_build_id("", request.build_id));
    }
    if (!request.link.empty())
        places.push_back('/' + last_component(request.link));
    places.push_back('/' + name + ".debug");
    places.push_back('/' + name);
    return places;
}

base::unique_fd first_wanted(const root_folder &root, const std::vector<std::string> &places,
                             const debug_request &request)
{
    for (const std::string &place : places) {
        // The module itself has the right build id too, and would be taken for its own debug file.
        base::unique_fd file = place == request.module_path ? base::unique_fd() : root.open(place);
        if (file && is_wanted(file, request))
            return file;
    }
    return base::unique_fd();
}

} // namespace

debug_files::debug_files(const std::vector<root_folder> &roots, const std::vector<root_folder> &folders,
                         bool use_servers)
    : roots_(roots), folders_(folders)
{
    if (use_servers)
        servers_ = ::debuginfod_begin();
}

debug_files::~debug_files()
{
    if (servers_ != nullptr)
        ::debuginfod_end(servers_);
}

base::unique_fd debug_files::find(const debug_request &request)
{
    for (const root_folder &folder : folders_) {
        if (base::unique_fd file = first_wanted(folder, places_in_folder(request), request))
            return file;
    }
    for (const root_folder &root : roots_) {
        if (base::unique_fd file = first_wanted(root, places_in_root(request), request))
            return file;
    }
    return find_at_servers(request.build_id);
}

base::unique_fd debug_files::find_at_servers(const std::string &build_id)
{
    if (servers_ == nullptr || build_id.empty())
        return base::unique_fd();
    // A length of 0 says that the id is given in hexadecimal.
    return base::unique_fd(
        ::debuginfod_find_debuginfo(servers_, reinterpret_cast<const unsigned char *>(build_id.c_str()), 0, nullptr));
}

} // namespace qvcrash
