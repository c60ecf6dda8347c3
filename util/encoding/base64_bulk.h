// SPDX-License-Identifier: Apache-2.0
// base64_bulk.h - runs of whole base64 groups, with the fastest instructions available. The result does not depend on
// which.
#ifndef LIBCOMMON_UTIL_ENCODING_BASE64_BULK_H
#define LIBCOMMON_UTIL_ENCODING_BASE64_BULK_H

#include <cstddef>

namespace qv::base64 {

// Encodes groups of 3 bytes into groups of 4 characters, and writes no more than those.
void encode_groups(const unsigned char *src, std::size_t groups, char *out);

// Decodes groups of 4 readable characters into 3 bytes each, up to the first group with a character outside the
// alphabet. Returns the number of groups and writes no more than their bytes.
std::size_t decode_groups(const char *src, std::size_t groups, unsigned char *out);

} // namespace qv::base64

#endif
