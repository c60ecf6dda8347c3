// SPDX-License-Identifier: Apache-2.0
// parse_line.h - splits a command line into words, in place. The source is util/run_cmd.cpp.
#ifndef LIBCOMMON_UTIL_PARSE_LINE_H
#define LIBCOMMON_UTIL_PARSE_LINE_H

#include <array>

namespace qv::util {

inline constexpr int kMaxWords = 32;

// The words and a final null. The caller clears it before parsing, so that it ends in null also when parse_line()
// fails.
using word_list = std::array<char *, kMaxWords + 1>;

// Splits line at blanks and tabs and stores the starts of the words. Returns their number. Returns -1, after a line on
// standard output, for more than 32 words and for 32 words followed by blanks; the first 32 are in argv even then.
int parse_line(char *line, char **argv);

} // namespace qv::util

#endif
