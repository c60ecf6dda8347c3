# The processes of the experiments, and the kernel that they run on.
add_executable(vrkernel_peer ${CMAKE_CURRENT_LIST_DIR}/vrkernel_peer.cpp)
target_link_libraries(vrkernel_peer PRIVATE common)
target_compile_definitions(vrkernel_peer PRIVATE _GNU_SOURCE)
set_target_properties(vrkernel_peer PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(vrkernel_test vrkernel vrkernel_command vrkernel_peer)
