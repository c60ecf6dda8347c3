# SPDX-License-Identifier: Apache-2.0
# The processes of the experiments, and the stand-in kernel.
add_executable(vrkernel_peer ${CMAKE_CURRENT_LIST_DIR}/vrkernel_peer.cpp)
target_link_libraries(vrkernel_peer PRIVATE libcommon)
target_compile_definitions(vrkernel_peer PRIVATE _GNU_SOURCE)
set_target_properties(vrkernel_peer PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(vrkernel_test libcommon_vrkernel libcommon_vrkernel_command vrkernel_peer)
foreach(example IN ITEMS sampled vrecho)
    if(TARGET ${example})
        add_dependencies(vrkernel_test ${example})
    endif()
endforeach()

if(NOT LIBCOMMON_SANITIZE)
    add_test(NAME abi.needed.vrkernel COMMAND ${CMAKE_CURRENT_LIST_DIR}/../abi/needed $<TARGET_FILE:libcommon_vrkernel> libc.so.6)
endif()
