// SPDX-License-Identifier: Apache-2.0
// A host that loads the library by dlopen(): its allocations are not intercepted, and everything works. Prints "good".
#include <qv_mtrace.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <idpool.h>
#include <pthread.h>

namespace {

void *library;

template <typename Function>
Function *find(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(library, name));
}

int fail(const char *text)
{
    std::puts(text);
    return 1;
}

// How many keys of thread-specific data are free.
int free_keys()
{
    pthread_key_t keys[PTHREAD_KEYS_MAX];
    int count = 0;
    while (count < PTHREAD_KEYS_MAX && pthread_key_create(&keys[count], nullptr) == 0)
        count++;
    for (int i = 0; i < count; i++)
        pthread_key_delete(keys[i]);
    return count;
}

void *count_and_close(void *)
{
    std::free(find<decltype(my_malloc_light_hook)>("my_malloc_light_hook")(100, nullptr));
    dlclose(library);
    return nullptr;
}

} // namespace

int main(int argc, char **argv)
{
    void *volatile block = std::malloc(100);
    library = dlopen(argv[argc - 1], RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr)
        return fail(dlerror());
    auto stat_min = find<decltype(qv_mtrace_stat_min)>("qv_mtrace_stat_min");
    mtrace_stat_record before, after;
    stat_min(&before);
    block = std::realloc(block, 5000);
    for (int i = 0; i < 1000; i++) {
        void *volatile other = std::calloc(1, 50 + static_cast<std::size_t>(i));
        std::free(other);
    }
    stat_min(&after);
    if (after.light_allocs != before.light_allocs || after.light_frees != before.light_frees)
        return fail("intercepted");

    find<decltype(qv_mtrace_start)>("qv_mtrace_start")();
    std::free(block);
    find<decltype(qv_mtrace_reset)>("qv_mtrace_reset")();
    block = find<decltype(my_malloc_light_hook)>("my_malloc_light_hook")(
        100, nullptr); // allocates and counts although it is not installed
    std::memset(block, 1, 100);
    std::free(block);
    stat_min(&after);
    if (after.light_allocs != before.light_allocs + 1)
        return fail("not counted");

    // A block in its own mapping also counts the size in its header word.
    stat_min(&before);
    block = find<decltype(my_malloc_light_hook)>("my_malloc_light_hook")(1 << 20, nullptr);
    stat_min(&after);
    const volatile std::size_t *header = static_cast<std::size_t *>(block) - 1;
    if (after.light_bytes - before.light_bytes != (*header & ~std::size_t{7}))
        return fail("a mapped block is counted otherwise");
    find<decltype(my_free_light_hook)>("my_free_light_hook")(block, nullptr);

    find<decltype(idpool_destroy)>("idpool_destroy")(find<decltype(idpool_create)>("idpool_create")("late", 0, 1000));

    // The library stays loaded: a thread that has counted may end after dlclose(), and no key is lost.
    pthread_t thread;
    if (pthread_create(&thread, nullptr, count_and_close, nullptr) != 0 || pthread_join(thread, nullptr) != 0)
        return fail("no thread");
    const int keys = free_keys();
    for (int i = 0; i < 10; i++) {
        library = dlopen(argv[argc - 1], RTLD_NOW);
        if (library == nullptr || dlclose(library) != 0)
            return fail(dlerror());
    }
    if (free_keys() != keys)
        return fail("keys are lost");
    std::puts("good");
    return 0;
}
