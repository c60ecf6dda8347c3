# SPDX-License-Identifier: Apache-2.0
# No unit uses one above it.
if(NOT LIBCOMMON_SANITIZE)
    add_test(NAME layers COMMAND ${CMAKE_CURRENT_LIST_DIR}/layers ${CMAKE_CURRENT_LIST_DIR}/layers.txt
        $<TARGET_OBJECTS:libcommon> COMMAND_EXPAND_LISTS)
endif()
