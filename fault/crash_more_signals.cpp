// SPDX-License-Identifier: Apache-2.0
// Crash logs for signals that the ordinary installation leaves alone.
#include "crash_details.h"
#include "fault/crash_handler.h"
#include "fault/running_handlers.h"

#include <iterator>

using namespace qv;

extern "C" int qv_crash_more_signals(void)
{
    using namespace fault;
    int result = qv_use_signal_stack();
    struct sigaction action = {};
    action.sa_sigaction = signal_err;
    action.sa_flags = g_crash_action_flags;
    count_arming();
    for (std::size_t i = kDefaultFaultSignals; i < std::size(kFaultSignals); i++) {
        if (::sigaction(kFaultSignals[i], &action, nullptr) != 0)
            result = -1;
    }
    g_fault_signal_count = std::size(kFaultSignals);
    return result;
}
