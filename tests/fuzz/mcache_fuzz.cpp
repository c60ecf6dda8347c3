// SPDX-License-Identifier: Apache-2.0
// Sequences of operations on object caches: objects never overlap, counters agree, and all pages are freed.
#include "mcache.h"

#include "tests/fuzz/input.h"

#include <cstring>
#include <vector>

namespace {

using fuzz::require;

// Caches live as long as the process, so all inputs share these caches.
struct Cache {
    unsigned size;
    int units;
    mcache *cache = nullptr;
};
Cache caches[] = {{0, 1}, {1, 1}, {24, 1}, {3000, 1}, {8136, 1}, {5000, 2}};

struct Object {
    unsigned char *bytes;
    unsigned char fill;
};

void release(const Cache &of, std::vector<Object> &objects, std::size_t n)
{
    for (unsigned i = 0; i < of.size; i++)
        require(objects[n].bytes[i] == objects[n].fill);
    mcache_free(of.cache, objects[n].bytes);
    objects[n] = objects.back();
    objects.pop_back();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size > 4096)
        return 0;
    std::vector<Object> objects[std::size(caches)];
    fuzz::Input input(data, size);
    while (!input.empty()) {
        const std::uint8_t operation = input.byte();
        const std::size_t c = operation % std::size(caches);
        Cache &of = caches[c];
        if (of.cache == nullptr)
            of.cache = mcache_create("fuzz", of.size, nullptr, 0, of.units);
        if (operation < 160) {
            for (unsigned n = 1 + input.byte() % 40; n > 0; n--) {
                auto *bytes = static_cast<unsigned char *>(mcache_alloc(of.cache));
                require(bytes != nullptr);
                std::memset(bytes, operation, of.size);
                objects[c].push_back({bytes, operation});
            }
        } else {
            for (unsigned n = 1 + input.byte() % 60; n > 0 && !objects[c].empty(); n--)
                release(of, objects[c], input.byte() % objects[c].size());
        }
        require(of.cache->in_use == objects[c].size());
        require((of.cache->page_count == (of.cache->spare_page != nullptr)) == objects[c].empty());
    }
    for (std::size_t c = 0; c < std::size(caches); c++) {
        while (!objects[c].empty())
            release(caches[c], objects[c], objects[c].size() - 1);
        const mcache *cache = caches[c].cache;
        require(cache == nullptr ||
                (cache->in_use == 0 && cache->partial_head == nullptr && cache->full_pages == nullptr));
    }
    return 0;
}
