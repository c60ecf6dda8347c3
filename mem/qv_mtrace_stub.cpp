// SPDX-License-Identifier: Apache-2.0
// SIGUSR2 toggles the allocation trace file; until tracing is built, it is only taken.
#include "libcommon_api.h"

extern "C" QV_API void signal_mtrace(int sig);

extern "C" void signal_mtrace(int) {}
