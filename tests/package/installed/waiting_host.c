/* SPDX-License-Identifier: Apache-2.0 */
/* A host that another process looks at. */
#include <sighandler.h>
#include <stdio.h>
#include <unistd.h>

int main(void)
{
    install_sighandler();
    puts("ready");
    fflush(stdout);
    for (;;)
        pause();
}
