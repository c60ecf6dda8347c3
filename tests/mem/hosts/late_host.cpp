// SPDX-License-Identifier: Apache-2.0
// A host that loads the library by dlopen(): nothing is intercepted and nothing breaks. Prints "good".
#include <qv_mtrace.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <idpool.h>

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
    block =
        find<decltype(my_malloc_light_hook)>("my_malloc_light_hook")(100, nullptr); // by itself it allocates and counts
    std::memset(block, 1, 100);
    std::free(block);
    stat_min(&after);
    if (after.light_allocs != before.light_allocs + 1)
        return fail("not counted");
    find<decltype(idpool_destroy)>("idpool_destroy")(find<decltype(idpool_create)>("idpool_create")("late", 0, 1000));
    std::puts("good");
    return 0;
}
