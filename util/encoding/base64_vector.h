// SPDX-License-Identifier: Apache-2.0
// base64_vector.h - base64 with vector instructions: one file for each architecture, base64_vector_*.cpp.
#ifndef LIBCOMMON_UTIL_ENCODING_BASE64_VECTOR_H
#define LIBCOMMON_UTIL_ENCODING_BASE64_VECTOR_H

#include <cstddef>

namespace qv::base64 {

// Like encode_groups(), for as many groups as fill whole vectors. Returns their number: 0 when the processor lacks the
// instructions.
std::size_t encode_vectors(const unsigned char *src, std::size_t groups, char *out);

// Like decode_groups(), but stops before the first vector that holds a character outside the alphabet. Returns the
// number of groups decoded.
std::size_t decode_vectors(const char *src, std::size_t groups, unsigned char *out);

} // namespace qv::base64

#endif
