# SPDX-License-Identifier: Apache-2.0
peer(LIBDEFLATE deflate libdeflate.h)
peer(ZLIB z zlib.h)
peer(ISAL isal isa-l/crc.h)
