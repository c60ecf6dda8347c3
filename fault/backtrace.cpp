// SPDX-License-Identifier: Apache-2.0
// Executable mappings, the frame walk and symbol texts. Everything here runs inside the fatal-signal handlers.
#include "backtrace.h"

#include "base/cancel_guard.h"
#include "base/unique_fd.h"
#include "fault/backtrace_internal.h"
#include "fault/machine_context.h"
#include "fault/module_symbols.h"
#include "fault/safe_memory.h"
#include "fault/section_table.h"
#include "signal_printf.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

using namespace qv;

extern "C" {

// Bounds of the host executable's code, from its link; a host linked without them has an empty text range.
[[gnu::weak]] extern const char __qv_text_start[];
[[gnu::weak]] extern const char __qv_text_end[];
// The same bounds as data, in hosts that link libcommon::host; its source says why.
[[gnu::weak]] extern const char *const __qv_text_bounds[2];

uint64_t stack_main_top;

} // extern "C"

namespace {

constexpr std::size_t kPathSize = 64;

// Frame records are two words: the link to the caller's record, then the return address.
constexpr unsigned long kReturnAddressOffset = sizeof(unsigned long);

bool is_host_text(unsigned long addr)
{
    bool has_record = __qv_text_bounds != nullptr;
    auto start = reinterpret_cast<unsigned long>(has_record ? __qv_text_bounds[0] : __qv_text_start);
    auto end = reinterpret_cast<unsigned long>(has_record ? __qv_text_bounds[1] : __qv_text_end);
    return end != 0 && addr >= start && addr <= end;
}

// A return address may carry a signature in its upper bits. The value is returned unchanged unless removing the
// signature gives an address of known code.
unsigned long without_signature(unsigned long return_address)
{
    unsigned long address = fault::strip_signature(return_address);
    return address == return_address || fault::is_known_code(address) ? address : return_address;
}

// The entries of a walk, written to the caller's arrays.
class frame_list {
public:
    frame_list(unsigned long *addrs, unsigned long *frames, int max) : addrs_(addrs), frames_(frames), max_(max) {}

    bool is_full() const { return count_ >= max_; }
    int count() const { return count_; }

    void add(unsigned long addr, unsigned long frame)
    {
        if (is_full())
            return;
        addrs_[count_] = addr;
        if (frames_ != nullptr)
            frames_[count_] = frame;
        count_++;
    }

private:
    unsigned long *addrs_;
    unsigned long *frames_;
    int max_;
    int count_ = 0;
};

// How often a look-up starts again because the module was exchanged meanwhile.
constexpr int kLookUps = 3;

// "file(symbol+0x10) [0x...]"; without a symbol the distance is from the load bias, if there is one.
void append_symbol(unsigned long addr, fault::symbol_lookup *lookup, fault::text_buffer *text)
{
    lookup->append_file_name(text);
    text->append('(');
    unsigned long base = lookup->has_symbol() ? lookup->symbol_address() : lookup->load_bias();
    if (lookup->has_symbol() || base != 0) {
        lookup->append_symbol_name(text);
        text->append(addr < base ? '-' : '+');
        text->append_hex(addr < base ? base - addr : addr - base);
    }
    text->append(") [");
    text->append_pointer(addr);
    text->append(']');
}

} // namespace

