// SPDX-License-Identifier: Apache-2.0
// printable.h - text of others on a terminal. Logs, file names and processes' names are hostile input.
#ifndef QVCRASH_PRINTABLE_H
#define QVCRASH_PRINTABLE_H

#include <string>
#include <string_view>

namespace qvcrash {

/**
 * One line of text without anything that a terminal acts on: control characters, newlines among them, and bytes that
 * are no UTF-8 become "\xNN". Tabs stay.
 */
std::string printable(std::string_view text);

} // namespace qvcrash

#endif
