// SPDX-License-Identifier: Apache-2.0
// The light hooks, for a host that calls them by their names.
#include "mem/hook_table.h"
#include "mem/light_stats.h"

using namespace qv;

const hooks::own_set light::kHooks = {{my_malloc_light_hook, my_free_light_hook, my_realloc_light_hook},
                                      {light::allocate, light::release, light::reallocate},
                                      false};

extern "C" {

void *my_malloc_light_hook(size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::allocate(size);
    void *block = light::allocate(size, caller);
    hooks::install_again(light::kHooks);
    return block;
}

void my_free_light_hook(void *ptr, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::release(ptr);
    light::release(ptr, caller);
    hooks::install_again(light::kHooks);
}

void *my_realloc_light_hook(void *ptr, size_t size, const void *caller)
{
    if (hooks::is_reentered())
        return hooks::reallocate(ptr, size);
    void *block = light::reallocate(ptr, size, caller);
    hooks::install_again(light::kHooks);
    return block;
}

} // extern "C"
