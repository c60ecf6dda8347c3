/* SPDX-License-Identifier: Apache-2.0 */
/* A host program that has no crash callback. */
#include <sighandler.h>
#include <signal_printf.h>
#include <stdio.h>

int main(void)
{
    char text[8];
    signal_snprintf(text, sizeof text, "%d", 7);
    printf("%s callbacks-run: %ld\n", text, call_signal_table(0, 0, NULL));
    return 0;
}
