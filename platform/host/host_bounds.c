/* SPDX-License-Identifier: Apache-2.0 */
/* What a host links so that the library finds its callback table and its code.
 *
 * Linkers define __start_ and __stop_ symbols for a section whose name is a C identifier, if the section exists. Here
 * it exists without an entry, for a host that has no callback; the flag R (retain) keeps it under --gc-sections. gold
 * knows no such flag, but keeps notes and what they refer to: the note below refers to the bounds, and so keeps every
 * entry.
 */
__asm__(".pushsection qv_coredump_callbacks, \"awR\", %progbits\n"
        ".balign 8\n"
        ".popsection\n"
        ".pushsection .note.libcommon.host, \"a\", %note\n"
        ".balign 4\n"
        ".long 10, 8, 1\n" /* sizes of name and content, type */
        ".asciz \"libcommon\"\n"
        ".balign 4\n"
        ".long __start_qv_coredump_callbacks - .\n"
        ".long __stop_qv_coredump_callbacks - .\n"
        ".popsection\n");

extern const char __executable_start[], etext[];

/* The code's bounds once more, as data. In a position-independent executable GNU ld and gold make an absolute symbol of
 * --defsym=NAME=etext, and the loader adds no load bias to those: within the executable the symbol is right, but the
 * library would see an offset.
 */
extern const char *const __qv_text_bounds[2];
const char *const __qv_text_bounds[2] = {__executable_start, etext};
