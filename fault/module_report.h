// SPDX-License-Identifier: Apache-2.0
// module_report.h - the modules of the process by the kernel's mapping list, with their build ids. Signal-safe.
#ifndef LIBCOMMON_FAULT_MODULE_REPORT_H
#define LIBCOMMON_FAULT_MODULE_REPORT_H

namespace qv::fault {

// Remembers which modules are loaded now. Does nothing while another thread's call runs.
void note_modules();

// Writes a line for each module, then one for each that was noted earlier and is gone.
void report_modules(int fd);

} // namespace qv::fault

#endif
