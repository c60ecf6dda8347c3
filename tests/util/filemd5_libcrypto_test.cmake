# SPDX-License-Identifier: Apache-2.0
# The target's root has no libcrypto to link; filemd5_test replaces it there. Linked like a host: with --as-needed
# the linker leaves out a libcrypto that the host itself does not call.
if(CMAKE_CROSSCOMPILING)
    set_target_properties(filemd5_libcrypto_test PROPERTIES EXCLUDE_FROM_ALL TRUE)
else()
    find_library(LIBCRYPTO crypto REQUIRED)
    target_link_libraries(filemd5_libcrypto_test PRIVATE -Wl,--as-needed ${LIBCRYPTO})
endif()
