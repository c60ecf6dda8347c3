# SPDX-License-Identifier: Apache-2.0
# What gdb prints of the library's records, in a live process and in cores. For the core of another machine,
# tools/arm-crashes runs the program there.
if(CMAKE_CROSSCOMPILING)
    add_executable(inspected ${CMAKE_CURRENT_LIST_DIR}/inspected.c)
    target_compile_options(inspected PRIVATE -g)
    target_link_libraries(inspected PRIVATE libcommon::common)
    set_target_properties(inspected PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
    return()
endif()
if(NOT LIBCOMMON_SANITIZE)
    add_test(NAME gdb.native COMMAND ${CMAKE_CURRENT_LIST_DIR}/inspect native ${PROJECT_BINARY_DIR})
    add_test(NAME gdb.aarch64
        COMMAND ${CMAKE_CURRENT_LIST_DIR}/inspect aarch64 ${PROJECT_SOURCE_DIR}/build/aarch64/crashes)
    set_tests_properties(gdb.native gdb.aarch64 PROPERTIES TIMEOUT 120 SKIP_RETURN_CODE 77
        ENVIRONMENT CC=${CMAKE_C_COMPILER})
endif()
