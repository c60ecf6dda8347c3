// SPDX-License-Identifier: Apache-2.0
// Notes that threads leave for the log of a later crash.
//
// A table with an entry for each thread, found by its id. A thread writes only its entry. A handler that reads another
// thread's entry during a write gets a mixture of two notes at worst, always terminated: the last byte of an entry is
// never written. When the table is full, the entries of ended threads are reused; in a child, those of the parent too.
#include "crash_details.h"

#include "base/errno_guard.h"
#include "fault/backtrace_internal.h"
#include "fault/crash_notes.h"
#include "signal_printf.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

using namespace qv;

namespace qv::fault {
namespace {

struct crash_note {
    std::atomic<pid_t> thread; // 0 for a free entry
    char text[QV_CRASH_NOTE_SIZE];
};

constinit std::array<crash_note, QV_CRASH_NOTE_THREADS> notes{}; // untouched at load

// The process ends after the first misuse. If two threads find one at once, the log shows either or a mixture.
cache_misuse last_misuse;
std::atomic<bool> has_misuse;

bool is_alive(pid_t thread)
{
    base::errno_guard keep;
    return ::syscall(SYS_tgkill, ::getpid(), thread, 0) == 0;
}

bool take(crash_note *note, pid_t from, pid_t thread)
{
    if (!note->thread.compare_exchange_strong(from, thread))
        return false;
    note->text[0] = '\0';
    return true;
}

crash_note *find_note(pid_t thread)
{
    for (crash_note &note : notes) {
        if (note.thread.load(std::memory_order_relaxed) == thread)
            return &note;
    }
    return nullptr;
}

crash_note *find_or_take_note(pid_t thread)
{
    if (crash_note *note = find_note(thread))
        return note;
    for (crash_note &note : notes) {
        if (note.thread.load(std::memory_order_relaxed) == 0 && take(&note, 0, thread))
            return &note;
    }
    for (crash_note &note : notes) {
        pid_t other = note.thread.load(std::memory_order_relaxed);
        if (!is_alive(other) && take(&note, other, thread))
            return &note;
    }
    return nullptr;
}

// A note is one line of the log. Texts that are printed elsewhere often end in a newline.
void make_line(char *text)
{
    std::size_t length = std::strlen(text);
    if (length != 0 && text[length - 1] == '\n')
        text[length - 1] = '\0';
    for (char *at = text; (at = std::strchr(at, '\n')) != nullptr;)
        *at = ' ';
}

} // namespace

void note_cache_misuse(const cache_misuse &misuse)
{
    last_misuse = misuse;
    has_misuse.store(true, std::memory_order_release);
}

void report_cache_misuse(int fd)
{
    if (!has_misuse.load(std::memory_order_acquire))
        return;
    signal_printf(fd, "cache  : code %d object %016lx guard %016lx name %s\n", last_misuse.code, last_misuse.object,
                  last_misuse.guard, last_misuse.cache != nullptr ? last_misuse.cache : "-");
}

void report_notes(int fd)
{
    for (const crash_note &note : notes) {
        pid_t thread = note.thread.load(std::memory_order_relaxed);
        if (thread != 0 && note.text[0] != '\0' && is_alive(thread))
            signal_printf(fd, "note   : %d %s\n", thread, note.text);
    }
}

} // namespace qv::fault

extern "C" void qv_crash_note(const char *format, ...)
{
    using namespace fault;
    base::errno_guard keep;
    char text[QV_CRASH_NOTE_SIZE] = {};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    make_line(text);

    pid_t thread = thread_id();
    crash_note *note = text[0] != '\0' ? find_or_take_note(thread) : find_note(thread);
    if (note == nullptr)
        return;
    std::memcpy(note->text, text, sizeof text - 1);
    if (text[0] == '\0')
        note->thread.store(0, std::memory_order_release);
}
