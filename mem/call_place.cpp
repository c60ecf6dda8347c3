// SPDX-License-Identifier: Apache-2.0
#include "mem/call_place.h"

#include "fault/module_symbols.h"
#include "mem/thread_set.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <pthread.h>

namespace qv::call_place {
namespace {

constexpr int kSlotBits = 8;
constexpr std::size_t kLongest = 440; // longer texts are not kept

// ---- kept texts, by the hash of the caller; protected by `lock`. Its holder calls nothing ----

struct entry {
    std::uintptr_t caller; // 0 for a free slot
    fault::module_identity module;
    std::size_t length;
    char text[kLongest];
};

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
constinit std::array<entry, 1U << kSlotBits> entries{};

entry &slot_of(std::uintptr_t caller)
{
    return entries[threads::hash_of(caller, kSlotBits)];
}

// Returns the length; 0 if the text is not kept.
std::size_t read_kept(char *to, std::size_t size, std::uintptr_t caller, const fault::module_identity &module)
{
    pthread_mutex_lock(&lock);
    const entry &kept = slot_of(caller);
    std::size_t length = kept.caller == caller && kept.module == module ? kept.length : 0;
    length = std::min(length, size - 1);
    std::memcpy(to, kept.text, length);
    pthread_mutex_unlock(&lock);
    to[length] = '\0';
    return length;
}

void keep(const char *text, std::size_t length, std::uintptr_t caller, const fault::module_identity &module)
{
    pthread_mutex_lock(&lock);
    entry &kept = slot_of(caller);
    kept.caller = caller;
    kept.module = module;
    kept.length = length;
    std::memcpy(kept.text, text, length);
    pthread_mutex_unlock(&lock);
}

// ---- making a text ----

void write_known(fault::symbol_lookup &lookup, fault::text_buffer &text, std::uintptr_t caller)
{
    text.append("@ ");
    lookup.append_file_name(&text);
    text.append(':');
    if (lookup.has_symbol()) {
        text.append('(');
        lookup.append_symbol_name(&text);
        text.append('+');
        text.append_hex(caller - lookup.symbol_address());
        text.append(')');
    }
    text.append('[');
    text.append_hex(caller - lookup.load_bias());
    text.append("] ");
}

void write_unknown(fault::text_buffer &text, std::uintptr_t caller)
{
    text.clear();
    text.append("@ [");
    text.append_pointer(caller);
    text.append("] ");
}

} // namespace

std::size_t write(char *to, std::size_t size, const void *caller)
{
    auto address = reinterpret_cast<std::uintptr_t>(caller);
    fault::module_identity module = fault::identify_module(address);
    if (module.is_known()) {
        if (std::size_t length = read_kept(to, size, address, module); length != 0)
            return length;
    }
    fault::text_buffer text(to, size);
    fault::symbol_lookup lookup(address);
    bool is_found = lookup.is_found();
    if (is_found)
        write_known(lookup, text, address);
    bool is_current = lookup.is_current();
    if (!is_found || !is_current)
        write_unknown(text, address);
    std::size_t length = std::min(text.length(), size - 1);
    if (module.is_known() && is_current && length <= kLongest)
        keep(to, length, address, module);
    return length;
}

void after_fork_in_child()
{
    pthread_mutex_init(&lock, nullptr);
    for (entry &each : entries) // one may be half written
        each.caller = 0;
}

} // namespace qv::call_place
