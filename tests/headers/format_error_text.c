/* SPDX-License-Identifier: Apache-2.0 */
/* The system's error text, which has no argument. */
#include <console_print.h>

int print_error(const char *name)
{
    return console_print("link %s is down: %m\n", name);
}
