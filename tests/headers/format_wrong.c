/* SPDX-License-Identifier: Apache-2.0 */
/* A text where a number belongs. */
#include <console_print.h>

int print_wrong(const char *text)
{
    return console_print("%d\n", text);
}
