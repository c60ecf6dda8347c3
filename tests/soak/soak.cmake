# SPDX-License-Identifier: Apache-2.0
# The soak runs (tools/soak): crashes, with the plug-in that their hosts load, and a living system.
foreach(name IN ITEMS soak soak_living)
    add_executable(${name})
    target_link_libraries(${name} PRIVATE test_support libcommon libcommon_heap libcommon_host)
    target_link_options(${name} PRIVATE -rdynamic)
endforeach()
target_sources(soak PRIVATE soak/soak.cpp)
target_sources(soak_living PRIVATE soak/living.cpp soak/daemon.cpp)
add_library(soak_plugin MODULE soak/plugin.cpp)
set_target_properties(soak soak_living soak_plugin PROPERTIES PREFIX "" RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(soak soak_plugin)

# The report on a long run.
find_program(python3 python3)
if(python3 AND NOT CMAKE_CROSSCOMPILING)
    add_test(NAME soak.report COMMAND ${python3} ${CMAKE_CURRENT_LIST_DIR}/report_test.py)
    set_tests_properties(soak.report PROPERTIES TIMEOUT 60)
endif()
