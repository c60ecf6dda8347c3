// SPDX-License-Identifier: Apache-2.0
// The configuration file: one entry per line, with a kind, a name and attributes; '#' begins a comment.
//
//     vsys      branch   id=3  default-vr=7
//     vr        trust    id=7  vsys=3  shared
//     interface eth0-1   id=17 vsys=3  vr=7
//
// An entry may refer to a later one, so the file is read twice: first the entries, then what they refer to.
#include "config.h"

#include "base/unique_fd.h"
#include "tables.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

using namespace qv;

namespace qv::vrkernel {

namespace {

constexpr std::size_t kLineSize = 512;
constexpr std::size_t kFileSize = 4 << 20; // more than full tables with the longest lines take
constexpr const char *kBlanks = " \t\r\n";
constexpr unsigned kIdMax = USHRT_MAX;

enum attribute : unsigned { kId, kDefaultVr, kVsys, kVr, kShared, kAttributes };
constexpr const char *kAttributeNames[kAttributes] = {"id", "default-vr", "vsys", "vr", "shared"};

constexpr unsigned set_of(attribute a)
{
    return 1U << a;
}

struct kind {
    const char *word;
    unsigned required; // sets of attributes
    unsigned allowed;
    std::size_t name_size;
};
enum : std::size_t { kVsysKind, kVrKind, kInterfaceKind, kKinds };
constexpr kind kAllKinds[kKinds] = {
    {"vsys", set_of(kId) | set_of(kDefaultVr), set_of(kId) | set_of(kDefaultVr), vr_abi::kNameSize},
    {"vr", set_of(kId) | set_of(kVsys), set_of(kId) | set_of(kVsys) | set_of(kShared), vr_abi::kNameSize},
    {"interface", set_of(kId) | set_of(kVsys) | set_of(kVr),
     set_of(kId) | set_of(kVsys) | set_of(kVr) | set_of(kShared), vr_abi::kIfNameSize},
};

// One parsed line.
struct entry {
    std::size_t kind;
    const char *name = "";
    unsigned given; // set of attributes
    unsigned values[kAttributes];
};

class reader {
public:
    reader(const char *config, tables &into) : config_(config), into_(into) {}

    bool read(std::FILE *file)
    {
        bool complete = each_line(file, &reader::define);
        if (complete && mistakes_ == 0) {
            std::rewind(file);
            complete = each_line(file, &reader::check_references);
        }
        return complete && mistakes_ == 0;
    }

private:
    using step = void (reader::*)(const entry &);

    bool each_line(std::FILE *file, step take)
    {
        char line[kLineSize];
        line_ = 0;
        read_ = 0;
        while (read_line(file, line)) {
            line[std::strcspn(line, "#")] = '\0';
            entry e{};
            if (parse(line, e))
                (this->*take)(e);
        }
        if (std::ferror(file) != 0)
            mistake("%s", std::strerror(errno));
        return std::feof(file) != 0;
    }

    // False at the end of the file, and after a mistake that makes the rest meaningless.
    bool read_line(std::FILE *file, char (&line)[kLineSize])
    {
        std::size_t length = 0;
        int c = std::getc(file);
        if (c == EOF)
            return false;
        line_++;
        for (; c != EOF && c != '\n'; c = std::getc(file)) {
            if (c == '\0')
                return mistake("zero byte in the line");
            if (length == sizeof line - 2)
                return mistake("line too long, at most %zu characters", sizeof line - 2);
            line[length++] = static_cast<char>(c);
        }
        line[length] = '\0';
        read_ += length + 1;
        return read_ <= kFileSize || mistake("file too long, at most %zu bytes", kFileSize);
    }

    // False for an empty line and after a mistake.
    bool parse(char *line, entry &e)
    {
        char *rest = nullptr;
        const char *word = ::strtok_r(line, kBlanks, &rest);
        if (word == nullptr)
            return false;
        while (e.kind < kKinds && std::strcmp(word, kAllKinds[e.kind].word) != 0)
            e.kind++;
        if (e.kind == kKinds)
            return mistake("unknown entry \"%s\", want vsys, vr or interface", word);
        const kind &k = kAllKinds[e.kind];
        const char *name = ::strtok_r(nullptr, kBlanks, &rest);
        if (name == nullptr)
            return mistake("%s without a name", k.word);
        e.name = name;
        if (std::strlen(e.name) >= k.name_size)
            return mistake("name \"%s\" too long, at most %zu characters", e.name, k.name_size - 1);
        while (char *text = ::strtok_r(nullptr, kBlanks, &rest)) {
            if (!parse_attribute(text, k, e))
                return false;
        }
        for (unsigned a = 0; a < kAttributes; a++) {
            if ((k.required & ~e.given & 1U << a) != 0)
                return mistake("%s \"%s\" without %s", k.word, e.name, kAttributeNames[a]);
        }
        return true;
    }

    bool parse_attribute(char *text, const kind &k, entry &e)
    {
        char *value = std::strchr(text, '=');
        if (value != nullptr)
            *value++ = '\0';
        unsigned a = 0;
        while (a < kAttributes && std::strcmp(text, kAttributeNames[a]) != 0)
            a++;
        if (a == kAttributes || (k.allowed & 1U << a) == 0)
            return mistake("unknown attribute \"%s\" of %s", text, k.word);
        if ((e.given & 1U << a) != 0)
            return mistake("%s given twice", text);
        if (a == kShared ? value != nullptr : !parse_number(value, e.values[a]))
            return mistake(a == kShared ? "%s takes no value" : "%s needs a number from 0 to 65535", text);
        e.given |= 1U << a;
        return true;
    }

