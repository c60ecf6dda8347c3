# SPDX-License-Identifier: Apache-2.0
# The library keeps frame pointers; code without them is the other shape.
target_compile_options(frame_walk_test PRIVATE -fomit-frame-pointer)
foreach(frame IN ITEMS 256 512 1024)
    add_library(walk_plugin_${frame} MODULE ${folder}/hosts/walk_plugin.cpp)
    target_compile_definitions(walk_plugin_${frame} PRIVATE FRAME=${frame})
    target_compile_options(walk_plugin_${frame} PRIVATE -O1 -fomit-frame-pointer)
    set_target_properties(walk_plugin_${frame} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} PREFIX "")
    add_dependencies(frame_walk_test walk_plugin_${frame})
endforeach()
if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64) # return addresses signed with the key that is not the default
    target_compile_options(walk_plugin_1024 PRIVATE -mbranch-protection=pac-ret+leaf+b-key)
endif()

# Linked last, so it is initialised first.
add_library(walk_opener SHARED ${folder}/hosts/walk_opener.cpp)
target_link_libraries(walk_opener PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(walk_opener PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
target_link_libraries(frame_walk_test PRIVATE walk_opener)
