// SPDX-License-Identifier: Apache-2.0
// A library that is initialised before libcommon and ends after it. Its fork handlers allocate, and acquire a lock that
// other code holds around allocations. It allocates a block at its start and frees it at its end.
#include "early_library.h"

#include <cstdlib>
#include <pthread.h>

pthread_mutex_t early_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

void *volatile block;

void allocate()
{
    void *volatile scratch = std::malloc(100);
    scratch = std::realloc(scratch, 200);
    std::free(scratch);
}

void before_fork()
{
    pthread_mutex_lock(&early_lock);
    allocate();
}

void after_fork()
{
    allocate();
    pthread_mutex_unlock(&early_lock);
}

[[gnu::constructor]] void begin()
{
    pthread_atfork(before_fork, after_fork, after_fork);
}

[[gnu::destructor]] void end()
{
    std::free(block);
}

} // namespace

void early_library_allocate()
{
    block = std::malloc(0x1234);
}
