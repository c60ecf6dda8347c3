// SPDX-License-Identifier: Apache-2.0
// base64_vector.h - base64 by vector instructions: one file an architecture, base64_vector_*.cpp.
#ifndef LIBCOMMON_UTIL_ENCODING_BASE64_VECTOR_H
#define LIBCOMMON_UTIL_ENCODING_BASE64_VECTOR_H

#include <cstddef>

namespace base64 {

// As encode_groups(), for as many groups as fill vectors; returns how many it did. 0 where the processor has not the
// means.
std::size_t encode_vectors(const unsigned char *src, std::size_t groups, char *out);

// As decode_groups(), stopping before the first vector that holds anything but the
// alphabet; returns how many groups it did.
std::size_t decode_vectors(const char *src, std::size_t groups, unsigned char *out);

} // namespace base64

#endif
