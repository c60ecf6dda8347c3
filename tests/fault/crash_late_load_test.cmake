# SPDX-License-Identifier: Apache-2.0
add_executable(crash_late_host ${folder}/hosts/crash_late_host.cpp)
target_compile_options(crash_late_host PRIVATE -fno-builtin)
target_link_libraries(crash_late_host PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(crash_late_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(crash_late_load_test crash_late_host)
