// SPDX-License-Identifier: Apache-2.0
// hashtbl_peer.h - the sessions in an intrusive set of Boost, and a search of it in another shared object, as ours is.
#ifndef LIBCOMMON_BENCH_HASHTBL_PEER_H
#define LIBCOMMON_BENCH_HASHTBL_PEER_H

#if __has_include(<boost/intrusive/unordered_set.hpp>)
#define HAVE_BOOST
#include "hashtbl.h"

#include <boost/intrusive/unordered_set.hpp>
#include <cstddef>

namespace bench {

namespace bi = boost::intrusive;

using Hook = bi::unordered_set_base_hook<bi::store_hash<true>, bi::link_mode<bi::normal_link>>;

struct alignas(64) HookedSession : Hook {
    unsigned id;
};

struct Hash {
    std::size_t operator()(unsigned id) const { return qv_hash_uint32(id, 0); }
    std::size_t operator()(const HookedSession &object) const { return qv_hash_uint32(object.id, 0); }
};

struct Equal {
    bool operator()(unsigned id, const HookedSession &object) const { return id == object.id; }
    bool operator()(const HookedSession &a, const HookedSession &b) const { return a.id == b.id; }
};

using HookedSet = bi::unordered_set<HookedSession, bi::base_hook<Hook>, bi::hash<Hash>, bi::equal<Equal>,
                                    bi::power_2_buckets<true>, bi::compare_hash<true>>;

// What hashtbl_find() is given: the hash is computed by the caller, objects are compared through a pointer.
[[gnu::visibility("default")]] void *find_by_call(HookedSet &set, void *key, unsigned hash,
                                                  int (*match)(void *object, void *key));

} // namespace bench
#endif

#endif
