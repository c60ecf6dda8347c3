// SPDX-License-Identifier: Apache-2.0
// A plug-in that the hosts of the soak run load and unload. It has thread-local storage and, on request, faults while
// it is being loaded, with the loader's lock held.
#include <cstdlib>

namespace {

thread_local char storage[256];
volatile int *volatile nowhere;

[[gnu::constructor]] void on_load()
{
    if (std::getenv("SOAK_FAULT_ON_LOAD") != nullptr)
        *nowhere = 1;
}

} // namespace

extern "C" char *soak_storage()
{
    return storage;
}
