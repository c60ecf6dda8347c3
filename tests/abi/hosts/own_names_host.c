/* SPDX-License-Identifier: Apache-2.0 */
/* A host that uses the library's plain names for itself: each such function ends the program, each variable holds a
 * pattern. It calls the library's functions by pointers from dlsym(). Nothing of the host may be called or overwritten.
 */
#include <dlfcn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Generated, with the functions, which all call own_names_called(). */
extern unsigned char *const own_variables[];
extern const char *const own_variable_names[];
extern const unsigned own_variable_size, own_variable_pattern;
void own_names_called(const char *name);

void own_names_called(const char *name)
{
    printf("the library called the host's %s()\n", name);
    fflush(stdout);
    _exit(1);
}

static void *library;

static void *find(const char *name)
{
    void *symbol = dlsym(library, name);
    if (symbol == NULL) {
        printf("no %s\n", name);
        exit(1);
    }
    return symbol;
}

/* CALL(int, "name", parameter types)(arguments) */
#define CALL(result, name, ...) (*(result(**)(__VA_ARGS__)) & (void *){find(name)})

static int mirrored;

static int mirror(const char *format, va_list ap)
{
    (void)format, (void)ap;
    mirrored++;
    return 0;
}

static void use_tables(void)
{
    void *cache = CALL(void *, "mcache_create", const char *, unsigned, void *, unsigned, int)("own", 16, NULL, 0, 1);
    void *object = CALL(void *, "mcache_alloc", void *)(cache);
    CALL(void, "mcache_free", void *, void *)(cache, object);
    void *names = CALL(void *, "create_name2id_hash_tbl", const char *, int)("own", 16);
    (void)names;
    CALL(void *, "idpool_create", const char *, int, int)("own", 1, 10);
    void *root = CALL(void *, "idtable_alloc_table", void)();
    CALL(int, "idtable16_insert_entry", void *, uint16_t, unsigned long)(root, 3, 4);
    uint32_t record[3];
    CALL(void *, "qv_cp_rwlock_init", void *)(record);
    CALL(void, "qv_cp_rdlock", void)();
    CALL(void, "qv_cp_rdunlock", void)();
}

static void trace_allocations(void)
{
    CALL(void, "qv_mtrace_start", void)();
    void *volatile block = malloc(1000);
    char groups[72 * 4];
    CALL(int, "get_malloc_statistics", void *, int)(groups, 4);
    free(block);
    CALL(void, "qv_mtrace_reset", void)();
}

int main(void)
{
    library = dlopen("libcommon.so.1", RTLD_NOW | RTLD_NOLOAD);
    if (library == NULL) {
        puts("the library is not loaded");
        return 1;
    }
    CALL(int, "console_print_mfunc_set", int (*)(const char *, va_list))(mirror);
    CALL(int, "console_print", const char *, ...)("said\n");
    CALL(int, "console_print_mfunc_set", int (*)(const char *, va_list))(NULL);
    use_tables();
    trace_allocations();
    CALL(void, "install_sighandler", void)();
    if (mirrored == 0) {
        puts("the mirror is not called");
        return 1;
    }
    for (unsigned i = 0; own_variable_names[i] != NULL; i++) {
        for (unsigned byte = 0; byte < own_variable_size; byte++) {
            if (own_variables[i][byte] != own_variable_pattern) {
                printf("the library wrote to the host's %s\n", own_variable_names[i]);
                return 1;
            }
        }
    }
    puts("good");
    fflush(stdout);
    abort(); /* leaves a log, written by the library's own functions */
}
