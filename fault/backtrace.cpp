// SPDX-License-Identifier: Apache-2.0
// Executable mappings, the frame walk and symbol texts. Everything here runs inside the fatal-signal handlers.
#include "backtrace.h"

#include "base/line_reader.h"
#include "base/unique_fd.h"
#include "console_print.h"
#include "fault/backtrace_internal.h"
#include "fault/machine_context.h"
#include "signal_printf.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>

extern "C" {

// Bounds of the host executable's code, from its link; a host linked without them has an empty text range.
[[gnu::weak]] extern const char __qv_text_start[];
[[gnu::weak]] extern const char __qv_text_end[];

__thread struct section_record section_rec[QV_SECTION_MAX];
uint64_t stack_main_top;
int qv_handle_thread;
}

static_assert(sizeof(section_record) == 24 && offsetof(section_record, end) == 8);

namespace {

constexpr std::size_t kPathSize = 64;
constexpr unsigned long kNoFrameMark = 1; // the frame address of an entry that has no frame record of its own

// Frame records are two words: the link to the caller's record, then the return address.
constexpr unsigned long kReturnAddressOffset = sizeof(unsigned long);

bool is_host_text(unsigned long addr)
{
    auto start = reinterpret_cast<unsigned long>(__qv_text_start);
    auto end = reinterpret_cast<unsigned long>(__qv_text_end);
    return end != 0 && addr >= start && addr <= end;
}

bool is_code(unsigned long addr)
{
    return is_host_text(addr) || is_dynamic_lib(addr) != 0;
}

bool is_known_code(unsigned long addr)
{
    return is_host_text(addr) || (section_rec[0].start != 0 && is_dynamic_lib(addr) != 0);
}

// A return address may bear a signature in its upper bits. What is no signed address of code that is known here is told
// as it stands in the record.
unsigned long without_signature(unsigned long return_address)
{
    unsigned long address = fault::strip_signature(return_address);
    return address == return_address || is_known_code(address) ? address : return_address;
}

// Reads words of memory that may not be there. The chain of a thread that was caught in code without frame pointers can
// lead anywhere, and a dump request must not kill a healthy process.
class frame_memory {
public:
    // False when the word at `address` cannot be read.
    bool load(unsigned long address, unsigned long *word)
    {
        if (!is_readable_page(address) || !is_readable_page(address + sizeof *word - 1))
            return false;
        *word = read_word(address);
        return true;
    }

private:
    // The smallest page of any port: with larger ones a few probes more are made.
    static constexpr unsigned long kPage = 4096;

    bool is_readable_page(unsigned long address)
    {
        unsigned long page = address & ~(kPage - 1);
        if (page == known_page_)
            return true;
        if (!probe(page))
            return false;
        known_page_ = page;
        return true;
    }

    // The kernel copies the new mask in before it looks at `how`. So an invalid `how` changes nothing and tells
    // readable memory (EINVAL) from the rest (EFAULT), without a descriptor and cheaper than any copying call. A null
    // mask would not be read at all; nothing is ever mapped there.
    static bool probe(unsigned long page)
    {
        constexpr int kInvalidHow = -1;
        constexpr std::size_t kKernelMaskSize = 8;
        if (page == 0)
            return false;
        return ::syscall(SYS_rt_sigprocmask, kInvalidHow, page, nullptr, kKernelMaskSize) == -1 && errno == EINVAL;
    }

    // Links may be unaligned, and the memory is another frame's: the sanitizers have no say here.
#if defined(__clang__)
    __attribute__((no_sanitize("address", "thread", "undefined")))
#else
    __attribute__((no_sanitize("address,thread,undefined")))
#endif
    static unsigned long
    read_word(unsigned long address)
    {
        struct [[gnu::packed, gnu::may_alias]] unaligned_word
        {
            unsigned long value;
        };
        return reinterpret_cast<const unaligned_word *>(address)->value;
    }

    unsigned long known_page_ = 1; // no page starts there
};

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

// Follows the chain from the record at `record` and returns the last link read. Return addresses are not compared with
// the code ranges nor records with the stack: a sound chain may lie anywhere, and a broken one ends by itself.
unsigned long walk_records(unsigned long record, frame_list *list)
{
    frame_memory memory;
    unsigned long link = 0;
    if (record == 0 || !memory.load(record, &link))
        return 0;
    while (!list->is_full()) {
        unsigned long return_address;
        if (!memory.load(record + kReturnAddressOffset, &return_address))
            break;
        list->add(without_signature(return_address), link);
        record = link;
        unsigned long next;
        if (list->is_full() || !memory.load(record, &next) || next == 0)
            break;
        link = next;
    }
    return link;
}

constexpr unsigned long round_up_to_word(unsigned long address)
{
    return (address + sizeof(unsigned long) - 1) & ~(sizeof(unsigned long) - 1);
}

int open_process_maps()
{
    char path[kPathSize];
    if (qv_handle_thread != 0)
        signal_snprintf(path, sizeof path, "/proc/%u/task/%u/maps", ::getpid(), fault::thread_id());
    else
        signal_snprintf(path, sizeof path, "/proc/%u/maps", ::getpid());
    return ::open(path, O_RDONLY);
}

// Permissions read "rwxp": code is executable and not writable, whether readable or not.
bool is_code_mapping(const base::mapping_line &mapping)
{
    const char *permissions = mapping.permissions;
    return permissions[0] != '\0' && permissions[1] == '-' && permissions[2] == 'x' && mapping.start != 0 &&
           mapping.start < mapping.end;
}

} // namespace

