/* SPDX-License-Identifier: Apache-2.0 */
/* A plug-in that is unloaded while the host still has a pointer into it. */
#include <stdio.h>

void plugin_run(void)
{
    puts("run");
}
