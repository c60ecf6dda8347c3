// SPDX-License-Identifier: Apache-2.0
// Backtraces on the console, for ordinary code and for hosts that want no log file. These allocate.
#include "backtrace.h"
#include "sighandler.h"

#include "base/cancel_guard.h"
#include "base/unique_fd.h"
#include "console_print.h"
#include "fault/backtrace_internal.h"

#include <csignal>
#include <cstdlib>
#include <execinfo.h>
#include <fcntl.h>
#include <libgen.h>

using namespace qv;

namespace {

void print_program_name()
{
    base::unique_fd fd(::open("/proc/self/cmdline", O_RDONLY));
    if (fd.get() <= 0)
        return;
    char command_line[kCommandNameSize] = {};
    if (::read(fd.get(), command_line, sizeof command_line - 1) < 0)
        console_print("read file /proc/self/cmdline failed, %m\n");
    console_print("%s ", ::__xpg_basename(command_line));
}

} // namespace

extern "C" {

void qv_stacktrace(const char *tag)
{
    char name[kCommandNameSize];
    console_print("stack trace: %s pid = %d, com_name = %s\n", tag, ::getpid(), fault::process_name(name));

    void *frames[kMaxFrames];
    int depth = ::backtrace(frames, kMaxFrames);
    char **texts = ::backtrace_symbols(frames, depth);
    if (texts == nullptr)
        return;
    for (int i = 0; i < depth; i++)
        console_print("Frame %2d: %s\n", i + 1, texts[i]);
    std::free(texts);
}

void signal_handler(int sig)
{
    base::cancel_guard no_cancellation;
    uninstall_sighandler();
    print_program_name();
    console_print("Caught signal %d\n", sig);

    void *frames[kMaxFrames];
    int depth = ::backtrace(frames, kMaxFrames);
    for (int i = 0; i < depth; i++) {
        char text[kSymbolTextSize];
        backtrace_symbol_to_buffer(reinterpret_cast<unsigned long>(frames[i]), text);
        console_print("Frame %2d: %p %s\n", i + 1, frames[i], text);
    }
}

} // extern "C"
