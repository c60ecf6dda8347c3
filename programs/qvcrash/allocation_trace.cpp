// SPDX-License-Identifier: Apache-2.0
#include "allocation_trace.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <unordered_map>

namespace qvcrash {
namespace {

// "@ FILE:(SYMBOL+0x10)[0xADDRESS] + 0xBLOCK 0xSIZE"
struct trace_line {
    std::string_view file;
    std::uint64_t address = 0;
    char operation = 0; // + - < > !
    std::uint64_t block = 0;
    std::uint64_t size = 0;
};

bool read_hex(std::string_view &text, std::uint64_t *value)
{
    if (!text.starts_with("0x"))
        return false;
    auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), *value, 16);
    if (error != std::errc{})
        return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool read_line(std::string_view text, trace_line *line)
{
    if (!text.starts_with("@ "))
        return false;
    text.remove_prefix(2);
    std::size_t bracket = text.find("[0x");
    if (bracket == std::string_view::npos)
        return false;
    std::string_view place = text.substr(0, bracket);
    line->file = place.substr(0, std::min(place.rfind(':'), place.size()));
    text.remove_prefix(bracket + 1);
    if (!read_hex(text, &line->address) || !text.starts_with("] ") || text.size() < 4)
        return false;
    line->operation = text[2];
    if (std::string_view("+-<>!").find(line->operation) == std::string_view::npos || text[3] != ' ')
        return false;
    text.remove_prefix(4);
    if (!read_hex(text, &line->block))
        return false;
    text.remove_prefix(text.starts_with(' ') ? 1 : 0);
    return read_hex(text, &line->size) || line->operation == '-' || line->operation == '<';
}

struct live_block {
    std::uint64_t size;
    std::string_view file;
    std::uint64_t address;
};

} // namespace

allocation_trace parse_allocation_trace(std::string_view text)
{
    allocation_trace trace;
    std::unordered_map<std::uint64_t, live_block> blocks;
    while (!text.empty()) {
        std::size_t end = std::min(text.find('\n'), text.size());
        trace_line line;
        if (read_line(text.substr(0, end), &line)) {
            trace.calls++;
            if (line.operation == '+' || line.operation == '>')
                blocks[line.block] = {line.size, line.file, line.address};
            else if (line.operation != '!' && blocks.erase(line.block) == 0)
                trace.unknown_frees++;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }

    std::map<std::pair<std::string_view, std::uint64_t>, live_group> groups;
    for (const auto &[address, block] : blocks) {
        live_group &group = groups[{block.file, block.address}];
        group.caller.file = block.file;
        group.caller.address = block.address;
        group.caller.offset = static_cast<std::int64_t>(block.address);
        group.blocks++;
        group.bytes += block.size;
    }
    trace.live_blocks = blocks.size();
    for (auto &[place, group] : groups)
        trace.groups.push_back(std::move(group));
    std::stable_sort(trace.groups.begin(), trace.groups.end(),
                     [](const live_group &a, const live_group &b) { return a.bytes > b.bytes; });
    return trace;
}

} // namespace qvcrash
