// SPDX-License-Identifier: Apache-2.0
// output_file.h - a file that is written under a name that the user gave.
#ifndef QVCRASH_OUTPUT_FILE_H
#define QVCRASH_OUTPUT_FILE_H

#include "base/unique_fd.h"

#include <string>

namespace qvcrash {

/**
 * Opens a file for writing, empty, and makes it if needed (mode 0666, less the umask). In a folder where another user
 * can place files, such as /tmp, the name must be new or a regular file of the caller's with this name alone: a link
 * there may lead to anything that the caller may write.
 * @return an empty handle with errno set if it cannot be opened; ELOOP for a symbolic link, EPERM for another's file
 */
qv::base::unique_fd open_output(const std::string &path);

} // namespace qvcrash

#endif
