// SPDX-License-Identifier: Apache-2.0
// Another maker's heap library: only the five functions of heap.h, implemented as a sorted array, which shares nothing
// with platform/heap.
#include "heap.h"

#include <algorithm>
#include <new>
#include <vector>

namespace {

struct queue {
    heap_higher_priority_fn before;
    heap_set_index_fn set_index;
    std::vector<void *> sorted;

    void tell_from(std::size_t i)
    {
        for (; i < sorted.size(); i++)
            set_index(sorted[i], static_cast<unsigned>(i + 1));
    }
};

queue &of(void *handle)
{
    return *static_cast<queue *>(handle);
}

} // namespace

extern "C" {

void *__heap_new(heap_higher_priority_fn before, heap_set_index_fn set_index, unsigned int)
{
    return new (std::nothrow) queue{before, set_index, {}};
}

int __heap_insert(void *handle, void *element)
{
    if (handle == nullptr)
        return -1;
    queue &q = of(handle);
    auto precedes = [&](const void *a, const void *b) { return q.before(a, b) != 0; };
    auto at = q.sorted.insert(std::upper_bound(q.sorted.begin(), q.sorted.end(), element, precedes), element);
    q.tell_from(static_cast<std::size_t>(at - q.sorted.begin()));
    return 0;
}

int __heap_delete(void *handle, unsigned int position)
{
    queue &q = of(handle);
    if (position == 0 || position > q.sorted.size())
        return -1;
    q.sorted.erase(q.sorted.begin() + (position - 1));
    q.tell_from(position - 1);
    return 0;
}

void *__heap_element(void *handle, unsigned int position)
{
    queue &q = of(handle);
    std::size_t i = std::max(position, 1U) - 1;
    return i < q.sorted.size() ? q.sorted[i] : nullptr;
}

void __heap_free(void *handle)
{
    delete static_cast<queue *>(handle);
}
}
