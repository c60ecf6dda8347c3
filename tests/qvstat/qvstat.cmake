# SPDX-License-Identifier: Apache-2.0
# The tests of qvstat: what reads a process, everywhere; the command, where it is built.
target_link_libraries(inspection_test PRIVATE libcommon_qvstat)
if(NOT TARGET qvstat_test)
    return()
endif()
add_executable(inspected_host ${CMAKE_CURRENT_LIST_DIR}/inspected_host.cpp)
target_compile_options(inspected_host PRIVATE -g)
target_link_libraries(inspected_host PRIVATE libcommon::common libcommon::heap libcommon::host)
set_target_properties(inspected_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
target_compile_definitions(prometheus_test PRIVATE LIBCOMMON_DOCS="${PROJECT_SOURCE_DIR}/docs")
add_dependencies(prometheus_test libcommon_qvstat_command inspected_host)
target_compile_definitions(qvstat_test PRIVATE LIBCOMMON_INSPECTED_HOST="${CMAKE_CURRENT_LIST_DIR}/inspected_host.cpp")
add_dependencies(qvstat_test libcommon_qvstat_command inspected_host)
