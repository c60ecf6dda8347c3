// SPDX-License-Identifier: Apache-2.0
// Page cache control, memory dump, named shared memory.
#include "sysmem.h"

#include "base/cancel_guard.h"
#include "console_print.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace qv;

namespace {

constexpr std::uintptr_t kLine = 16;       // bytes
constexpr std::size_t kAddressDigits = 16; // of an address, before ": "
constexpr std::size_t kByteText = 3;       // characters of a byte: " %02X"
constexpr std::size_t kGaps = 2;           // one after each half of the line
constexpr std::uintptr_t kFirstHalfEnd = 7;
constexpr std::uintptr_t kLineEnd = 15;

// Prints the line of 16 bytes at start. Only the bytes in [first, end) are read; the others are blank.
void dump_line(std::uintptr_t start, std::uintptr_t first, std::uintptr_t end)
{
    char hex[kAddressDigits + 2 + kLine * kByteText + kGaps + 1];
    char text[kLine + 1 + 1];
    int hex_len = std::snprintf(hex, sizeof hex, "%016llX: ", static_cast<unsigned long long>(start));
    std::size_t text_len = 0;
    for (std::uintptr_t i = 0; i < kLine; i++) {
        const std::uintptr_t at = start + i;
        const bool inside = at >= first && at - first < end - first;
        const auto room = sizeof hex - static_cast<std::size_t>(hex_len);
        if (inside) {
            const unsigned char byte = *reinterpret_cast<const unsigned char *>(at);
            hex_len += std::snprintf(hex + hex_len, room, " %02X", byte);
            text[text_len++] = std::isprint(byte) != 0 ? static_cast<char>(byte) : '.';
        } else {
            hex_len += std::snprintf(hex + hex_len, room, "   ");
            if (at < first)
                text[text_len++] = ' ';
        }
        if (i == kFirstHalfEnd || i == kLineEnd)
            hex[hex_len++] = ' ';
        if (i == kFirstHalfEnd && (at < first || at + 1 < end))
            text[text_len++] = ' ';
    }
    hex[hex_len] = '\0';
    text[text_len] = '\0';
    console_print("%s   %s\n", hex, text);
}

} // namespace

extern "C" {

int clear_sys_pagecache(int do_sync)
{
    if (do_sync != 0)
        ::sync();
    base::cancel_guard whole;
    std::FILE *control = std::fopen("/proc/sys/vm/drop_caches", "w");
    if (control == nullptr)
        return -1;
    const bool written = std::fputc('3', control) != EOF;
    const bool flushed = std::fclose(control) == 0; // the kernel refuses a write only when the stream flushes it
    return written && flushed ? 0 : -1;
}

void mem_dump(const void *addr, int len)
{
    if (len < 1)
        return;
    const auto first = reinterpret_cast<std::uintptr_t>(addr);
    const std::uintptr_t end = first + static_cast<std::uintptr_t>(len);
    for (std::uintptr_t line = first & ~(kLine - 1); line < end; line += kLine)
        dump_line(line, first, end);
}

void *init_shared_mem(const char *name, unsigned int size)
{
    const int fd = ::shm_open(name, O_RDWR | O_CREAT, 0777);
    if (fd < 0)
        return nullptr;
    [[maybe_unused]] const int resized = ::ftruncate(fd, static_cast<off_t>(size));
    void *address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    // Contract: MAP_FAILED is returned as it is, without a message, and the descriptor stays open.
    if (address == nullptr)
        console_print("mmap %s failed\n", name);
    return address;
}

} // extern "C"
