// SPDX-License-Identifier: Apache-2.0
// The digest of a file in a host that defines the digest functions itself: these record their arguments.
#include "encoding.h"

#include "support/support.h"

#include <dirent.h>
#include <pthread.h>
#include <thread>

using namespace support;

namespace {

int begun;
int ended;
std::vector<std::size_t> chunks;
std::string seen;

int open_descriptors()
{
    return static_cast<int>(list_dir("/proc/self/fd").size());
}

} // namespace

extern "C" {
int MD5_Init(void *);
int MD5_Update(void *, const void *data, std::size_t length);
int MD5_Final(unsigned char *digest, void *);

int MD5_Init(void *)
{
    begun++;
    return 1;
}

int MD5_Update(void *, const void *data, std::size_t length)
{
    chunks.push_back(length);
    seen.append(static_cast<const char *>(data), length);
    return 1;
}

int MD5_Final(unsigned char *digest, void *)
{
    ended++;
    for (int i = 0; i < 16; i++)
        digest[i] = static_cast<unsigned char>(i * 17);
    return 1;
}
}

TEST(FileMd5, DigestAsLowerCaseDigits)
{
    write_file("/tmp/file", "abc");
    char text[40] = "#######################################";
    EXPECT_EQ(0, filemd5str("/tmp/file", text, sizeof text));
    EXPECT_STREQ("00112233445566778899aabbccddeeff", text);
    EXPECT_EQ('#', text[33]);
    EXPECT_EQ("abc", seen);
    EXPECT_EQ(1, begun);
    EXPECT_EQ(1, ended);
}

TEST(FileMd5, ReadsInChunks)
{
    write_file("/tmp/file", std::string(5000, 'x'));
    char text[33];
    EXPECT_EQ(0, filemd5str("/tmp/file", text, sizeof text));
    EXPECT_EQ((std::vector<std::size_t>{2048, 2048, 904}), chunks);
    EXPECT_EQ(std::string(5000, 'x'), seen);
}

TEST(FileMd5, NeedsRoomFor33)
{
    write_file("/tmp/file", "abc");
    char text[33] = "#";
    EXPECT_EQ(-1, filemd5str("/tmp/file", text, 32));
    EXPECT_EQ(-1, filemd5str("/tmp/file", nullptr, 33));
    EXPECT_EQ('#', text[0]);
    EXPECT_EQ(0, begun);
    EXPECT_EQ(0, filemd5str("/tmp/file", text, 33));
}

TEST(FileMd5, AFileThatCannotBeOpened)
{
    char text[33] = "#";
    EXPECT_EQ(-1, filemd5str("/tmp/none", text, sizeof text));
    EXPECT_EQ('#', text[0]);
    EXPECT_EQ(0, begun);
}

TEST(FileMd5, AReadErrorEndsTheInput)
{
    char text[33];
    EXPECT_EQ(0, filemd5str("/tmp", text, sizeof text)) << "a directory can be opened but not read";
    EXPECT_EQ(1, ended);
    EXPECT_TRUE(chunks.empty());
}

TEST(FileMd5, LeavesNoDescriptorOpen)
{
    write_file("/tmp/file", "abc");
    int before = open_descriptors();
    char text[33];
    for (int i = 0; i < 5; i++)
        filemd5str("/tmp/file", text, sizeof text);
    EXPECT_EQ(before, open_descriptors());
}

TEST(FileMd5, ACancelledThreadLeavesNoDescriptorOpen)
{
    write_file("/tmp/file", "abc");
    int before = open_descriptors();
    bool is_digested = false;
    std::thread thread([&] {
        char text[33];
        ::pthread_cancel(::pthread_self());
        is_digested = filemd5str("/tmp/file", text, sizeof text) == 0;
    });
    thread.join();
    EXPECT_TRUE(is_digested);
    EXPECT_EQ(before, open_descriptors());
}
