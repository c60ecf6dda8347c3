# SPDX-License-Identifier: Apache-2.0
# The crash-log reader's tests: the reader's own, and the command on logs of a host that fails.
add_executable(failing_host ${CMAKE_CURRENT_LIST_DIR}/failing_host.cpp)
target_compile_options(failing_host PRIVATE -g -UNDEBUG)
target_link_libraries(failing_host PRIVATE libcommon::common libcommon::heap libcommon::host)
target_link_options(failing_host PRIVATE -rdynamic)
add_library(failing_plugin MODULE ${CMAKE_CURRENT_LIST_DIR}/failing_plugin.c)
target_compile_options(failing_plugin PRIVATE -g)
set_target_properties(failing_plugin PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
set_target_properties(failing_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})

# What follows reads logs, and is built where the reader is.
if(NOT TARGET libcommon_qvcrash_command)
    return()
endif()

target_link_libraries(crash_log_test PRIVATE libcommon_qvcrash)
target_compile_definitions(crash_log_test PRIVATE LIBCOMMON_LOGS="${CMAKE_CURRENT_LIST_DIR}/logs")
if(TARGET show_test)
    target_link_libraries(show_test PRIVATE libcommon_qvcrash)
    target_compile_definitions(show_test PRIVATE LIBCOMMON_FAILING_HOST="${CMAKE_CURRENT_LIST_DIR}/failing_host.cpp"
        LIBCOMMON_ARM_CRASHES="${PROJECT_SOURCE_DIR}/build/aarch64/crashes")
    add_dependencies(debuginfod_test libcommon_qvcrash_command failing_host)
    add_dependencies(show_test libcommon_qvcrash_command libcommon_qvenv failing_host failing_plugin)
endif()
target_link_libraries(group_test PRIVATE libcommon_qvcrash)
target_compile_definitions(group_test PRIVATE LIBCOMMON_LOGS="${CMAKE_CURRENT_LIST_DIR}/logs")
add_dependencies(group_test libcommon_qvcrash_command)
target_link_libraries(module_file_test PRIVATE libcommon_qvcrash)
add_dependencies(module_file_test failing_plugin)
target_link_libraries(bundle_test PRIVATE libcommon_qvcrash)
add_dependencies(bundle_test libcommon_qvcrash_command)
