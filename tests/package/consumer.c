/* SPDX-License-Identifier: Apache-2.0 */
/* A host program in C: formats, has one crash callback, and lies within the text range that it gives the library. */
#include <backtrace.h>
#include <sighandler.h>
#include <signal_printf.h>
#include <stdio.h>

extern char __qv_text_start[], __qv_text_end[];

static int runs;

static long on_crash(unsigned int phase, unsigned long arg, void *record)
{
    (void)phase, (void)arg, (void)record;
    runs++;
    return 0;
}
QV_COREDUMP_CALLBACK(on_crash);

/* What the library knows when its table of mappings excludes everything. */
static int is_known(unsigned long address)
{
    unsigned long found;
    section_rec[0].start = section_rec[0].end = 1;
    return qv_backtrace_spec(0, address, 0, &found, NULL, 1, NULL);
}

int main(void)
{
    char text[8];
    signal_snprintf(text, sizeof text, "%d", 7);
    call_signal_table(0, 0, NULL);
    int inside = (char *)main >= __qv_text_start && (char *)main < __qv_text_end;
    printf("%s callbacks-run: %d own-code-known: %d %d\n", text, runs, inside, is_known((unsigned long)main));
    return 0;
}
