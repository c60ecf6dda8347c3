/* SPDX-License-Identifier: Apache-2.0 */
/* A host that another process looks at. SIGHUP makes it fail. */
#include <sighandler.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

static volatile sig_atomic_t is_asked_to_fail;

static void ask_to_fail(int sig)
{
    (void)sig;
    is_asked_to_fail = 1;
}

int main(void)
{
    install_sighandler();
    signal(SIGHUP, ask_to_fail);
    puts("ready");
    fflush(stdout);
    while (!is_asked_to_fail)
        sleep(1);
    *(volatile int *)0x10 = 0;
    return 0;
}