namespace qv::fault {

const char *process_name(char (&buffer)[kCommandNameSize])
{
    std::memset(buffer, 0, sizeof buffer);
    return get_proc_comm_name(buffer, sizeof buffer - 1) > 0 ? buffer : program_invocation_short_name;
}

bool is_code(unsigned long addr)
{
    return is_host_text(addr) || is_dynamic_lib(addr) != 0;
}

bool is_known_code(unsigned long addr)
{
    const section_record *table = section_table();
    bool has_table = table != nullptr && table[0].start != 0;
    return is_host_text(addr) || (has_table ? is_dynamic_lib(addr) != 0 : is_in_module(addr));
}

int walk_records(safe_memory *memory, unsigned long record, unsigned long *addrs, unsigned long *frames, int max,
                 unsigned long *bottom)
{
    frame_list list(addrs, frames, max);
    unsigned long link = 0;
    *bottom = 0;
    if (record == 0 || !memory->load(record, &link))
        return 0;
    while (!list.is_full()) {
        unsigned long return_address;
        if (!memory->load(record + kReturnAddressOffset, &return_address))
            break;
        list.add(without_signature(return_address), link);
        record = link;
        unsigned long next;
        if (list.is_full() || !memory->load(record, &next) || next == 0)
            break;
        link = next;
    }
    *bottom = link;
    return list.count();
}

int walk_frames(safe_memory *memory, unsigned long fp, unsigned long pc, unsigned long lr, unsigned long *addrs,
                unsigned long *frames, int max, unsigned long *bottom)
{
    base::errno_guard keep;
    frame_list list(addrs, frames, max);
    if (is_code(pc))
        list.add(pc, fp);
    lr = without_signature(lr);
    if (lr != 0 && is_code(lr))
        list.add(lr, kNoFrameMark);
    unsigned long outermost = 0;
    int count = list.count();
    count += walk_records(memory, round_up_to_word(fp), addrs + count, frames != nullptr ? frames + count : nullptr,
                          max - count, &outermost);
    if (bottom != nullptr)
        *bottom = outermost;
    return count;
}

} // namespace qv::fault

extern "C" {

int is_dynamic_lib(unsigned long addr)
{
    const section_record *table = fault::section_table();
    if (table == nullptr || table[0].start == 0)
        return 1; // without a table every address counts as code: a wrong entry in a log is better than none
    for (int i = 0; i < QV_SECTION_MAX && table[i].start != 0; i++) {
        if (addr >= table[i].start && addr < table[i].end)
            return 1;
    }
    return 0;
}

int qv_backtrace_spec(unsigned long fp, unsigned long pc, unsigned long lr, unsigned long *addrs, unsigned long *frames,
                      int max, unsigned long *bottom)
{
    if (addrs == nullptr)
        return 0;
    fault::safe_memory memory(fault::safe_memory::subject::stack);
    return fault::walk_frames(&memory, fp, pc, lr, addrs, frames, max, bottom);
}

void backtrace_symbol_to_buffer(unsigned long addr, char *out)
{
    fault::text_buffer text(out, kSymbolTextSize);
    for (int i = 0; i < kLookUps; i++) {
        fault::symbol_lookup lookup(addr);
        text.clear();
        if (lookup.is_found())
            append_symbol(addr, &lookup, &text);
        else
            text.append_pointer(addr);
        if (lookup.is_current())
            return;
    }
    text.clear();
    text.append_pointer(addr);
}

int get_function_name_by_ptr(void *ptr, char *dst, int size)
{
    fault::text_buffer text(dst, size > 0 ? static_cast<std::size_t>(size) : 0);
    if (ptr == nullptr) {
        text.append("NULL");
        return static_cast<int>(text.length());
    }
    auto address = reinterpret_cast<unsigned long>(ptr);
    bool is_named = false;
    for (int i = 0; i < kLookUps && !is_named; i++) {
        fault::symbol_lookup lookup(address);
        text.clear();
        if (lookup.has_symbol()) {
            lookup.append_symbol_name(&text);
            text.append('@');
        }
        is_named = lookup.is_current();
    }
    if (!is_named)
        text.clear();
    text.append_pointer(address);
    if (size > 0)
        dst[size - 1] = '\0'; // callers copy all of dst, so its last byte is set even after a short text
    return static_cast<int>(text.length());
}

int get_proc_comm_name(char *buf, int len)
{
    base::errno_guard keep;
    base::cancel_guard no_cancellation;
    char path[kPathSize] = "/proc/self/comm";
    if (qv_handle_thread != 0)
        signal_snprintf(path, sizeof path, "/proc/%u/task/%u/comm", ::getpid(), fault::thread_id());
    base::unique_fd fd(::open(path, O_RDONLY));
    // Descriptor 0 counts as a failure, contract: such a process names its logs by its program, not by its comm.
    if (fd.get() < 1 || len < 0)
        return 0;
    auto n = static_cast<int>(::read(fd.get(), buf, static_cast<std::size_t>(len)));
    for (int i = 0; i < n; i++) {
        if (buf[i] == '\r' || buf[i] == '\n')
            buf[i] = '\0';
    }
    return n;
}

} // extern "C"
