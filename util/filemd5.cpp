// SPDX-License-Identifier: Apache-2.0
// The MD5 digest of a file, by the digest functions of the host's libcrypto.
#include "encoding.h"

#include <cstddef>
#include <cstdio>
#include <unistd.h>

// Weak, so that a host that has no libcrypto can load the library.
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

// A read error ends the input like the end of the file.
void digest_of(int fd, unsigned char (&digest)[kDigest])
{
    alignas(std::max_align_t) unsigned char room[kStateRoom];
    auto *state = reinterpret_cast<MD5state_st *>(room);
    MD5_Init(state);
    unsigned char chunk[kChunk];
    for (ssize_t length; (length = ::read(fd, chunk, sizeof chunk)) > 0;)
        MD5_Update(state, chunk, static_cast<std::size_t>(length));
    MD5_Final(digest, state);
}

} // namespace

extern "C" int filemd5str(const char *path, char *dst, size_t dstlen)
{
    if (dst == nullptr || dstlen < 2 * kDigest + 1 || MD5_Init == nullptr)
        return -1;
    std::FILE *file = std::fopen(path, "rb");
    if (file == nullptr)
        return -1;
    unsigned char digest[kDigest] = {};
    digest_of(::fileno(file), digest);
    hex_to_str(digest, dst, kDigest, 2 * kDigest + 1);
    std::fclose(file);
    return 0;
}
