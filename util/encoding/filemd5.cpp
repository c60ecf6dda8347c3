// SPDX-License-Identifier: Apache-2.0
// The MD5 digest of a file, with the functions of the host's libcrypto.
#include "encoding.h"

#include "base/cancel_guard.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <dlfcn.h>
#include <unistd.h>

using namespace qv;

// Weak, so that a host without libcrypto can load the library.
extern "C" {
struct MD5state_st;
[[gnu::weak]] int MD5_Init(MD5state_st *state);
[[gnu::weak]] int MD5_Update(MD5state_st *state, const void *data, std::size_t length);
[[gnu::weak]] int MD5_Final(unsigned char *digest, MD5state_st *state);
}

namespace {

constexpr std::size_t kDigest = 16;
constexpr std::size_t kChunk = 2048;
constexpr std::size_t kStateRoom = 256; // libcrypto's record has 92 bytes
constexpr const char *kLibcrypto[] = {"libcrypto.so.3", "libcrypto.so.1.1", "libcrypto.so"};

struct Digest {
    decltype(&MD5_Init) init;
    decltype(&MD5_Update) update;
    decltype(&MD5_Final) final;

    bool complete() const { return init != nullptr && update != nullptr && final != nullptr; }
};

// The library that a search found, or null. It stays loaded. Only the handle is kept, one word that is published
// atomically, so that threads that search at the same time never mix the functions of two libraries.
std::atomic<void *> found_library;

Digest functions_of(void *library)
{
    auto find = [=]<typename F>(F *&function, const char *name) {
        function = reinterpret_cast<F *>(::dlsym(library, name));
    };
    Digest found;
    find(found.init, "MD5_Init");
    find(found.update, "MD5_Update");
    find(found.final, "MD5_Final");
    return found;
}

// Keeps the library unless another thread was faster. Returns the one that is kept.
void *keep(void *library)
{
    void *first = nullptr;
    if (found_library.compare_exchange_strong(first, library))
        return library;
    ::dlclose(library);
    return first;
}

// Looked up by name: a static program has no loader, and linkers warn of a direct call of dlopen().
auto find_dlopen()
{
    return reinterpret_cast<decltype(&::dlopen)>(::dlsym(RTLD_DEFAULT, "dlopen"));
}

// A failure is not remembered: the library may be installed, or memory become free, later.
Digest search()
{
    const auto open_library = find_dlopen();
    if (open_library == nullptr)
        return {};
    for (const char *name : kLibcrypto) {
        void *library = open_library(name, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr)
            continue;
        if (functions_of(library).complete())
            return functions_of(keep(library));
        ::dlclose(library); // built without MD5
    }
    return {};
}

// A link with --as-needed, the usual default, drops a libcrypto that the host names but does not call: a weak reference
// does not make it needed. When nothing bound the functions, libcrypto is searched by name.
Digest digest_functions()
{
    Digest bound = {MD5_Init, MD5_Update, MD5_Final};
    if (bound.complete())
        return bound;
    void *library = found_library.load();
    return library != nullptr ? functions_of(library) : search();
}

// A read error ends the input like the end of the file.
void digest_of(const Digest &md5, int fd, unsigned char (&digest)[kDigest])
{
    alignas(std::max_align_t) unsigned char room[kStateRoom];
    auto *state = reinterpret_cast<MD5state_st *>(room);
    md5.init(state);
    unsigned char chunk[kChunk];
    for (ssize_t length; (length = ::read(fd, chunk, sizeof chunk)) > 0;)
        md5.update(state, chunk, static_cast<std::size_t>(length));
    md5.final(digest, state);
}

} // namespace

extern "C" int filemd5str(const char *path, char *dst, size_t dstlen)
{
    if (dst == nullptr || dstlen < 2 * kDigest + 1)
        return -1;
    // A cancelled thread would leave the file open, or the loader's lock taken.
    base::cancel_guard whole;
    const Digest md5 = digest_functions();
    if (!md5.complete())
        return -1;
    std::FILE *file = std::fopen(path, "rb");
    if (file == nullptr)
        return -1;
    unsigned char digest[kDigest] = {};
    digest_of(md5, ::fileno(file), digest);
    hex_to_str(digest, dst, kDigest, 2 * kDigest + 1);
    std::fclose(file);
    return 0;
}
