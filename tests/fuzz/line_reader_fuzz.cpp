// SPDX-License-Identifier: Apache-2.0
// The reader of the kernel's mapping lists: lines are whole and in order, and parsing a range stays within its line.
#include "fault/line_reader.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <sys/mman.h>

using namespace qv;

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

int file_of(const uint8_t *data, std::size_t size)
{
    int fd = ::memfd_create("lines", 0);
    require(fd >= 0 && ::write(fd, data, size) == static_cast<ssize_t>(size));
    ::lseek(fd, 0, SEEK_SET);
    return fd;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    fault::hfgets_state reader = {};
    reader.fd = file_of(data, size);
    char line[fault::kLineSize];
    std::size_t at = 0;
    while (fault::hfgets(line, &reader) != nullptr) {
        std::size_t end = text.find('\n', at);
        require(end != std::string_view::npos && end - at < fault::kLineSize);
        require(text.substr(at, end - at) == std::string_view(line, end - at) && line[end - at] == '\0');
        const char *line_end = line + (end - at);
        at = end + 1;
        require(reader.consumed == at);

        fault::mapping_line mapping;
        if (fault::parse_mapping(line, &mapping))
            require(mapping.permissions > line && mapping.permissions <= line_end);
    }
    // It ended because there is no further newline, or none within a buffer.
    std::size_t next = text.find('\n', at);
    require(next == std::string_view::npos || next - at >= fault::kLineSize);
    ::close(reader.fd);
    return 0;
}
