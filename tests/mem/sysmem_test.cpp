// SPDX-License-Identifier: Apache-2.0
#include "sysmem.h"

#include "support/support.h"

#include <cstdio>

namespace {

alignas(16) char bytes[32] = "ABCDEFGH";

std::string address()
{
    char text[32];
    std::snprintf(text, sizeof text, "%016llX: ", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(bytes)));
    return text;
}

TEST(MemDump, OneAlignedLine)
{
    mem_dump(bytes, 16);
    EXPECT_EQ(support::read_file(support::kConsole),
              address() + " 41 42 43 44 45 46 47 48  00 00 00 00 00 00 00 00    ABCDEFGH ........\n");
}

TEST(MemDump, LastByteOfALine)
{
    bytes[15] = 'z';
    mem_dump(bytes + 15, 1);
    EXPECT_EQ(support::read_file(support::kConsole), address() + std::string(24, ' ') + " " + std::string(21, ' ') +
                                                         " 7A " + "   " + std::string(16, ' ') + "z\n");
}

TEST(MemDump, NothingForNoLength)
{
    mem_dump(bytes, 0);
    mem_dump(bytes, -1);
    EXPECT_EQ(support::read_file(support::kConsole), "");
}

} // namespace
