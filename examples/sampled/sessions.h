// SPDX-License-Identifier: Apache-2.0
// sessions.h - the active clients: a session for each, which ends when the client is idle.
#ifndef SAMPLED_SESSIONS_H
#define SAMPLED_SESSIONS_H

namespace sampled {

bool sessions_init();

// Keeps the client's session alive, and opens one if necessary. Returns the session's number, 0 if that fails.
int sessions_touch(const char *client);

unsigned sessions_count();
void sessions_finish();

} // namespace sampled

#endif
