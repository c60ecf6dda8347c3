// SPDX-License-Identifier: Apache-2.0
// The same host program in C++.
#include <backtrace.h>
#include <cstdio>
#include <sighandler.h>
#include <signal_printf.h>

extern "C" char __qv_text_start[], __qv_text_end[];

namespace {

int runs;

long on_crash(unsigned int, unsigned long, void *)
{
    runs++;
    return 0;
}
QV_COREDUMP_CALLBACK(on_crash);

void own_function() {}

// What the library treats as code when its table of mappings excludes everything.
int is_known(unsigned long address)
{
    unsigned long found;
    section_rec[0].start = section_rec[0].end = 1;
    return qv_backtrace_spec(0, address, 0, &found, nullptr, 1, nullptr);
}

} // namespace

int main()
{
    char text[8];
    signal_snprintf(text, sizeof text, "%d", 7);
    call_signal_table(0, 0, nullptr);
    auto here = reinterpret_cast<char *>(&own_function);
    bool known = here >= __qv_text_start && here < __qv_text_end;
    std::printf("%s callbacks-run: %d own-code-known: %d %d\n", text, runs, known,
                is_known(reinterpret_cast<unsigned long>(&own_function)));
}
