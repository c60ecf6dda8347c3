// SPDX-License-Identifier: Apache-2.0
// Page cache control, memory dump, named shared memory.
#include "sysmem.h"

#include "base/cancel_guard.h"
#include "console_print.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr uintptr_t kLine = 16;

// Prints the line of 16 bytes at start, of which those from first up to end are in the range.
void dump_line(uintptr_t start, uintptr_t first, uintptr_t end)
{
    char hex[18 + kLine * 3 + 2 + 1];
    char text[kLine + 1 + 1];
    int hex_len = std::snprintf(hex, sizeof hex, "%016llX: ", static_cast<unsigned long long>(start));
    size_t text_len = 0;
    for (uintptr_t i = 0; i < kLine; i++) {
        const uintptr_t at = start + i;
        const bool inside = at >= first && at - first < end - first;
        const auto room = sizeof hex - static_cast<size_t>(hex_len);
        if (inside) {
            const unsigned char byte = *reinterpret_cast<const unsigned char *>(at);
            hex_len += std::snprintf(hex + hex_len, room, " %02X", byte);
            text[text_len++] = std::isprint(byte) ? static_cast<char>(byte) : '.';
        } else {
            hex_len += std::snprintf(hex + hex_len, room, "   ");
            if (at < first)
                text[text_len++] = ' ';
        }
        if (i == 7 || i == 15)
            hex[hex_len++] = ' ';
        if (i == 7 && (at < first || at + 1 < end))
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
    if (do_sync)
        sync();
    base::cancel_guard whole;
    FILE *control = std::fopen("/proc/sys/vm/drop_caches", "w");
    if (!control)
        return -1;
    const bool written = std::fputc('3', control) != EOF;
    const bool flushed = std::fclose(control) == 0; // the kernel refuses, if it does, only here
    return written && flushed ? 0 : -1;
}

void mem_dump(const void *addr, int len)
{
    if (len < 1)
        return;
    const auto first = reinterpret_cast<uintptr_t>(addr);
    const uintptr_t end = first + static_cast<uintptr_t>(len);
    for (uintptr_t line = first & ~(kLine - 1); line < end; line += kLine)
        dump_line(line, first, end);
}

void *init_shared_mem(const char *name, unsigned int size)
{
    const int fd = shm_open(name, O_RDWR | O_CREAT, 0777);
    if (fd < 0)
        return nullptr;
    [[maybe_unused]] const int resized = ftruncate(fd, static_cast<off_t>(size));
    void *address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    // Only null counts as a failure here: callers compare with MAP_FAILED themselves. The descriptor stays open.
    if (!address)
        console_print("mmap %s failed\n", name);
    return address;
}

} // extern "C"
