// SPDX-License-Identifier: Apache-2.0
// The settings file that all processes share: whole-file locks, lookup, replacement.
#include "qv_env.h"

#include "base/cancel_guard.h"
#include "base/unique_fd.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace qv;

namespace {

constexpr mode_t kFileMode = 0644;
constexpr std::size_t kKeySize = QV_ENV_NAME_MAX + 2; // the longest name, '=' and the end
constexpr std::size_t kUnreadableLength = QV_ENV_VALUE_MAX;
constexpr std::size_t kResultLength = 65; // a longer value is cut to it

// The result of both readers. Not locked: a thread may see the value that another thread asked for.
char myenv[kResultLength + 1];

// "name=", cut to 31 characters: a name of 31 or more loses its '='.
struct lookup_key {
    char text[kKeySize];
    std::size_t length;

    explicit lookup_key(const char *name)
    {
        length = std::min(std::strlen(name), kKeySize - 1);
        std::memcpy(text, name, length);
        if (length < kKeySize - 1)
            text[length++] = '=';
        text[length] = '\0';
    }
    bool is_cut() const { return text[length - 1] != '='; }
};

// The settings file, open and locked until the end of the scope, with its text in memory. No cancellation meanwhile: a
// thread that ended here would leave the file locked for all other processes, or cut off before the new record.
class locked_file {
public:
    locked_file(const char *path, int flags, short lock) : fd_(::open(path, flags | O_CLOEXEC, kFileMode))
    {
        locked_ = fd_ && file_lock(fd_.get(), lock, 1) == 0;
    }
    ~locked_file()
    {
        if (locked_)
            file_unlock(fd_.get());
        std::free(text_);
    }
    locked_file(const locked_file &) = delete;
    locked_file &operator=(const locked_file &) = delete;

    bool load()
    {
        struct stat status;
        if (!locked_ || ::fstat(fd_.get(), &status) != 0)
            return false;
        // A process without the lock may append now; only the size seen here is read.
        std::size_t size = static_cast<std::size_t>(status.st_size);
        text_ = static_cast<char *>(std::malloc(size + 1));
        if (text_ == nullptr)
            return false;
        return read_text(size);
    }

    int fd() const { return fd_.get(); }
    const char *text() const { return text_; }

private:
    // A read may be short. Text that is not read here is lost when a record before it is removed.
    bool read_text(std::size_t size)
    {
        std::size_t have = 0;
        while (have < size) {
            ssize_t length = ::read(fd_.get(), text_ + have, size - have);
            if (length < 0)
                return false;
            if (length == 0)
                break; // a process without the lock has truncated the file
            have += static_cast<std::size_t>(length);
        }
        text_[have] = '\0';
        return true;
    }

    base::cancel_guard whole_;
    base::unique_fd fd_;
    bool locked_ = false;
    char *text_ = nullptr;
};

// Errors are ignored: on a full file system the settings written before stay readable. One write, unless the kernel
// accepts only a part.
void put(int fd, const char *text)
{
    std::size_t left = std::strlen(text);
    ssize_t written;
    do {
        written = ::write(fd, text, left);
        text += std::max<ssize_t>(written, 0);
        left -= static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    } while (left != 0 && written > 0);
}

// Removes the old record and leaves the file offset at the new end. The cut is at the match, also within a line: the
// text before it in that line joins the next line.
void cut_record(int fd, const char *text, const char *match)
{
    off_t offset = match - text;
    [[maybe_unused]] int cut = ::ftruncate(fd, offset);
    ::lseek(fd, offset, SEEK_SET);
    const char *newline = std::strchr(match, '\n');
    if (newline != nullptr && newline[1] != '\0')
        put(fd, newline + 1);
}

// The value from here to the end of its line, in the result buffer.
char *take_value(const char *value)
{
    std::size_t length = std::strcspn(value, "\n");
    // Contract: neither this bound nor the length 65 below is a mistake; programs depend on both.
    if (length == kUnreadableLength)
        return nullptr;
    length = std::min(length, kResultLength);
    std::memcpy(myenv, value, length);
    myenv[length] = '\0';
    return myenv;
}

// The text after the '=' of the first match, which may be anywhere. A cut key has no '=': then the next one in the line
// counts.
const char *find_value(const char *text, const char *name)
{
    lookup_key key(name);
    const char *match = std::strstr(text, key.text);
    if (match == nullptr)
        return nullptr;
    const char *value = match + key.length;
    if (!key.is_cut())
        return value;
    value += std::strcspn(value, "=\n");
    return *value == '=' ? value + 1 : nullptr;
}

// Only the first occurrence of the bare name counts, even if a later line holds "name=".
const char *find_value_strictly(const char *text, const char *name)
{
    const char *match = std::strstr(text, name);
    if (match == nullptr)
        return nullptr;
    const char *end = match + std::strlen(name);
    return *end == '=' ? end + 1 : nullptr;
}

template <typename Find>
char *look_up(const char *path, const char *name, Find find)
{
    locked_file file(path, O_RDONLY, F_RDLCK);
    if (!file.load())
        return nullptr;
    const char *value = find(file.text(), name);
    return value != nullptr ? take_value(value) : nullptr;
}

int store(const char *name, const char *value, int overwrite)
{
    if (std::strlen(value) > QV_ENV_VALUE_MAX || std::strlen(name) > QV_ENV_NAME_MAX)
        return -1;

    locked_file file(QV_ENV_FILE, O_RDWR | O_CREAT, F_WRLCK);
    if (!file.load())
        return -1;

    lookup_key key(name);
    const char *match = std::strstr(file.text(), key.text);
    if (match != nullptr && overwrite == 0)
        return -2;
    if (match != nullptr)
        cut_record(file.fd(), file.text(), match);
    else
        ::lseek(file.fd(), 0, SEEK_END);

    put(file.fd(), name);
    put(file.fd(), "=");
    put(file.fd(), value);
    put(file.fd(), "\n");
    return 0;
}

} // namespace

extern "C" {

int file_lock(int fd, short type, int wait)
{
    struct flock whole_file = {};
    whole_file.l_type = type;
    whole_file.l_whence = SEEK_SET;
    return ::fcntl(fd, wait != 0 ? F_SETLKW : F_SETLK, &whole_file);
}

int file_unlock(int fd)
{
    return file_lock(fd, F_UNLCK, 1);
}

// These three are cancellation points, as the calls inside are, but act only with the file closed.

int qv_setenv(const char *name, const char *value, int overwrite)
{
    int result = store(name, value, overwrite);
    ::pthread_testcancel();
    return result;
}

char *qv_getenv(const char *name)
{
    char *value = look_up(QV_ENV_FILE, name, find_value);
    ::pthread_testcancel();
    return value;
}

char *qv_getenv_filename(const char *path, const char *name)
{
    char *value = look_up(path, name, find_value_strictly);
    ::pthread_testcancel();
    return value;
}

} // extern "C"
