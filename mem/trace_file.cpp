// SPDX-License-Identifier: Apache-2.0
// The trace file of every allocation, and SIGUSR2, which toggles it.
//
// A trace replaces the installed hooks. Its own hooks call the replaced ones and write a line for each call. One lock
// keeps the lines in the order of the calls, so that no address is allocated twice in the file without a free between.
//
// SIGUSR2 may interrupt its thread inside the allocator, with that lock held, or in the middle of a change of hooks,
// where waiting would never end. So a toggle is a request first. The handler carries it out if no thread holds the lock
// or makes a change; otherwise the thread that does carries it out afterwards.
#include "mem/trace_file.h"

#include "base/cancel_guard.h"
#include "base/errno_guard.h"
#include "log/console_output.h"
#include "mem/call_place.h"
#include "mem/hook_change.h"
#include "mem/hook_table.h"
#include "mem/trace_variable.h"
#include "signal_printf.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/types.h>
#include <unistd.h>

using namespace qv;

namespace qv::trace_file {

// Under `lock`. Other processes read them without it.
int file = -1;
hooks::hook_set below;

namespace {

constexpr std::size_t kLineSize = 1024;
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kBufferSize = 4096; // the most that a killed process loses of its trace
constexpr int kFileMode = 0666;

// ---- state, under `lock` ----

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
std::uintptr_t lock_holder = 0; // its thread pointer, 0 for none; only the holder writes it
char buffer[kBufferSize];       // lines that are not yet in the file
std::size_t buffered = 0;
bool mtrace_sig = false;  // SIGUSR2 started the trace
bool is_buffering = true; // false once the library's destructor has run

// Written atomically, without the lock.
int pending_toggles = 0;
int requested_by = SIGUSR2; // the signal of the last request

bool is_lock_holder()
{
    return __atomic_load_n(&lock_holder, __ATOMIC_RELAXED) == threads::self();
}

void note_holder(std::uintptr_t thread)
{
    __atomic_store_n(&lock_holder, thread, __ATOMIC_RELAXED);
}

// ---- lines ----

// A line of the trace: the place of the call, and the operation.
class line {
public:
    explicit line(const void *caller) : length_(call_place::write(text_, sizeof text_, caller)) {}

    [[gnu::format(printf, 2, 3)]] void append(const char *format, ...)
    {
        va_list ap;
        va_start(ap, format);
        int length = std::vsnprintf(text_ + length_, sizeof text_ - length_, format, ap);
        va_end(ap);
        length_ = std::min(length_ + static_cast<std::size_t>(std::max(length, 0)), sizeof text_ - 1);
    }

    // Appends the place again, for a second line.
    void repeat_place(std::size_t place) { append("%.*s", static_cast<int>(place), text_); }
    std::size_t length() const { return length_; }

