// SPDX-License-Identifier: Apache-2.0
// sessions.h - whom the daemon has heard of lately: a session for each client, which ends when the client is idle.
#ifndef SAMPLED_SESSIONS_H
#define SAMPLED_SESSIONS_H

namespace sampled {

bool sessions_init();

// Keeps the client's session alive, opening one if need be. Returns the session's number, 0 when none can be had.
int sessions_touch(const char *client);

unsigned sessions_count();
void sessions_finish();

} // namespace sampled

#endif
