// SPDX-License-Identifier: Apache-2.0
#include "sessions.h"

#include "loop.h"

#include <console_print.h>
#include <cxx/hashtbl.hpp>
#include <cxx/idpool.hpp>
#include <cxx/name2id.hpp>
#include <strutil.h>

#include <cstdlib>
#include <optional>

namespace sampled {
namespace {

constexpr int kMost = 10000;  // sessions at the same time
constexpr unsigned kIdle = 5; // seconds without a sample

struct session {
    int id;
    char client[NAME2ID_NAME_SIZE];
    hashtbl_link link; // in the table, by id
    atimer idle;       // on the loop's wheel, always running
};

// A session's number is allocated from the pool. The names lead to the numbers, the table to the sessions.
std::optional<qv::id_pool> ids;
std::optional<qv::name_table> names;
std::optional<qv::intrusive_table<session, &session::link>> table;

unsigned hash_of(int id)
{
    return qv_hash_uint32(static_cast<unsigned>(id), 0);
}

void close_session(session &session)
{
    stop_atimer(&session.idle);
    names->erase(session.client);
    ids->free(session.id);
    std::free(&session);
}

void idle_too_long(void *arg)
{
    auto *idle = static_cast<session *>(arg);
    console_print("sampled: session %d of %s ends\n", idle->id, idle->client);
    table->remove(hash_of(idle->id), *idle);
    close_session(*idle);
}

// Null without memory, and when all numbers are in use.
session *open_session(const char *client)
{
    std::optional<int> id = ids->allocate();
    auto *opened = id ? static_cast<session *>(std::calloc(1, sizeof(session))) : nullptr;
    if (opened == nullptr || names->insert(client, static_cast<unsigned>(*id)) == nullptr) {
        std::free(opened);
        if (id)
            ids->free(*id);
        return nullptr;
    }
    opened->id = *id;
    strlcpy(opened->client, client, sizeof opened->client);
    init_atimer(&opened->idle, kIdle, idle_too_long, opened);
    start_atimer(&loop_wheel(), &opened->idle);
    table->insert(hash_of(opened->id), *opened);
    return opened;
}

session *find_session(const char *client)
{
    std::optional<std::uint32_t> found = names->find(client);
    if (!found)
        return nullptr;
    auto id = static_cast<int>(*found);
    return table->find(hash_of(id), [&](const session &other) { return other.id == id; });
}

} // namespace

bool sessions_init()
{
    auto log_size = static_cast<unsigned>(qv_hashtbl_get_log2(kMost));
    return ids.emplace("sampled", 1, kMost) && names.emplace(log_size) && table.emplace(log_size);
}

int sessions_touch(const char *client)
{
    session *known = find_session(client);
    if (known == nullptr)
        known = open_session(client);
    else
        adjust_atimer(&loop_wheel(), &known->idle, kIdle);
    return known != nullptr ? known->id : 0;
}

unsigned sessions_count()
{
    return static_cast<unsigned>(table->size());
}

void sessions_finish()
{
    table->clear([](session &open) { close_session(open); });
}

} // namespace sampled