    static bool parse_number(const char *text, unsigned &number)
    {
        if (text == nullptr || *text < '0' || *text > '9')
            return false;
        char *end = nullptr;
        unsigned long value = std::strtoul(text, &end, 10);
        number = static_cast<unsigned>(value);
        return *end == '\0' && value <= kIdMax;
    }

    void define(const entry &e)
    {
        if (e.kind == kVsysKind)
            define_vsys(e);
        else if (e.kind == kVrKind)
            define_vr(e);
        else
            define_interface(e);
    }

    void define_vsys(const entry &e)
    {
        auto id = static_cast<std::uint16_t>(e.values[kId]);
        if (into_.find_vsys(id) != nullptr) {
            mistake("vsys id %u already taken", id);
        } else if (into_.find_vsys(e.name) != nullptr) {
            mistake("vsys name \"%s\" already taken", e.name);
        } else if (id == 0 && e.values[kDefaultVr] != 1) {
            mistake("the default VR of vsys 0 is always 1"); // user space never asks for it
        } else if (into_.vsys_count == kVsysLimit) {
            mistake("too many vsys, at most %zu", kVsysLimit);
        } else {
            vsys &one = into_.all_vsys[into_.vsys_count++];
            one.id = id;
            one.default_vr = static_cast<std::uint16_t>(e.values[kDefaultVr]);
            std::strcpy(one.name, e.name); // parse() checked the length
        }
    }

    void define_vr(const entry &e)
    {
        unsigned id = e.values[kId];
        if (id < QV_VRID_MIN || id > QV_VRID_MAX) {
            mistake("VR id %u out of range, %d to %d", id, QV_VRID_MIN, QV_VRID_MAX);
        } else if (into_.find_vr(id) != nullptr) {
            mistake("VR id %u already taken", id);
        } else if (into_.find_vr(e.values[kVsys], e.name) != nullptr) {
            mistake("VR name \"%s\" already taken in vsys %u", e.name, e.values[kVsys]);
        } else {
            vr &one = into_.vrs[id];
            std::strcpy(one.name, e.name);
            one.vsys = static_cast<std::uint16_t>(e.values[kVsys]);
            one.flags = flags_of(e);
        }
    }

    void define_interface(const entry &e)
    {
        auto id = static_cast<std::uint16_t>(e.values[kId]);
        if (into_.find_interface(id) != nullptr) {
            mistake("interface id %u already taken", id);
        } else if (into_.find_interface(e.name) != nullptr) {
            mistake("interface name \"%s\" already taken", e.name);
        } else if (into_.interface_count == kInterfaceLimit) {
            mistake("too many interfaces, at most %zu", kInterfaceLimit);
        } else {
            interface &one = into_.interfaces[into_.interface_count++];
            std::strcpy(one.name, e.name);
            one.id = id;
            one.vsys = static_cast<std::uint16_t>(e.values[kVsys]);
            one.vr = e.values[kVr];
            one.flags = flags_of(e);
        }
    }

    static unsigned flags_of(const entry &e) { return (e.given & set_of(kShared)) != 0 ? vr_abi::kShared : 0; }

    void check_references(const entry &e)
    {
        if ((e.given & set_of(kVsys)) != 0 && into_.find_vsys(e.values[kVsys]) == nullptr)
            mistake("there is no vsys %u", e.values[kVsys]);
        for (attribute a : {kDefaultVr, kVr}) {
            if ((e.given & set_of(a)) != 0 && into_.find_vr(e.values[a]) == nullptr)
                mistake("there is no VR %u", e.values[a]);
        }
        if (e.kind == kInterfaceKind)
            check_interfaces_vr(e);
    }

    void check_interfaces_vr(const entry &e)
    {
        const vr *one = into_.find_vr(e.values[kVr]);
        if (one != nullptr && !may_hold(*one, e.values[kVsys]))
            mistake("VR %u belongs to vsys %u and is not shared", e.values[kVr], one->vsys);
    }

    // Reports a mistake. Always false, for the caller to return.
    [[gnu::format(printf, 2, 3)]] bool mistake(const char *format, ...)
    {
        mistakes_++;
        std::fprintf(stderr, "%s:%u: ", config_, line_);
        std::va_list arguments;
        va_start(arguments, format);
        std::vfprintf(stderr, format, arguments);
        va_end(arguments);
        std::fputc('\n', stderr);
        return false;
    }

    const char *config_;
    tables &into_;
    unsigned line_ = 0;
    std::size_t read_ = 0; // bytes of this pass
    unsigned mistakes_ = 0;
};

} // namespace

bool read_config(const char *config, int fd, tables &into)
{
    base::unique_fd own(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    std::FILE *file = ::fdopen(own.get(), "r");
    if (file == nullptr) {
        std::fprintf(stderr, "vrkernel: %s: %s\n", config, std::strerror(errno));
        return false;
    }
    own.release();
    bool good = reader(config, into).read(file);
    std::fclose(file);
    return good;
}

} // namespace qv::vrkernel
