# SPDX-License-Identifier: Apache-2.0
find_library(CRYPTO_LIBRARY crypto REQUIRED)
target_link_libraries(filemd5_bench PRIVATE -Wl,--no-as-needed ${CRYPTO_LIBRARY})
