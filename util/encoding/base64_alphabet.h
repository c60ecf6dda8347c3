// SPDX-License-Identifier: Apache-2.0
// base64_alphabet.h - the 64 characters of base64 in the order of their values, defined once.
#ifndef LIBCOMMON_UTIL_ENCODING_BASE64_ALPHABET_H
#define LIBCOMMON_UTIL_ENCODING_BASE64_ALPHABET_H

// A literal: an array such as the exported Base64 can be initialised by nothing else.
#define LIBCOMMON_BASE64_ALPHABET "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"

namespace qv::base64 {

// Local to the library, while a host may define a symbol Base64 itself.
inline constexpr char kAlphabet[] = LIBCOMMON_BASE64_ALPHABET;

} // namespace qv::base64

#endif