extern "C" {

int procps_read_maps(void)
{
    base::errno_guard keep;
    std::memset(section_rec, 0, sizeof section_rec);
    base::unique_fd fd(open_process_maps());
    if (!fd)
        return -1;

    base::hfgets_state reader = {};
    reader.fd = fd.get();
    char line[base::kLineSize];
    std::size_t count = 0;
    while (base::hfgets(line, &reader) != nullptr) {
        // Told only when a line follows the last record that fits, whatever that line is.
        if (count == QV_SECTION_MAX) {
            console_print("procps_read_maps, exec section number large than %u.\n", QV_SECTION_MAX);
            break;
        }
        base::mapping_line mapping;
        if (base::parse_mapping(line, &mapping) && is_code_mapping(mapping))
            section_rec[count++] = {mapping.start, mapping.end, 0};
    }
    return 0;
}

int is_dynamic_lib(unsigned long addr)
{
    if (section_rec[0].start == 0)
        return 1; // without a table every address passes for code: better a wrong entry in a log than none
    for (const section_record &section : section_rec) {
        if (section.start == 0)
            return 0;
        if (addr >= section.start && addr < section.end)
            return 1;
    }
    return 0;
}

int qv_backtrace_spec(unsigned long fp, unsigned long pc, unsigned long lr, unsigned long *addrs, unsigned long *frames,
                      int max, unsigned long *bottom)
{
    if (addrs == nullptr)
        return 0;
    base::errno_guard keep;
    frame_list list(addrs, frames, max);
    if (is_code(pc))
        list.add(pc, fp);
    if (lr != 0 && is_code(lr))
        list.add(lr, kNoFrameMark);
    unsigned long outermost = walk_records(round_up_to_word(fp), &list);
    if (bottom != nullptr)
        *bottom = outermost;
    return list.count();
}

void backtrace_symbol_to_buffer(unsigned long addr, char *out)
{
    auto pointer = reinterpret_cast<void *>(addr);
    Dl_info info = {};
    link_map *object = nullptr;
    int found = ::dladdr1(pointer, &info, reinterpret_cast<void **>(&object), RTLD_DL_LINKMAP);
    if (found == 0 || info.dli_fname == nullptr || info.dli_fname[0] == '\0') {
        std::snprintf(out, kSymbolTextSize, "%p", pointer);
        return;
    }

    const char *symbol = info.dli_sname != nullptr ? info.dli_sname : "";
    unsigned long load_bias = object != nullptr ? object->l_addr : 0;
    unsigned long base = info.dli_sname != nullptr ? reinterpret_cast<unsigned long>(info.dli_saddr) : load_bias;
    if (info.dli_sname == nullptr && load_bias == 0) {
        std::snprintf(out, kSymbolTextSize, "%s(%s) [%p]", info.dli_fname, "", pointer);
        return;
    }
    char sign = addr < base ? '-' : '+';
    std::size_t offset = addr < base ? base - addr : addr - base;
    std::snprintf(out, kSymbolTextSize, "%s(%s%c%#tx) [%p]", info.dli_fname, symbol, sign,
                  static_cast<std::ptrdiff_t>(offset), pointer);
}

int get_function_name_by_ptr(void *ptr, char *dst, int size)
{
    std::size_t room = size > 0 ? static_cast<std::size_t>(size) : 0;
    if (ptr == nullptr)
        return std::snprintf(dst, room, "NULL");
    Dl_info info = {};
    bool named = ::dladdr(ptr, &info) != 0 && info.dli_sname != nullptr;
    int length = named ? std::snprintf(dst, room, "%s@%p", info.dli_sname, ptr) : std::snprintf(dst, room, "%p", ptr);
    if (room != 0)
        dst[room - 1] = '\0'; // callers hand the whole of dst on, so its last byte is set even behind a short text
    return length;
}

int get_proc_comm_name(char *buf, int len)
{
    base::errno_guard keep;
    char path[kPathSize] = "/proc/self/comm";
    if (qv_handle_thread != 0)
        signal_snprintf(path, sizeof path, "/proc/%u/task/%u/comm", ::getpid(), fault::thread_id());
    base::unique_fd fd(::open(path, O_RDONLY));
    // Descriptor 0 counts as a failure too. It shows: such a process names its logs by its program, not by its comm.
    if (fd.get() < 1 || len < 0)
        return 0;
    auto n = static_cast<int>(::read(fd.get(), buf, static_cast<std::size_t>(len)));
    for (int i = 0; i < n; i++) {
        if (buf[i] == '\r' || buf[i] == '\n')
            buf[i] = '\0';
    }
    return n;
}
}
