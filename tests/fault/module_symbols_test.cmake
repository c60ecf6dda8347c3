# SPDX-License-Identifier: Apache-2.0
# Modules to look up names in: with only one of the two hash tables, and linked to a high address. The test also runs as
# a program at a fixed address without a symbol table.
foreach(style IN ITEMS sysv gnu)
    add_library(plugin_${style} MODULE ${folder}/modules/plugin.cpp)
    target_link_options(plugin_${style} PRIVATE LINKER:--hash-style=${style})
endforeach()
add_library(plugin_high MODULE ${folder}/modules/high.cpp)
target_link_options(plugin_high PRIVATE LINKER:-Ttext-segment=0x0100000000000000)

add_executable(module_symbols_fixed_test ${folder}/module_symbols_test.cpp)
target_link_libraries(module_symbols_fixed_test PRIVATE $<LINK_LIBRARY:WHOLE_ARCHIVE,test_support>
    libcommon libcommon_heap libcommon_host)
target_link_options(module_symbols_fixed_test PRIVATE -no-pie -s)
set_target_properties(module_symbols_fixed_test PROPERTIES POSITION_INDEPENDENT_CODE OFF)
set_target_properties(plugin_sysv plugin_gnu plugin_high module_symbols_fixed_test PROPERTIES PREFIX ""
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(module_symbols_test plugin_sysv plugin_gnu plugin_high module_symbols_fixed_test)
if(NOT CMAKE_CROSSCOMPILING)
    gtest_discover_tests(module_symbols_fixed_test TEST_PREFIX "fixed." DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 120
        LABELS module_symbols_fixed_test SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
endif()
