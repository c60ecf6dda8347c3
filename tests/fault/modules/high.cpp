// SPDX-License-Identifier: Apache-2.0
// Linked to an address beyond any process: its load bias is negative. Its only symbol lies between two unnamed parts.
extern "C" __attribute__((section(".rodata.mark"))) const int high_mark = 1;

static char high_private[0x4000] = {1};

extern "C" char *high_function()
{
    return high_private;
}
