# What the shared objects show to the loader.
add_test(NAME abi.exports COMMAND ${CMAKE_CURRENT_LIST_DIR}/exports $<TARGET_FILE:libcommon>
    ${PROJECT_SOURCE_DIR}/abi/libcommon.exports $<IF:$<BOOL:${LIBCOMMON_MALLOC_HOOKS}>,hooks,no-hooks>)
if(NOT LIBCOMMON_SANITIZE)
    add_test(NAME abi.needed.common COMMAND ${CMAKE_CURRENT_LIST_DIR}/needed $<TARGET_FILE:libcommon> libc.so.6 libheap.so.1)
    add_test(NAME abi.needed.heap COMMAND ${CMAKE_CURRENT_LIST_DIR}/needed $<TARGET_FILE:libcommon_heap> libc.so.6)
    add_test(NAME abi.initialisers.common COMMAND ${CMAKE_CURRENT_LIST_DIR}/initialisers $<TARGET_FILE:libcommon>)
    add_test(NAME abi.initialisers.heap COMMAND ${CMAKE_CURRENT_LIST_DIR}/initialisers $<TARGET_FILE:libcommon_heap>)
endif()
add_test(NAME abi.guard_variables COMMAND ${CMAKE_CURRENT_LIST_DIR}/guard_variables $<TARGET_OBJECTS:libcommon>
    $<TARGET_OBJECTS:libcommon_heap> $<TARGET_OBJECTS:libcommon_vrkernel> COMMAND_EXPAND_LISTS)
