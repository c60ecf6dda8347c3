// SPDX-License-Identifier: Apache-2.0
// config.h - reads the stand-in kernel's tables from their text file.
#ifndef LIBCOMMON_PLATFORM_KERNEL_CONFIG_H
#define LIBCOMMON_PLATFORM_KERNEL_CONFIG_H

namespace qv::vrkernel {

struct tables;

// Fills zeroed tables from the file open as fd; `config` is its name for messages. Prints "FILE:LINE: what is wrong" on
// standard error for each mistake; false if there was one.
bool read_config(const char *config, int fd, tables &into);

} // namespace qv::vrkernel

#endif
