# SPDX-License-Identifier: Apache-2.0
peer(CRYPTO crypto openssl/evp.h)
glib_peer()
target_link_libraries(base64_bench PRIVATE resolv)
