# SPDX-License-Identifier: Apache-2.0
# What gdb prints of the library's records, in a live process and in a core.
if(NOT CMAKE_CROSSCOMPILING AND NOT LIBCOMMON_SANITIZE)
    add_test(NAME gdb.inspect COMMAND ${CMAKE_CURRENT_LIST_DIR}/inspect ${PROJECT_BINARY_DIR})
    set_tests_properties(gdb.inspect PROPERTIES TIMEOUT 120 SKIP_RETURN_CODE 77 ENVIRONMENT CC=${CMAKE_C_COMPILER})
endif()
