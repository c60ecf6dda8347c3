# SPDX-License-Identifier: Apache-2.0
# The target's root has no libcrypto. The search is the same on every machine.
if(CMAKE_CROSSCOMPILING)
    set_target_properties(filemd5_search_test PROPERTIES EXCLUDE_FROM_ALL TRUE)
endif()
