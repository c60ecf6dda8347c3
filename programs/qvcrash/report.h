// SPDX-License-Identifier: Apache-2.0
// report.h - an analysis as text for a person, or as one line of JSON for a program.
#ifndef QVCRASH_REPORT_H
#define QVCRASH_REPORT_H

#include "analysis.h"
#include "root_folder.h"

#include <string>
#include <vector>

namespace qvcrash {

struct source_options {
    int lines = 0;                           // around each source line; 0 for none
    const std::vector<root_folder> *roots{}; // where sources may be read from
};

std::string report_text(const analysis &result, const source_options &sources);

/** One object on one line. Its form is documented in qvcrash(1) and named by its member "format". */
std::string report_json(const analysis &result);

} // namespace qvcrash

#endif
