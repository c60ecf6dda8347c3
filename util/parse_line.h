// SPDX-License-Identifier: Apache-2.0
// parse_line.h - cuts a command line into words, in place.
#ifndef LIBCOMMON_UTIL_PARSE_LINE_H
#define LIBCOMMON_UTIL_PARSE_LINE_H

#include <array>

namespace util {

inline constexpr int kMaxWords = 32;

// The words and a null end. All null before parsing, so that it is null-ended whatever parse_line() says.
using word_list = std::array<char *, kMaxWords + 1>;

// Cuts line at blanks and tabs and stores the words' starts. Returns their number, or -1 (said on standard output) when
// there are more than 32, or 32 with blanks behind the last; the first 32 are in argv even then.
int parse_line(char *line, char **argv);

} // namespace util

#endif
