# SPDX-License-Identifier: Apache-2.0
# Its plug-in calls back into the program; a separate host loads the library late.
add_library(plugin MODULE ${folder}/modules/plugin.cpp)
add_executable(late_crash_host ${folder}/modules/late_crash_host.cpp)
target_link_libraries(late_crash_host PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(plugin late_crash_host PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
set_target_properties(loader_busy_test PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(loader_busy_test plugin late_crash_host)
