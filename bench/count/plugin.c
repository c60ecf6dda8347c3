/* SPDX-License-Identifier: Apache-2.0 */
/* A plug-in of the user-mode emulator that counts the instructions between two marks of the program.
 *
 * The marks are system calls with numbers that no kernel has. The translator adds a block's length to a counter each
 * time the block begins; a system call ends its block, so the counter is exact at a mark. Argument: out=FILE, which
 * gets a line with the sum at each report.
 *
 * Debian ships the emulator with its plug-in interface but without the header, so what is used of it is declared here.
 */
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "marks.h"

enum { PLUGIN_INTERFACE = 1, INLINE_ADD = 0 };

struct qemu_plugin_tb;
typedef uint64_t plugin_id;
typedef void translated(plugin_id id, struct qemu_plugin_tb *block);
typedef void called(plugin_id id, unsigned cpu, int64_t number, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
                    uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8);

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);
void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id id, translated *function);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *block, int operation, void *counter,
                                              uint64_t amount);
void qemu_plugin_register_vcpu_syscall_cb(plugin_id id, called *function);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = PLUGIN_INTERFACE;
EXPORTED int qemu_plugin_install(plugin_id id, const void *info, int argc, char **argv);

static uint64_t executed, at_begin, sum;
static int out = 2;

static void count_block(plugin_id id, struct qemu_plugin_tb *block)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, INLINE_ADD, &executed, qemu_plugin_tb_n_insns(block));
}

static void see_mark(plugin_id id, unsigned cpu, int64_t number, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
                     uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8)
{
    (void)id, (void)cpu, (void)a1, (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
    if (number == MARK_BEGIN)
        at_begin = executed;
    else if (number == MARK_END)
        sum += executed - at_begin;
    else if (number == MARK_REPORT) {
        dprintf(out, "%llu\n", (unsigned long long)sum);
        sum = 0;
    }
}

int qemu_plugin_install(plugin_id id, const void *info, int argc, char **argv)
{
    (void)info;
    for (int i = 0; i < argc; i++) {
        if (strncmp(argv[i], "out=", 4) == 0)
            out = open(argv[i] + 4, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
    qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
    qemu_plugin_register_vcpu_syscall_cb(id, see_mark);
    return out < 0;
}
