// SPDX-License-Identifier: Apache-2.0
// qvenv - gets, sets and lists the settings that all processes share.
#include "qv_env.h"

#include "base/unique_fd.h"
#include "programs/privileges.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

using namespace qv;

namespace {

// Like those of grep: kNo is not an error.
enum exit_code { kDone = 0, kNo = 1, kTrouble = 2 };

// The result of qv_setenv() for a name that it does not overwrite.
constexpr int kPresent = -2;

constexpr const char *kUsage = "usage: qvenv [-f FILE] get NAME\n"
                               "       qvenv [-f FILE] list\n"
                               "       qvenv set [-n] NAME VALUE\n";

exit_code usage()
{
    std::fputs(kUsage, stderr);
    return kTrouble;
}

exit_code help()
{
    std::fputs(kUsage, stdout);
    std::puts("Gets, sets and lists the settings in " QV_ENV_FILE ".\n"
              "  -f FILE     read another file of that format\n"
              "  -n          leave a setting that is present alone\n"
              "  -h, --help  write this");
    return kDone;
}

exit_code trouble(const char *subject, const char *what)
{
    std::fprintf(stderr, "qvenv: %s: %s\n", subject, what);
    return kTrouble;
}

// Standard output may be a full disk or a closed pipe; the error appears only when it is flushed.
exit_code flushed(exit_code code)
{
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? code : trouble("write", std::strerror(errno));
}

// Anyone may make a file of the store's name before its first writer does. Root must not write through a link into
// another file or leave its settings to another user, and nobody is to wait for the writer of a pipe.
const char *reason_to_refuse_store(const struct stat &status, bool is_written)
{
    if (S_ISDIR(status.st_mode))
        return std::strerror(EISDIR);
    if (!S_ISREG(status.st_mode))
        return "not a regular file";
    if (is_written && status.st_nlink > 1)
        return "has a second name";
    if (is_written && ::geteuid() == 0 && status.st_uid != 0)
        return "belongs to another user";
    return nullptr;
}

// Whether the store may be read, or written: then it is made if needed. A file of this user or root stays in its place
// afterwards, since nobody else may remove it from /tmp.
bool is_store_safe(bool is_written)
{
    const int flags = is_written ? O_RDWR | O_CREAT : O_RDONLY;
    base::unique_fd file(::open(QV_ENV_FILE, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0) {
        if (!is_written && errno != ELOOP)
            return true; // the reader says why it cannot be read
        trouble(QV_ENV_FILE, errno == ELOOP ? "a symbolic link" : std::strerror(errno));
        return false;
    }
    const char *problem = reason_to_refuse_store(status, is_written);
    if (problem != nullptr)
        trouble(QV_ENV_FILE, problem);
    return problem == nullptr;
}

// Copies the whole file under the lock, so that no partial change is listed.
exit_code list(const char *file)
{
    if (file == nullptr && !is_store_safe(false))
        return kTrouble;
    const char *path = file != nullptr ? file : QV_ENV_FILE;
    base::unique_fd source(::open(path, O_RDONLY | O_CLOEXEC));
    if (!source || file_lock(source.get(), F_RDLCK, 1) != 0)
        return trouble(path, std::strerror(errno));
    char chunk[4096];
    ssize_t length;
    while ((length = ::read(source.get(), chunk, sizeof chunk)) > 0)
        std::fwrite(chunk, 1, static_cast<std::size_t>(length), stdout);
    if (length < 0)
        return trouble(path, std::strerror(errno));
    return flushed(kDone);
}

// Whether a file's text can be read; errno holds the reason if not. The lookups return the same for a file that they
// cannot read and for a name that is not set.
bool is_readable(const char *path)
{
    base::unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    char byte;
    return file && file_lock(file.get(), F_RDLCK, 1) == 0 && ::read(file.get(), &byte, 1) >= 0;
}

// The two lookups differ: see qv_getenv_filename(). `file` is null for the store.
exit_code get(const char *file, const char *name)
{
    if (file == nullptr && !is_store_safe(false))
        return kTrouble;
    // Any '=' would match.
    if (*name == '\0')
        return trouble(name, "not a valid name");
    const char *value = file != nullptr ? qv_getenv_filename(file, name) : qv_getenv(name);
    if (value != nullptr) {
        std::puts(value);
        return flushed(kDone);
    }
    // A store that nobody has written to is empty, which is not an error; a file that is given by name must exist.
    const char *path = file != nullptr ? file : QV_ENV_FILE;
    if (!is_readable(path) && (file != nullptr || errno != ENOENT))
        return trouble(path, std::strerror(errno));
    return kNo;
}

// Whether the store holds a whole record of this name. qv_setenv() ignores failed writes: a full disk leaves no record,
// or a piece without its newline. Another process may have replaced the value since, so the value may be any. Only the
// size that the store has now is read, as the library does: a device never ends.
bool is_stored(const char *name)
{
    base::unique_fd file(::open(QV_ENV_FILE, O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (!file || file_lock(file.get(), F_RDLCK, 1) != 0 || ::fstat(file.get(), &status) != 0)
        return false;
    const auto size = static_cast<std::size_t>(status.st_size);
    std::string text;
    char chunk[4096];
    ssize_t length = 0;
    while (text.size() < size && (length = ::read(file.get(), chunk, std::min(sizeof chunk, size - text.size()))) > 0)
        text.append(chunk, static_cast<std::size_t>(length));
    std::size_t record = text.find(std::string(name) + "=");
    return length >= 0 && record != text.npos && text.find('\n', record) != text.npos;
}

exit_code set(const char *name, const char *value, bool overwrite)
{
    std::string_view name_text = name;
    std::string_view value_text = value;
    // The file has no quoting: these would be read back differently.
    if (name_text.empty() || name_text.find_first_of("=\n") != name_text.npos)
        return trouble(name, "not a valid name");
    if (value_text.find('\n') != value_text.npos)
        return trouble(name, "a value has one line");
    if (name_text.size() > QV_ENV_NAME_MAX)
        return trouble(name, "name too long");
    if (value_text.size() > QV_ENV_VALUE_MAX)
        return trouble(name, "value too long");

    if (!is_store_safe(true))
        return kTrouble;
    errno = 0;
    int result = qv_setenv(name, value, overwrite);
    if (result == kPresent) {
        std::fprintf(stderr, "qvenv: %s: already set\n", name);
        return kNo;
    }
    if (result != 0)
        return trouble(QV_ENV_FILE, std::strerror(errno));
    const int error = errno;
    if (error != 0 && !is_stored(name))
        return trouble(QV_ENV_FILE, std::strerror(error));
    if (value_text.size() == QV_ENV_VALUE_MAX)
        std::fprintf(stderr, "qvenv: %s: warning: a value of %d characters reads as not set\n", name, QV_ENV_VALUE_MAX);
    return kDone;
}

} // namespace

int main(int argc, char **argv)
{
    const char *file = nullptr;
    constexpr option kLong[] = {{"help", no_argument, nullptr, 'h'}, {}};
    // The '+' stops at the command, so that a value may begin with a dash.
    for (int option; (option = ::getopt_long(argc, argv, "+f:h", kLong, nullptr)) != -1;) {
        if (option == 'h')
            return flushed(help());
        if (option != 'f')
            return usage();
        file = optarg;
    }
    argc -= optind;
    argv += optind;
    if (argc == 0)
        return usage();

    std::string_view command = argv[0];
    if (!programs::keep_capabilities({CAP_DAC_READ_SEARCH}))
        return trouble("capabilities", std::strerror(errno));
    if (command == "list")
        return argc == 1 ? list(file) : usage();
    if (command == "get")
        return argc == 2 ? get(file, argv[1]) : usage();
    if (command != "set")
        return usage();
    if (file != nullptr)
        return trouble("set", "-f is for reading; only " QV_ENV_FILE " can be changed");
    bool keep = argc == 4 && std::strcmp(argv[1], "-n") == 0;
    if (!keep && argc != 3)
        return usage();
    return set(argv[argc - 2], argv[argc - 1], !keep);
}
