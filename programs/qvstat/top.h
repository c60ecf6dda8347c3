// SPDX-License-Identifier: Apache-2.0
// top.h - the screen of all processes that refreshes itself.
#ifndef QVSTAT_TOP_H
#define QVSTAT_TOP_H

namespace qvstat {

/**
 * Shows the processes until the user quits.
 * @param interval  seconds between two refreshes
 * @return false when there is no terminal that can show it
 */
bool show_top(double interval);

} // namespace qvstat

#endif