    std::string_view text() const { return {text_, length_}; }

private:
    char text_[kLineSize];
    std::size_t length_;
};

// ---- the file's buffer, with the lock held and cancellation disabled ----

void flush()
{
    base::cancel_guard whole;
    base::errno_guard keep;
    ssize_t ignored = ::write(file, buffer, buffered);
    static_cast<void>(ignored);
    buffered = 0;
}

void put(std::string_view text)
{
    if (file < 0)
        return;
    if (text.size() > sizeof buffer - buffered)
        flush();
    std::memcpy(buffer + buffered, text.data(), text.size());
    buffered += text.size();
    if (!is_buffering)
        flush();
}

// ---- calling the replaced hooks ----

void *malloc_below(std::size_t size, const void *caller)
{
    hooks::malloc_fn hook = below.malloc;
    if (hook == nullptr)
        return hooks::allocate(size);
    if (hooks::malloc_fn service = hooks::service_of(hook); service != nullptr)
        return service(size, caller);
    hooks::inside_scope scope;
    return hook(size, caller);
}

void free_below(void *ptr, const void *caller)
{
    hooks::free_fn hook = below.free;
    if (hook == nullptr)
        return hooks::release(ptr);
    if (hooks::free_fn service = hooks::service_of(hook); service != nullptr)
        return service(ptr, caller);
    hooks::inside_scope scope;
    hook(ptr, caller);
}

void *realloc_below(void *ptr, std::size_t size, const void *caller)
{
    hooks::realloc_fn hook = below.realloc;
    if (hook == nullptr)
        return hooks::reallocate(ptr, size);
    if (hooks::realloc_fn service = hooks::service_of(hook); service != nullptr)
        return service(ptr, size, caller);
    hooks::inside_scope scope;
    return hook(ptr, size, caller);
}

// Carries out the toggles that were requested where they could not be.
void do_pending_toggles();

// ---- the hooks of a trace. If the trace ended while they waited for the lock, they only call the replaced hooks. ----

// Disables cancellation while the lock is held: writing the file is a cancellation point.
class trace_lock {
public:
    trace_lock()
    {
        pthread_mutex_lock(&lock);
        note_holder(threads::self());
    }
    ~trace_lock()
    {
        note_holder(0);
        pthread_mutex_unlock(&lock);
        do_pending_toggles();
    }
    trace_lock(const trace_lock &) = delete;
    trace_lock &operator=(const trace_lock &) = delete;

private:
    base::cancel_guard whole_;
};

void *traced_malloc(std::size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::allocate(size);
    line text(caller);
    trace_lock held;
    void *block = malloc_below(size, caller);
    text.append("+ %p %#lx\n", block, size);
    put(text.text());
    return block;
}

void traced_free(void *ptr, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::release(ptr);
    if (ptr == nullptr)
        return;
    line text(caller);
    text.append("- %p\n", ptr);
    trace_lock held;
    put(text.text());
    free_below(ptr, caller);
}

void *traced_realloc(void *ptr, std::size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::reallocate(ptr, size);
    line text(caller);
    std::size_t place = text.length();
    auto before = reinterpret_cast<std::uintptr_t>(ptr);
    trace_lock held;
    void *block = realloc_below(ptr, size, caller);
    if (before == 0) {
        text.append("+ %p %#lx\n", block, size);
    } else if (block != nullptr) {
        text.append("< %#lx\n", before);
        text.repeat_place(place);
        text.append("> %p %#lx\n", block, size);
    } else if (size == 0) {
        text.append("- %#lx\n", before);
    } else {
        text.append("! %#lx %#lx\n", before, size);
    }
    put(text.text());
    return block;
}

// ---- start and stop, with the lock held ----

void start()
{
    const char *path = ::secure_getenv("MALLOC_TRACE");
    if (file >= 0 || path == nullptr)
        return;
    file = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, kFileMode);
    if (file < 0)
        return;
    put("= Start\n");
    below = hooks::current();
    hooks::install_own(kHooks);
}

void stop()
{
    if (file < 0)
        return;
    hooks::install(below);
    put("= End\n");
    flush();
    ::close(file);
    file = -1;
}

// A toggle calls mtrace() and muntrace() with the lock held, and so may the replaced hooks.
template <typename Change>
void change_trace(Change change)
{
    base::cancel_guard whole;
    if (is_lock_holder())
        return change();
    hooks::change_scope scope;
    trace_lock held;
    change();
}

// ---- toggles ----

const char *log_path()
{
    static char path[kPathSize];
    signal_snprintf(path, sizeof path, "/etc/mtrace%d.log", ::getpid());
    return path;
}

void exchange_hooks()
{
    hooks::hook_set current = hooks::current();
    hooks::install(hooks::old());
    hooks::install_old(current);
}

// Returns the console message. The caller prints it after it has released the lock.
const char *toggle()
{
    muntrace();
    exchange_hooks();
    if (mtrace_sig) {
        unset_trace_variable();
        mtrace_sig = false;
        ::signal(__atomic_load_n(&requested_by, __ATOMIC_RELAXED), signal_mtrace);
        if (hooks::current().malloc != nullptr)
            mtrace();
        return "Stop mtrace log %s\n";
    }
    set_trace_variable(log_path());
    mtrace_sig = true;
    mtrace();
    return "Start mtrace log %s\n";
}

bool take_request()
{
    int pending = __atomic_load_n(&pending_toggles, __ATOMIC_RELAXED);
    while (pending > 0) {
        if (__atomic_compare_exchange_n(&pending_toggles, &pending, pending - 1, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_RELAXED))
            return true;
    }
    return false;
}

// Returns false if the lock is held, perhaps by this thread before a signal interrupted it.
bool toggle_if_lock_is_free(const char *&said)
{
    if (pthread_mutex_trylock(&lock) != 0)
        return false;
    note_holder(threads::self());
    if (take_request())
        said = toggle();
    note_holder(0);
    pthread_mutex_unlock(&lock);
    return true;
}

bool is_lock_free()
{
    return __atomic_load_n(&lock.__data.__lock, __ATOMIC_SEQ_CST) == 0;
}

} // namespace

const hooks::own_set kHooks = {
    {traced_malloc, traced_free, traced_realloc}, {traced_malloc, traced_free, traced_realloc}, true};

namespace {

// Whoever has held the lock or made a change calls this afterwards, so every request is carried out.
void do_pending_toggles()
{
    base::errno_guard keep;
    while (__atomic_load_n(&pending_toggles, __ATOMIC_SEQ_CST) > 0 && hooks::try_begin_change()) {
        const char *said = nullptr;
        bool done = toggle_if_lock_is_free(said);
        hooks::end_change();
        if (said != nullptr)
            console::print_from_handler(said, log_path());
        // If the lock is free now, its holder released it during our change and could not toggle: try again.
        if (!done && !is_lock_free())
            return;
    }
}

} // namespace

// The parent writes the buffered lines and carries out the pending toggles; the child drops both.
void after_fork_in_child()
{
    pending_toggles = 0;
    buffered = 0;
    call_place::after_fork_in_child();
    if (is_lock_holder())
        return; // the child continues here and unlocks its copy
    lock_holder = 0;
    pthread_mutex_init(&lock, nullptr);
}

void close_file(int first)
{
    change_trace([first] {
        if (file < first)
            return;
        hooks::install(below);
        flush();
        ::close(file);
        file = -1;
    });
}

// Libraries that were initialised earlier end later, and free their blocks. From here on each line is written at once.
[[gnu::destructor]] void flush_at_exit()
{
    trace_lock held;
    is_buffering = false;
    if (file >= 0)
        flush();
}

} // namespace qv::trace_file

extern "C" {

[[gnu::visibility("default")]] void mtrace(void) noexcept
{
    trace_file::change_trace(trace_file::start);
}

[[gnu::visibility("default")]] void muntrace(void) noexcept
{
    trace_file::change_trace(trace_file::stop);
}

void signal_mtrace(int sig)
{
    base::cancel_guard whole;
    __atomic_store_n(&trace_file::requested_by, sig, __ATOMIC_RELAXED);
    hooks::set_deferred_work(trace_file::do_pending_toggles);
    __atomic_fetch_add(&trace_file::pending_toggles, 1, __ATOMIC_SEQ_CST);
    trace_file::do_pending_toggles();
}

} // extern "C"
