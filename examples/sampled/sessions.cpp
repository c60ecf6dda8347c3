// SPDX-License-Identifier: Apache-2.0
#include "sessions.h"

#include "loop.h"

#include <console_print.h>
#include <cxx/hashtbl.hpp>
#include <hashtbl.h>

#include <cstdlib>
#include <optional>

namespace sampled {
namespace {

constexpr unsigned kExpected = 10000; // sessions at a time
constexpr unsigned kIdle = 5;         // seconds without a sample

struct session {
    unsigned id;
    unsigned client;
    hashtbl_link link; // in the table, by client
    atimer idle;       // on the loop's wheel, always running
};

std::optional<qv::intrusive_table<session, &session::link>> table;
unsigned last_id;

unsigned hash_of(unsigned client)
{
    return qv_hash_uint32(client, 0);
}

void close_session(session &session)
{
    stop_atimer(&session.idle);
    std::free(&session);
}

void idle_too_long(void *arg)
{
    auto *idle = static_cast<session *>(arg);
    console_print("sampled: session %u ends\n", idle->id);
    table->remove(hash_of(idle->client), *idle);
    close_session(*idle);
}

session *open_session(unsigned client)
{
    auto *opened = static_cast<session *>(std::calloc(1, sizeof(session)));
    if (opened == nullptr)
        return nullptr;
    opened->id = ++last_id;
    opened->client = client;
    init_atimer(&opened->idle, kIdle, idle_too_long, opened);
    start_atimer(&loop_wheel(), &opened->idle);
    table->insert(hash_of(client), *opened);
    return opened;
}

} // namespace

bool sessions_init()
{
    return bool(table.emplace(qv_hashtbl_get_log2(kExpected)));
}

unsigned sessions_touch(unsigned client)
{
    session *known = table->find(hash_of(client), [&](const session &other) { return other.client == client; });
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
