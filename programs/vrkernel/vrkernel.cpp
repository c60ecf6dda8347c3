// SPDX-License-Identifier: Apache-2.0
// vrkernel - runs programs on the stand-in kernel and shows its tables.
//
//     vrkernel run -c FILE [--] PROGRAM [ARGUMENT...]
//     vrkernel show [-c FILE]
//     vrkernel reset [-c FILE]
//     vrkernel -h
#include "platform/kernel/tables.h"
#include "programs/privileges.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace qv;
using namespace vrkernel;

constexpr int kUsage = 2;
// As in env(1) and timeout(1).
constexpr int kNoTables = 125;
constexpr int kCannotStart = 126;
constexpr int kNotFound = 127;

constexpr const char *kUsageText = "usage: vrkernel run -c FILE [--] PROGRAM [ARGUMENT...]\n"
                                   "       vrkernel show [-c FILE]\n"
                                   "       vrkernel reset [-c FILE]\n";

int usage()
{
    std::fputs(kUsageText, stderr);
    return kUsage;
}

int help()
{
    std::fputs(kUsageText, stdout);
    std::puts("Runs programs on a stand-in for the appliance's kernel, whose tables come from FILE.\n"
              "  run      run a program, and what it starts\n"
              "  show     write the tables as they are now\n"
              "  reset    forget what programs have changed\n"
              "  -c FILE  for show and reset, VRKERNEL_CONFIG in the environment by default");
    return 0;
}

// The library is in this program's folder in a build, and in the library folder of the same prefix when installed.
bool find_library(char (&path)[PATH_MAX])
{
    char own[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", own, sizeof own - 1);
    if (n <= 0)
        return false;
    own[n] = '\0';
    *std::strrchr(own, '/') = '\0';
    for (const char *place : {"libvrkernel.so", VRKERNEL_LIBRARY_FROM_BIN}) {
        if (std::snprintf(path, sizeof path, "%s/%s", own, place) < PATH_MAX && ::access(path, R_OK) == 0)
            return true;
    }
    return false;
}

// Whether the library is not writable for all, unless this program is so too, as in a tree that was built with umask 0,
// and belongs to root, the caller or this program's owner. Root runs the program with it.
bool is_trusted(const char *library)
{
    struct stat own, status;
    return ::stat("/proc/self/exe", &own) == 0 && ::stat(library, &status) == 0 &&
           ((status.st_mode & S_IWOTH) == 0 || (own.st_mode & S_IWOTH) != 0) &&
           (status.st_uid == 0 || status.st_uid == ::geteuid() || status.st_uid == own.st_uid);
}

// In LD_PRELOAD a blank or a colon ends a path.
bool can_be_preloaded(const char *library)
{
    const char *problem = library[std::strcspn(library, " :")] != '\0'
                              ? "a path with a blank or a colon cannot be preloaded"
                          : !is_trusted(library) ? "other users can change it"
                                                 : nullptr;
    if (problem != nullptr)
        std::fprintf(stderr, "vrkernel: %s: %s\n", library, problem);
    return problem == nullptr;
}

// Puts the library before those that are preloaded already.
bool set_preload(const char *library)
{
    const char *others = std::getenv("LD_PRELOAD");
    char *value = nullptr;
    if (::asprintf(&value, "%s%s%s", library, others != nullptr ? ":" : "", others != nullptr ? others : "") < 0)
        return false;
    bool set = ::setenv("LD_PRELOAD", value, 1) == 0;
    std::free(value);
    return set;
}

int run(const char *config, char **program)
{
    char file[PATH_MAX];
    char library[PATH_MAX];
    if (::realpath(config, file) == nullptr) {
        std::fprintf(stderr, "vrkernel: %s: %s\n", config, std::strerror(errno));
        return kNoTables;
    }
    if (attach(file) == nullptr)
        return kNoTables;
    if (!find_library(library)) {
        std::fputs("vrkernel: libvrkernel.so not found\n", stderr);
        return kNoTables;
    }
    if (!can_be_preloaded(library))
        return kNoTables;
    if (!set_preload(library) || ::setenv(kConfigVariable, file, 1) < 0) {
        std::fprintf(stderr, "vrkernel: %s\n", std::strerror(errno));
        return kNoTables;
    }
    ::execvp(program[0], program);
    const int error = errno;
    std::fprintf(stderr, "vrkernel: %s: %s\n", program[0], std::strerror(error));
    return error == ENOENT ? kNotFound : kCannotStart;
}

// The rest of an entry's line. The file has a word for the one flag that it can set; other flags follow in a comment,
// to which `comment` adds what the file has no attribute for.
void show_flags(std::uint32_t flags, std::string comment = {})
{
    if ((flags & ~vr_abi::kShared) != 0) {
        char text[32];
        std::snprintf(text, sizeof text, " flags=%#x", flags);
        comment.insert(0, text);
    }
    std::printf("%s%s%s\n", (flags & vr_abi::kShared) != 0 ? " shared" : "", comment.empty() ? "" : " #",
                comment.c_str());
}

std::string mac_text(std::uint64_t mac)
{
    unsigned char bytes[sizeof mac];
    char text[32];
    std::memcpy(bytes, &mac, sizeof mac);
    std::snprintf(text, sizeof text, " mac=%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    return text;
}

void show_interface(const interface &one)
{
    std::printf("interface %-15s id=%u vsys=%u vr=%u", one.name, one.id, one.vsys, one.vr.load());
    std::string comment = one.mac != 0 ? mac_text(one.mac) : "";
    struct {
        const char *name;
        std::uint32_t value;
    } values[] = {
        {"cellular", one.cellular}, {"wifi", one.wifi}, {"device", one.device}, {"mtu-limits", one.mtu_limits}};
    for (const auto &v : values) {
        if (v.value != 0)
            comment += std::string(" ") + v.name + '=' + std::to_string(v.value);
    }
    show_flags(one.flags, comment);
}

int show(const char *config)
{
    tables *all = attach(config);
    if (all == nullptr)
        return kNoTables;
    for (const vsys &one : std::span(all->all_vsys, all->vsys_count))
        std::printf("vsys      %-15s id=%u default-vr=%u\n", one.name, one.id, one.default_vr);
    for (const vr &one : all->vrs) {
        if (one.name[0] == '\0')
            continue;
        std::printf("vr        %-15s id=%u vsys=%u", one.name, all->id_of(&one), one.vsys);
        show_flags(one.flags);
    }
    for (const interface &one : std::span(all->interfaces, all->interface_count))
        show_interface(one);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0))
        return help();
    const char *config = std::getenv(kConfigVariable);
    int next = 2;
    if (argc > next + 1 && std::strcmp(argv[next], "-c") == 0) {
        config = argv[next + 1];
        next += 2;
    }
    bool runs = argc > 1 && std::strcmp(argv[1], "run") == 0;
    if (runs && next < argc && std::strcmp(argv[next], "--") == 0)
        next++;
    if (argc < 2 || config == nullptr || runs == (next >= argc))
        return usage();
    if (runs)
        return run(config, argv + next);
    if (!programs::keep_capabilities({CAP_DAC_READ_SEARCH})) {
        std::fprintf(stderr, "vrkernel: capabilities: %s\n", std::strerror(errno));
        return kNoTables;
    }
    if (std::strcmp(argv[1], "show") == 0)
        return show(config);
    if (std::strcmp(argv[1], "reset") == 0)
        return forget(config) ? 0 : kNoTables;
    return usage();
}
