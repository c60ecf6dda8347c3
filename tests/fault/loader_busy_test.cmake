# Its plug-in calls the program back.
add_library(plugin MODULE ${folder}/modules/plugin.cpp)
set_target_properties(plugin PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
set_target_properties(loader_busy_test PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(loader_busy_test plugin)
