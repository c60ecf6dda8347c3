/* SPDX-License-Identifier: Apache-2.0 */
/* An empty program, linked once with each library that is compared. Without an argument it ends at once; with one it
 * prints what the libraries have cost by then:
 *
 *     memory   relocations, those of them that look a symbol up, private dirty and resident KiB
 *     threads  private dirty bytes outside of the stacks that each of 100 waiting threads adds, and bytes of the static
 *              block of thread-local variables, which is at the end of each stack
 */
#define _GNU_SOURCE
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

enum { THREADS = 100, STACK = 64 * 1024 };

struct relocations {
    unsigned long all, symbolic;
};

/* Addresses in a loaded object's dynamic section; glibc has added the base to them already. */
static void count_table(struct relocations *counts, const ElfW(Rela) * table, size_t size)
{
    for (size_t i = 0; table != NULL && i < size / sizeof *table; i++) {
        counts->all++;
        counts->symbolic += ELF64_R_SYM(table[i].r_info) != 0;
    }
}

static int count_object(struct dl_phdr_info *object, size_t size, void *arg)
{
    const ElfW(Dyn) *dynamic = NULL;
    for (int i = 0; i < object->dlpi_phnum; i++) {
        if (object->dlpi_phdr[i].p_type == PT_DYNAMIC)
            dynamic = (const ElfW(Dyn) *)(object->dlpi_addr + object->dlpi_phdr[i].p_vaddr);
    }
    const ElfW(Rela) *rela = NULL, *plt = NULL;
    size_t rela_size = 0, plt_size = 0;
    if (dynamic == NULL || strstr(object->dlpi_name, "vdso") != NULL)
        return 0;
    for (; dynamic->d_tag != DT_NULL; dynamic++) {
        switch (dynamic->d_tag) {
        case DT_RELA:
            rela = (const ElfW(Rela) *)dynamic->d_un.d_ptr;
            break;
        case DT_RELASZ:
            rela_size = dynamic->d_un.d_val;
            break;
        case DT_JMPREL:
            plt = (const ElfW(Rela) *)dynamic->d_un.d_ptr;
            break;
        case DT_PLTRELSZ:
            plt_size = dynamic->d_un.d_val;
            break;
        default:
            break;
        }
    }
    count_table(arg, rela, rela_size);
    count_table(arg, plt, plt_size);
    (void)size;
    return 0;
}

/* A line of the memory summary, in KiB. Read without the heap. */
static long memory(const char *name)
{
    char text[4096];
    int fd = open("/proc/self/smaps_rollup", O_RDONLY);
    ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
    const char *line = strstr(text, name);
    return line != NULL ? atol(line + strlen(name)) : 0;
}

static pthread_barrier_t all_run, all_measured;

/* It has allocated, as every thread of a host has soon. */
static void *wait_in_thread(void *arg)
{
    void *volatile block = malloc(100);
    free(block);
    pthread_barrier_wait(&all_run);
    pthread_barrier_wait(&all_measured);
    return arg;
}

static int add_thread_local(struct dl_phdr_info *object, size_t size, void *sum)
{
    for (int i = 0; i < object->dlpi_phnum; i++) {
        if (object->dlpi_phdr[i].p_type == PT_TLS)
            *(unsigned long *)sum += object->dlpi_phdr[i].p_memsz;
    }
    (void)size;
    return 0;
}

/* The stacks are written to before the threads start, so that their pages do not count. */
static void print_threads(void)
{
    pthread_t threads[THREADS];
    char *stacks = mmap(NULL, (size_t)THREADS * STACK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (stacks == MAP_FAILED)
        return;
    memset(stacks, 1, (size_t)THREADS * STACK);
    pthread_barrier_init(&all_run, NULL, THREADS + 1);
    pthread_barrier_init(&all_measured, NULL, THREADS + 1);
    long before = memory("Private_Dirty:");
    for (int i = 0; i < THREADS; i++) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstack(&attributes, stacks + (size_t)i * STACK, STACK);
        pthread_create(&threads[i], &attributes, wait_in_thread, NULL);
    }
    pthread_barrier_wait(&all_run);
    long after = memory("Private_Dirty:");
    pthread_barrier_wait(&all_measured);
    for (int i = 0; i < THREADS; i++)
        pthread_join(threads[i], NULL);
    unsigned long thread_local = 0;
    dl_iterate_phdr(add_thread_local, &thread_local);
    printf("%ld %lu\n", (after - before) * 1024 / THREADS, thread_local);
}

int main(int argc, char **argv)
{
    if (argc < 2)
        return 0;
    if (strcmp(argv[1], "threads") == 0) {
        print_threads();
        return 0;
    }
    long dirty = memory("Private_Dirty:"), resident = memory("Rss:");
    struct relocations counts = {0, 0};
    dl_iterate_phdr(count_object, &counts);
    printf("%lu %lu %ld %ld\n", counts.all, counts.symbolic, dirty, resident);
    return 0;
}
