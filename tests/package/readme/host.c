/* SPDX-License-Identifier: Apache-2.0 */
/* A host that fails some calls deep, in functions that an optimising compiler keeps apart. */
#include <sighandler.h>

#define OWN_FRAME __attribute__((noinline, noclone))

static volatile int requests;

OWN_FRAME void store_in_slot(int *slot)
{
    volatile int sample = requests; /* gcc gives a function that uses no stack no frame */
    *slot = sample;
}

OWN_FRAME int update_session(int *slot)
{
    store_in_slot(slot);
    return ++requests; /* after the call, so that it is no tail call */
}

OWN_FRAME int serve_request(int *slot)
{
    return update_session(slot) + requests;
}

int main(void)
{
    install_sighandler();
    return serve_request((int *)0x10) + requests;
}
