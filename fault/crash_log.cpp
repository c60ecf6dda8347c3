// SPDX-License-Identifier: Apache-2.0
// Names and content of crash logs. Texts go straight to the file, a line or a group of lines with one write.
#include "fault/crash_log.h"

#include "backtrace.h"
#include "base/errno_guard.h"
#include "base/log_names.h"
#include "fault/backtrace_internal.h"
#include "fault/log_walk.h"
#include "fault/machine_context.h"
#include "signal_printf.h"

#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>

using namespace qv;

static_assert(QV_COREDUMP_DEPTH == kMaxFrames);
static_assert(offsetof(crash_record, signo) == 0 && offsetof(crash_record, info) == 8);
static_assert(offsetof(crash_record, uctx) == 16 && offsetof(crash_record, fault_fp) == 24);
static_assert(offsetof(crash_record, stack_bottom) == 32 && offsetof(crash_record, addrs) == 40);
static_assert(offsetof(crash_record, frames) == 200 && offsetof(crash_record, depth) == 360);
static_assert(offsetof(crash_record, log_path) == 364 && sizeof(crash_record) == 496);

namespace qv::fault {
namespace {

constexpr mode_t kMode = 0777; // less the umask
constexpr unsigned kGroupSize = 4;

const char *word_of(log_kind kind)
{
    switch (kind) {
    case log_kind::coredump:
        return base::kCoredumpWord;
    case log_kind::attach:
        return base::kAttachWord;
    case log_kind::term:
        return base::kTermWord;
    }
    return "";
}

// Threads are often named after what they serve. "rx/eth0" would be a path in a folder that does not exist.
void replace_slashes(char (&out)[kCommandNameSize], const char *name)
{
    for (std::size_t i = 0; i < sizeof out - 1 && name[i] != '\0'; i++)
        out[i] = name[i] == '/' ? '_' : name[i];
}

// Four register names and, below them, their values.
void write_register_group(int fd, const machine_context &machine, unsigned first)
{
    const char *name[kGroupSize];
    unsigned long value[kGroupSize];
    for (unsigned i = 0; i < kGroupSize; i++) {
        name[i] = machine_context::slot_name(first + i);
        value[i] = machine.slot(first + i);
    }
    signal_printf(fd, "%-8s%16s %16s %16s %16s \n$%2d   : %016lx %016lx %016lx %016lx\n", "reg", name[0], name[1],
                  name[2], name[3], first, value[0], value[1], value[2], value[3]);
}

} // namespace

void set_default_path(crash_record *rec, const char *folder, log_kind kind)
{
    char name[kCommandNameSize];
    char file_name[kCommandNameSize] = {};
    replace_slashes(file_name, process_name(name));
    signal_snprintf(rec->log_path, sizeof rec->log_path, "%s/%s%d.%s.%d.log", folder, file_name, traced_id(),
                    word_of(kind), static_cast<int>(rec->signo));
}

bool folder_exists(const char *folder)
{
    return ::access(folder, F_OK) == 0;
}

bool ensure_folder(const char *folder)
{
    if (folder_exists(folder) || ::mkdir(folder, kMode) == 0)
        return true;
    base::errno_guard reason;
    return folder_exists(folder); // another thread's dump may have made it meanwhile
}

base::unique_fd open_log(const char *path)
{
    return base::unique_fd(::open(path, O_WRONLY | O_CREAT, kMode));
}

void write_log_head(int fd, const crash_record &rec)
{
    // The label says thread name but the value is the path, contract: readers of these logs parse it.
    if (qv_handle_thread != 0)
        signal_printf(fd, "TID %d for signal(%d). thread name : %s\n", traced_id(), rec.signo, rec.log_path);
    else
        signal_printf(fd, "PID %d for signal(%d).\n", traced_id(), rec.signo);

    machine_context machine(rec.uctx);
    for (unsigned first = 0; first < kRegisterSlots; first += kGroupSize)
        write_register_group(fd, machine, first);
    signal_printf(fd, "fault  : %016lx \n\npc     : %016lx \n\nsp     : %016lx \n\npstate : %016lx \n\n",
                  machine.fault_address(), machine.program_counter(), machine.stack_pointer(), machine.state_word());
}

} // namespace qv::fault

extern "C" {

int coredump_backtrace_to_file(int fd, crash_record *rec)
{
    if (fd < 0)
        return 0;
    fault::machine_context machine(rec->uctx);
    unsigned long bottom = 0;
    rec->fault_fp = machine.frame_pointer();
    int depth = fault::walk_for_log(machine, rec->addrs, rec->frames, kMaxFrames, &bottom);
    rec->stack_bottom = bottom;
    rec->depth = static_cast<uint32_t>(depth);

    signal_printf(fd, "Backtracing:\n");
    for (int i = 0; i < depth; i++) {
        char text[kSymbolTextSize];
        backtrace_symbol_to_buffer(rec->addrs[i], text);
        signal_printf(fd, "\t<%p> -> %s\n", reinterpret_cast<void *>(rec->frames[i]), text);
    }
    signal_printf(fd, "\tStack bottom is at %p\n\n", reinterpret_cast<void *>(bottom));
    return depth;
}

} // extern "C"
