// SPDX-License-Identifier: Apache-2.0
// Interface names: one table of prefixes and one conversion. The reverse conversion uses the first rows of the table.
#include "ifname.h"

#include "console_print.h"
#include "strutil.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

namespace {

constexpr std::size_t kCopySize = 32;
constexpr std::size_t kHaSize = 16; // "ha" is written with this limit, not the caller's
constexpr std::string_view kTunnelWord = "pppoe";

// Whether a row reads the caller's name or the working copy, in which the first "pppoe" has become "p". This is a
// contract, names in use depend on it: "aggregate1pppoe2" keeps its word, "ethernet1pppoe2" does not.
enum class source { given, copy };

struct row {
    std::string_view word;
    const char *prefix;
    source compared;
    source rest;
};

// The first match wins.
constexpr std::array<row, 11> kRows = {{
    {"ethernet", "eth", source::copy, source::copy},
    {"xethernet", "xe", source::copy, source::copy},
    {"xlethernet", "xle", source::copy, source::copy},
    {"cethernet", "ce", source::copy, source::copy},
    {"xxvethernet", "xxv", source::copy, source::copy},
    {"aggregate", "agg", source::given, source::given},
    {"redundant", "red", source::given, source::given},
    {"MGT", "mgt", source::given, source::given},
    {"HA", "ha", source::given, source::given},
    {"cellular", "cellular", source::given, source::copy},
    {"wlan", "wlan", source::given, source::copy},
}};
constexpr std::size_t kBackRows = 7; // of the reverse conversion

struct mapping {
    char from;
    char to;
};
constexpr std::array<mapping, 3> kToLinux = {{{'/', '-'}, {':', '='}, {'.', '_'}}};
constexpr std::array<mapping, 3> kFromLinux = {{{'=', ':'}, {'_', '.'}, {'-', '/'}}};

void map_characters(char *text, std::span<const mapping> table)
{
    for (; *text != '\0'; text++) {
        for (const mapping &pair : table) {
            if (*text == pair.from) {
                *text = pair.to;
                break;
            }
        }
    }
}

// The working copy of a name: cut to the buffer, its first "pppoe" shortened.
void make_copy(const char *name, char (&copy)[kCopySize])
{
    strlcpy(copy, name, sizeof copy);
    const char *word = std::strstr(name, kTunnelWord.data());
    if (word == nullptr)
        return;
    std::size_t before = static_cast<std::size_t>(word - name);
    if (before >= sizeof copy)
        return;
    copy[before] = '\0';
    strlcat(copy, "p", sizeof copy);
    strlcat(copy, word + kTunnelWord.size(), sizeof copy);
}

// Writes prefix and rest of the first row that matches, else the whole given name. False if the result was cut.
// Contract: only the last copy is checked, so a cut prefix with an empty rest passes.
bool convert(const char *given, const char *copy, std::span<const row> rows, char *out, std::size_t size)
{
    for (const row &r : rows) {
        const char *compared = r.compared == source::copy ? copy : given;
        if (std::strncmp(compared, r.word.data(), r.word.size()) != 0)
            continue;
        const char *rest = (r.rest == source::copy ? copy : given) + r.word.size();
        strlcpy(out, r.prefix, size);
        return strlcat(out, rest, size) < size;
    }
    return strlcpy(out, given, size) < size;
}

std::size_t room(int outsize)
{
    return outsize > 0 ? static_cast<std::size_t>(outsize) : 0;
}

void change_case(char *s, std::size_t n, char first, char last, int by)
{
    if (s == nullptr)
        return;
    for (; n > 0 && *s != '\0'; n--, s++) {
        if (*s >= first && *s <= last)
            *s = static_cast<char>(*s + by);
    }
}

} // namespace

extern "C" {

int ifpname2unixname(const char *ifp_name, char *out, int outsize)
{
    if (ifp_name == nullptr) {
        console_print("NULL ifp name, can not convert\n");
        return -1;
    }
    if (std::strcmp(ifp_name, "ha") == 0) {
        strlcpy(out, "HA", kHaSize);
        return 0;
    }
    char copy[kCopySize];
    make_copy(ifp_name, copy);
    if (!convert(ifp_name, copy, kRows, out, room(outsize))) {
        console_print("Can not convert ifp name: %s\n", ifp_name);
        return -1;
    }
    map_characters(out, kToLinux);
    return 0;
}

int unixname2ifpname(const char *linux_name, char *out, int outsize)
{
    if (linux_name == nullptr) {
        console_print("NULL unix name, can not convert\n");
        return -1;
    }
    if (std::strcmp(linux_name, "ha") == 0) {
        strlcpy(out, linux_name, kHaSize);
        return 0;
    }
    if (!convert(linux_name, linux_name, std::span(kRows).first(kBackRows), out, room(outsize))) {
        console_print("Can not convert linux name: %s\n", linux_name);
        return -1;
    }
    map_characters(out, kFromLinux);
    return 0;
}

int ifpname2vfg(const char *ifp_name)
{
    const char *colon = ifp_name != nullptr ? std::strchr(ifp_name, ':') : nullptr;
    return colon != nullptr ? static_cast<int>(std::strtol(colon + 1, nullptr, 10)) : 0;
}

void strllwr(char *s, size_t n)
{
    change_case(s, n, 'A', 'Z', 'a' - 'A');
}

void strlupr(char *s, size_t n)
{
    change_case(s, n, 'a', 'z', 'A' - 'a');
}
}
