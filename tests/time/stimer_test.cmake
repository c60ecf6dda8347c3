# SPDX-License-Identifier: Apache-2.0
# The same cases with another heap library in place of this tree's.
set(plain_heap_folder ${CMAKE_CURRENT_BINARY_DIR}/plain_heap)
add_library(plain_heap SHARED ${CMAKE_CURRENT_LIST_DIR}/plain_heap.cpp)
target_include_directories(plain_heap PRIVATE ${PROJECT_SOURCE_DIR}/include)
set_target_properties(plain_heap PROPERTIES OUTPUT_NAME heap SOVERSION 1 LIBRARY_OUTPUT_DIRECTORY ${plain_heap_folder})
target_link_libraries(plain_heap PRIVATE stdc++)
add_dependencies(${name} plain_heap)
if(NOT CMAKE_CROSSCOMPILING AND NOT "time" IN_LIST LIBCOMMON_LEFT_OUT_TESTS)
    gtest_discover_tests(${name} TEST_PREFIX "plain_heap." DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 120
        LABELS ${name} SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]"
        ENVIRONMENT LD_LIBRARY_PATH=${plain_heap_folder})
endif()
