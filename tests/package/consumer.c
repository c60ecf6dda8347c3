/* SPDX-License-Identifier: Apache-2.0 */
/* A host program in C: formats, has one crash callback, and lies within the text range that it gives the library. */
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

int main(void)
{
    char text[8];
    signal_snprintf(text, sizeof text, "%d", 7);
    call_signal_table(0, 0, NULL);
    int known = (char *)main >= __qv_text_start && (char *)main < __qv_text_end;
    printf("%s callbacks-run: %d own-code-known: %d\n", text, runs, known);
    return 0;
}
