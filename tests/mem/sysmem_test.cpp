// SPDX-License-Identifier: Apache-2.0
#include "sysmem.h"

#include "support/random.h"
#include "support/support.h"

#include <cctype>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

int synced = 0;
bool map_at_null = false;

alignas(16) unsigned char bytes[512];

std::string dumped(const void *addr, int len)
{
    std::size_t before = read_file(kConsole).size();
    mem_dump(addr, len);
    return read_file(kConsole).substr(before);
}

std::string line_address(const void *at)
{
    char text[32];
    std::snprintf(text, sizeof text, "%016llX: ",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(at) & ~std::uintptr_t{15}));
    return text;
}

// The reference: the dump, character by character.
std::string model_dump(const unsigned char *addr, int len)
{
    std::string all;
    auto first = reinterpret_cast<std::uintptr_t>(addr), end = first + static_cast<std::uintptr_t>(len);
    for (std::uintptr_t line = first / 16 * 16; line < end; line += 16) {
        std::string hex = line_address(reinterpret_cast<void *>(line)), text;
        for (std::uintptr_t at = line; at < line + 16; at++) {
            bool inside = at >= first && at < end;
            char cell[8] = "   ";
            if (inside)
                std::snprintf(cell, sizeof cell, " %02X", addr[at - first]);
            hex += cell;
            if (at % 8 == 7)
                hex += ' ';
            if (at < first)
                text += ' ';
            else if (inside)
                text += std::isprint(addr[at - first]) != 0 ? static_cast<char>(addr[at - first]) : '.';
            if (at % 16 == 7 && at + 1 < end)
                text += ' ';
        }
        all += hex + "   " + text + "\n";
    }
    return all;
}

} // namespace

extern "C" void sync(void)
{
    synced++;
}

// No kernel maps address 0 by default.
extern "C" void *mmap(void *addr, std::size_t length, int protection, int flags, int fd, off_t offset)
{
    if (map_at_null)
        return nullptr;
    return reinterpret_cast<void *>(::syscall(SYS_mmap, addr, length, protection, flags, fd, offset));
}

// ---- the page cache ----

TEST(PageCache, WritesA3)
{
    bind_over("/proc/sys/vm/drop_caches", "");
    EXPECT_EQ(0, clear_sys_pagecache(0));
    EXPECT_EQ("3", read_file("/proc/sys/vm/drop_caches"));
    EXPECT_EQ(0, synced);
}

TEST(PageCache, SyncsWhenAsked)
{
    bind_over("/proc/sys/vm/drop_caches", "");
    EXPECT_EQ(0, clear_sys_pagecache(1));
    EXPECT_EQ(0, clear_sys_pagecache(-1));
    EXPECT_EQ(2, synced);
    EXPECT_EQ("3", read_file("/proc/sys/vm/drop_caches"));
}

TEST(PageCache, ACancelledThreadLeavesNoDescriptorOpen)
{
    bind_over("/proc/sys/vm/drop_caches", "");
    std::size_t before = list_dir("/proc/self/fd").size();
    int result = -1;
    std::thread thread([&] {
        ::pthread_cancel(::pthread_self());
        result = clear_sys_pagecache(0);
    });
    thread.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(before, list_dir("/proc/self/fd").size());
}

TEST(PageCache, AFileThatCannotBeOpenedFails)
{
    bind_over("/proc/sys/vm/drop_caches", "");
    ChildResult result = run_child([] {
        rlimit none = {0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        ::_exit(clear_sys_pagecache(1) == -1 && synced == 1 ? 7 : 1);
    });
    EXPECT_TRUE(result.exited(7));
}

TEST(PageCache, AFailedWriteFails)
{
    bind_over("/proc/sys/vm/drop_caches", "");
    ChildResult result = run_child([] {
        rlimit none = {0, 0};
        ::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &none);
        ::_exit(clear_sys_pagecache(0) == -1 ? 7 : 1);
    });
    EXPECT_TRUE(result.exited(7));
}

// ---- dumps ----

TEST(MemDump, OneAlignedLine)
{
    std::memcpy(bytes, "ABCDEFGH\0\x7F\xFFijklm", 16);
    EXPECT_EQ(line_address(bytes) + " 41 42 43 44 45 46 47 48  00 7F FF 69 6A 6B 6C 6D    ABCDEFGH ...ijklm\n",
              dumped(bytes, 16));
}

