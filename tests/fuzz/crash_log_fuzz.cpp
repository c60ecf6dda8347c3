// SPDX-License-Identifier: Apache-2.0
// Any text as a crash log: every reported part is a part of the text.
#include "programs/qvcrash/allocation_trace.h"
#include "programs/qvcrash/crash_log.h"
#include "programs/qvcrash/signature.h"
#include "programs/qvcrash/text_scanner.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace qvcrash;

namespace {

constexpr char kName[] = "sampled89.coredump.11.log";

void require(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string bytes(reinterpret_cast<const char *>(data), size), plain;
    const std::string text(with_plain_lines(bytes, &plain));
    crash_log log = parse_crash_log(bytes, kName);
    require(log.registers.size() <= kRegisterCount);
    require(text.find(log.host_text) != std::string::npos && text.ends_with(log.tail));
    for (const logged_frame &frame : log.frames)
        require(text.find(frame.code.symbol) != std::string::npos && text.find(frame.code.file) != std::string::npos);
    std::string signature = signature_maker()(log);
    require(!signature.empty());
    require(signature == signature_maker()(parse_crash_log(bytes, kName, log_extent::signature)));
    readable_signature(text);

    allocation_trace trace = parse_allocation_trace(text);
    std::uint64_t blocks = 0;
    for (const live_group &group : trace.groups)
        blocks += group.blocks;
    require(blocks == trace.live_blocks && blocks <= trace.calls);

    parse_crash_log("", text); // a hostile name
    return 0;
}
