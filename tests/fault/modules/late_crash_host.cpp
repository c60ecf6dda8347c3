// SPDX-License-Identifier: Apache-2.0
// late_crash_host LIBRARY [tables] - loads the library while threads are running, and lets one die inside free(). That
// thread has never used the library, and no more memory can be allocated. With "tables" it makes each of two threads
// load its table of mappings instead.
#include <cstdlib>
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

int wake[2];

__attribute__((noinline)) void break_heap()
{
    constexpr std::size_t kSize = 65536;
    auto *block = static_cast<unsigned char *>(std::malloc(kSize));
    auto *next_size = reinterpret_cast<volatile unsigned long *>(block + ::malloc_usable_size(block));
    *next_size = 0;
    std::free(block);
}

void *die(void *)
{
    char byte;
    if (::read(wake[0], &byte, 1) == 1)
        break_heap();
    return nullptr;
}

void *library;

template <typename function>
function *find(const char *name)
{
    return reinterpret_cast<function *>(::dlsym(library, name));
}

// Without a table every address is code.
void *use_table(void *)
{
    auto *is_code = find<int(unsigned long)>("is_dynamic_lib");
    auto *load = find<int()>("procps_read_maps");
    auto function = reinterpret_cast<unsigned long>(load);
    for (int round = 0; round < 2; round++) {
        if (is_code(1) != (round == 0 ? 1 : 0) || is_code(function) != 1 || load() != 0)
            ::_exit(6);
    }
    return nullptr;
}

int check_tables()
{
    pthread_t thread;
    use_table(nullptr);
    if (::pthread_create(&thread, nullptr, use_table, nullptr) != 0)
        return 7;
    ::pthread_join(thread, nullptr);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    ::prctl(PR_SET_NAME, "late");
    ::mallopt(M_ARENA_MAX, 1);
    pthread_t thread;
    if (::pipe(wake) != 0 || ::pthread_create(&thread, nullptr, die, nullptr) != 0)
        return 2;
    library = ::dlopen(argv[1], RTLD_NOW);
    if (library == nullptr)
        return 3;
    if (argc > 2)
        return check_tables();
    find<void *()>("install_sighandler")();
    if (::write(wake[1], "", 1) != 1)
        return 4;
    ::pthread_join(thread, nullptr);
    return 5;
}
