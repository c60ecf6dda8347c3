// SPDX-License-Identifier: Apache-2.0
// control.h - requests to a process by the signals for which the library has handlers.
#ifndef QVSTAT_CONTROL_H
#define QVSTAT_CONTROL_H

#include "process.h"

#include <string>

namespace qvstat {

// What came of a request, as a line for the user.
struct control_result {
    bool is_done = false;
    std::string text;
};

/** Requests a dump and waits until its log is there, for some seconds at most. */
control_result request_dump(const target &process);

/** Starts or ends the trace file and waits for it. */
control_result switch_trace(const target &process, bool on);

} // namespace qvstat

#endif
