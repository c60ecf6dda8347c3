# SPDX-License-Identifier: Apache-2.0
# The soak run (tools/soak) and the plug-in that its hosts load.
add_executable(soak soak/soak.cpp)
target_link_libraries(soak PRIVATE test_support libcommon libcommon_heap libcommon_host)
target_link_options(soak PRIVATE -rdynamic)
add_library(soak_plugin MODULE soak/plugin.cpp)
set_target_properties(soak soak_plugin PROPERTIES PREFIX "" RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(soak soak_plugin)
