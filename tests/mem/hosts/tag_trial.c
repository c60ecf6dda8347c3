/* SPDX-License-Identifier: Apache-2.0 */
/* Allocates without the library: whether the machine and its C library can do with a tagged heap. */
#include <stdlib.h>
#include <string.h>

int main(void)
{
    void *volatile blocks[200];
    for (int round = 0; round < 20; round++) {
        for (size_t i = 0; i < 200; i++) {
            blocks[i] = malloc(i * 37);
            memset(blocks[i], 1, i * 37);
        }
        for (size_t i = 0; i < 200; i++)
            free(blocks[i * 7 % 200]);
    }
    return 0;
}
