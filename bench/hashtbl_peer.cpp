// SPDX-License-Identifier: Apache-2.0
#include "bench/hashtbl_peer.h"

#ifdef HAVE_BOOST
namespace bench {

void *find_by_call(HookedSet &set, void *key, unsigned hash, int (*match)(void *object, void *key))
{
    auto known = [hash](void *) { return std::size_t{hash}; };
    auto equal = [match](void *sought, const HookedSession &object) {
        return match(const_cast<HookedSession *>(&object), sought) != 0;
    };
    const auto found = set.find(key, known, equal);
    return found == set.end() ? nullptr : &*found;
}

} // namespace bench
#endif
