# SPDX-License-Identifier: Apache-2.0
if(TARGET sampled) # the fuzzers are built without the examples
    add_dependencies(sampled_test sampled sampled_c)
endif()
