// SPDX-License-Identifier: Apache-2.0
// crash_late_host LIBRARY early|late - loads the library by dlopen() and aborts inside malloc() on a second thread,
// which was started before or after the library was loaded.
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

namespace {

pthread_barrier_t loaded;

// The word after the newest block is the size of the rest of the heap. malloc() detects damage while it holds its lock.
void *abort_inside_malloc(void *)
{
    pthread_barrier_wait(&loaded);
    for (int i = 0; i < 100; i++) {
        auto *block = static_cast<char *>(std::malloc(20000));
        unsigned long wrong = 0xa5a5a5a5a5a5a5a5;
        std::memcpy(block + ::malloc_usable_size(block), &wrong, sizeof wrong);
    }
    return nullptr;
}

void load(const char *path)
{
    void *library = ::dlopen(path, RTLD_NOW);
    if (library == nullptr)
        ::_exit(2);
    reinterpret_cast<void *(*)()>(::dlsym(library, "install_sighandler"))();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3)
        return 1;
    ::close(STDERR_FILENO); // suppresses the allocator's message
    ::mallopt(M_ARENA_MAX, 1);
    bool is_late = std::strcmp(argv[2], "late") == 0;
    pthread_barrier_init(&loaded, nullptr, 2);
    if (is_late)
        load(argv[1]);
    pthread_t thread;
    pthread_create(&thread, nullptr, abort_inside_malloc, nullptr);
    if (!is_late)
        load(argv[1]);
    pthread_barrier_wait(&loaded);
    pthread_join(thread, nullptr);
    return 3;
}
