// SPDX-License-Identifier: Apache-2.0
// base64_bulk.h - runs of whole base64 groups, by the best means that the processor has. Which that is, is not seen in
// the results.
#ifndef LIBCOMMON_UTIL_ENCODING_BASE64_BULK_H
#define LIBCOMMON_UTIL_ENCODING_BASE64_BULK_H

#include <cstddef>

namespace base64 {

// Encodes groups of 3 bytes into groups of 4 characters, and writes no more than those.
void encode_groups(const unsigned char *src, std::size_t groups, char *out);

// Decodes groups of 4 readable characters into 3 bytes each, as far as they hold nothing but the alphabet; returns how
// many. Writes no more than those.
std::size_t decode_groups(const char *src, std::size_t groups, unsigned char *out);

} // namespace base64

#endif
