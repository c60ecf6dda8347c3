/* SPDX-License-Identifier: Apache-2.0 */
/* backtrace.h - call chains: executable mappings, the frame-pointer walk, names for addresses.
 *
 * A walk follows frame records (saved frame pointer, return address) from a frame pointer outwards. Whether the
 * interrupted program counter is code at all is judged by the host's text range and by a per-thread table of the
 * process's executable mappings, which the thread loads for itself:
 *
 *     unsigned long code[20], frames[20];
 *     procps_read_maps();
 *     int depth = qv_backtrace_spec(fp, pc, 0, code, frames, 20, NULL);
 *
 * The walk sees only code that keeps frame pointers; build hosts with -fno-omit-frame-pointer.
 *
 * Crash logs show that walk. On x86-64 the C library keeps no frame pointers, so there the log's chain differs where
 * the walk's is broken: it ends before a record that is linked to itself or downwards, and where the frame pointer
 * leads to no record, or a chain ends in such code, the stack is searched upwards for the next record. Return addresses
 * found by the search are shown with the frame 1: most are callers, some may be left over from earlier calls.
 *
 * Names of addresses are read from the modules' dynamic symbol tables, without a lock and without the dynamic loader;
 * only with a C library older than glibc 2.35 is the loader called, which takes its lock. Memory that may not be mapped
 * is read by the first method that the process's system call filter permits: rt_sigprocmask, pread of /proc/self/mem, a
 * pipe or process_vm_readv.
 */
#ifndef LIBCOMMON_BACKTRACE_H
#define LIBCOMMON_BACKTRACE_H

#include "libcommon_api.h"

#include <stdint.h>

QV_BEGIN_DECLS

/** How many executable mappings a thread's table holds. */
#define QV_SECTION_MAX 128

/** One executable mapping; a record with start 0 ends the table. */
typedef struct section_record {
    uint64_t start;
    uint64_t end;      /* exclusive */
    uint64_t reserved; /* 0 */
} section_record;

/**
 * The calling thread's table: empty until the thread calls procps_read_maps(). An access by this name may call the
 * dynamic loader, as any access to a library's thread-local variable may; a handler uses is_dynamic_lib().
 */
extern QV_API __thread struct section_record section_rec[QV_SECTION_MAX];

/** Kept for hosts that link against it; the library neither reads nor writes it. */
extern QV_API uint64_t stack_main_top;

/* ---- usable in a signal handler ---- */

/**
 * Loads the calling thread's table of executable, not writable mappings from /proc. A process with more mappings than
 * the table holds keeps the first ones, and a message says so.
 *
 * The list is read through a buffer of 1,024 bytes. A line that does not fit, newline included, ends the reading: with
 * a module whose path has about 950 characters or more, that mapping and all at higher addresses are missing. Walks
 * then leave out a program counter there. Install programs and plug-ins under shorter paths.
 *
 * In a library loaded by dlopen() the first call of a thread allocates its table. The crash handlers do not: on a
 * thread that never called this they use another table, which section_rec does not show.
 * @return 0, or -1 when the list cannot be opened (the table is empty then)
 */
QV_API int procps_read_maps(void) QV_SIGNAL_SAFE;

/**
 * Returns whether an address is code, by the calling thread's table.
 * @return 1 when it lies in one of the mappings or the table is empty, else 0
 */
QV_API int is_dynamic_lib(unsigned long addr) QV_SIGNAL_SAFE;

/**
 * Walks frame records. The program counter and then the link register come first, each only when it is code; then the
 * return addresses of the frame records, taken as they are. Signatures of return addresses, the link register included,
 * are removed where that gives an address of known code: by the table, or by the loaded modules while it is empty. The
 * walk ends at a record linked to 0, at `max` entries or where the chain leaves readable memory. A frame pointer that
 * is no multiple of 8 is rounded up to one; later links are followed unchanged.
 * @param fp      frame pointer to start from; 0 for no walk
 * @param pc      program counter
 * @param lr      link register, or 0
 * @param addrs   receives up to max code addresses, innermost first; null gives 0
 * @param frames  receives the frame address of each entry (1 for the entry of lr), or null
 * @param max     room in both arrays
 * @param bottom  receives the outermost frame address reached (0 when there was none), or null
 * @return number of entries
 */
QV_API int qv_backtrace_spec(unsigned long fp, unsigned long pc, unsigned long lr, unsigned long *addrs,
                             unsigned long *frames, int max, unsigned long *bottom) QV_SIGNAL_SAFE;

/**
 * Reads the command name of the process, or of the thread once qv_set_handle_thread_trace() was called. CR and LF
 * become NUL; no NUL is appended, so pass a zeroed buffer and one less than its size.
 * @return number of bytes read; 0 or less on failure
 */
QV_API int get_proc_comm_name(char *buf, int len) QV_SIGNAL_SAFE;

/**
 * Names a function: "name@0x...", or only the address when no dynamic symbol covers it, or "NULL".
 * @param dst   receives the text, always terminated
 * @param size  room in dst in bytes, at least 1
 * @return length of the whole text, as snprintf() gives it
 */
QV_API int get_function_name_by_ptr(void *ptr, char *dst, int size) QV_SIGNAL_SAFE;

/* ---- not for signal handlers ---- */

/** Prints the calling thread's backtrace on the console, headed by `tag`. Allocates. */
QV_API void qv_stacktrace(const char *tag);

QV_END_DECLS

#endif