TEST(MemDump, LastByteOfALine)
{
    bytes[15] = 'z';
    EXPECT_EQ(line_address(bytes) + std::string(24, ' ') + " " + std::string(21, ' ') + " 7A " + "   " +
                  std::string(16, ' ') + "z\n",
              dumped(bytes + 15, 1));
}

TEST(MemDump, TwentyBytesFromTheMiddle)
{
    std::memcpy(bytes + 8, "abcdefghijklmnopqrst", 20);
    EXPECT_EQ(line_address(bytes) + std::string(25, ' ') + " 61 62 63 64 65 66 67 68    " + std::string(9, ' ') +
                  "abcdefgh\n" + line_address(bytes + 16) + " 69 6A 6B 6C 6D 6E 6F 70  71 72 73 74" +
                  std::string(12, ' ') + "    ijklmnop qrst\n",
              dumped(bytes + 8, 20));
}

TEST(MemDump, NothingForNoLength)
{
    EXPECT_EQ("", dumped(bytes, 0));
    EXPECT_EQ("", dumped(bytes, -1));
    EXPECT_EQ("", dumped(nullptr, INT_MIN));
}

TEST(MemDumpModel, EveryAlignmentAndLength)
{
    Random random(1);
    for (unsigned char &byte : bytes)
        byte = static_cast<unsigned char>(random());
    for (int start = 0; start < 16; start++)
        for (int len = 1; len <= 50; len++)
            ASSERT_EQ(model_dump(bytes + start, len), dumped(bytes + start, len)) << start << " for " << len;
}

// ---- shared memory ----

TEST(SharedMemory, IsMadeAndAttachedTo)
{
    mount_tmpfs("/dev/shm");
    std::size_t open = list_dir("/proc/self/fd").size();
    auto *made = static_cast<char *>(init_shared_mem("/region", 8192));
    ASSERT_NE(MAP_FAILED, made);
    struct stat status;
    ASSERT_EQ(0, ::stat("/dev/shm/region", &status));
    EXPECT_EQ(8192, status.st_size);
    std::strcpy(made, "from the first");
    auto *attached = static_cast<char *>(init_shared_mem("/region", 4096));
    EXPECT_STREQ("from the first", attached);
    ASSERT_EQ(0, ::stat("/dev/shm/region", &status));
    EXPECT_EQ(4096, status.st_size) << "resized";
    EXPECT_EQ(open + 2, list_dir("/proc/self/fd").size()) << "the descriptors stay open";
}

TEST(SharedMemory, ANameWithoutASlashIsTheSameObject)
{
    mount_tmpfs("/dev/shm");
    std::strcpy(static_cast<char *>(init_shared_mem("/region", 4096)), "text");
    EXPECT_STREQ("text", static_cast<char *>(init_shared_mem("region", 4096)));
}

TEST(SharedMemory, ModeOfTheFile)
{
    mount_tmpfs("/dev/shm");
    ::umask(0);
    init_shared_mem("/region", 4096);
    struct stat status;
    ASSERT_EQ(0, ::stat("/dev/shm/region", &status));
    EXPECT_EQ(0777U, status.st_mode & 07777);
}

TEST(SharedMemory, AFailedMappingIsReturned)
{
    mount_tmpfs("/dev/shm");
    EXPECT_EQ(MAP_FAILED, init_shared_mem("/region", 0));
    EXPECT_EQ("", read_file(kConsole));
}

TEST(SharedMemory, ANameThatCannotBeOpenedGivesNull)
{
    EXPECT_EQ(nullptr, init_shared_mem("/no/such/name", 4096));
    EXPECT_EQ(nullptr, init_shared_mem("", 4096));
    EXPECT_EQ("", read_file(kConsole));
}

TEST(SharedMemory, OnlyANullMappingIsReported)
{
    mount_tmpfs("/dev/shm");
    map_at_null = true;
    void *address = init_shared_mem("/region", 4096);
    map_at_null = false;
    EXPECT_EQ(nullptr, address);
    EXPECT_EQ("mmap /region failed\n", read_file(kConsole));
}
