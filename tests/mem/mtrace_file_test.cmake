# SPDX-License-Identifier: Apache-2.0
if(TARGET sampled)
    add_dependencies(mtrace_file_test sampled)
endif()
