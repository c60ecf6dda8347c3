# SPDX-License-Identifier: Apache-2.0
# What the shared objects show to the loader.
add_test(NAME abi.exports COMMAND ${CMAKE_CURRENT_LIST_DIR}/exports $<TARGET_FILE:libcommon>
    ${libcommon_exports} $<IF:$<BOOL:${LIBCOMMON_MALLOC_HOOKS}>,hooks,no-hooks>)
if(NOT LIBCOMMON_SANITIZE)
    # A library that grew by minor releases.
    add_library(released SHARED ${CMAKE_CURRENT_LIST_DIR}/releases/library.c)
    libcommon_version_symbols(released ${CMAKE_CURRENT_LIST_DIR}/releases/exports)
    add_test(NAME abi.symbol_versions COMMAND ${CMAKE_CURRENT_LIST_DIR}/symbol_versions $<TARGET_FILE:released>)
    add_test(NAME abi.needed.common COMMAND ${CMAKE_CURRENT_LIST_DIR}/needed $<TARGET_FILE:libcommon> libc.so.6 libheap.so.1)
    add_test(NAME abi.needed.heap COMMAND ${CMAKE_CURRENT_LIST_DIR}/needed $<TARGET_FILE:libcommon_heap> libc.so.6)
    add_test(NAME abi.initialisers.common COMMAND ${CMAKE_CURRENT_LIST_DIR}/initialisers $<TARGET_FILE:libcommon>)
    add_test(NAME abi.initialisers.heap COMMAND ${CMAKE_CURRENT_LIST_DIR}/initialisers $<TARGET_FILE:libcommon_heap>)
endif()
add_test(NAME abi.guard_variables COMMAND ${CMAKE_CURRENT_LIST_DIR}/guard_variables $<TARGET_OBJECTS:libcommon>
    $<TARGET_OBJECTS:libcommon_heap> $<TARGET_OBJECTS:libcommon_vrkernel> COMMAND_EXPAND_LISTS)

# What hosts compile against. Another compiler describes the same declarations with other words.
if(CMAKE_C_COMPILER_ID STREQUAL GNU)
    add_test(NAME abi.declarations COMMAND ${CMAKE_CURRENT_LIST_DIR}/declarations check ${PROJECT_SOURCE_DIR}/include
        ${libcommon_exports} ${PROJECT_SOURCE_DIR}/abi/declared.${CMAKE_SYSTEM_PROCESSOR}.xml)
    set_property(TEST abi.declarations PROPERTY ENVIRONMENT CC=${CMAKE_C_COMPILER})
endif()

# clang checks fewer calls of the C library than gcc, in some programs none.
if(NOT LIBCOMMON_SANITIZE)
    set(hardened libcommon libcommon_heap libcommon_vrkernel libcommon_qvenv libcommon_vrkernel_command)
    foreach(command IN ITEMS libcommon_qvcrash_command libcommon_qvstat_command)
        if(TARGET ${command})
            list(APPEND hardened ${command})
        endif()
    endforeach()
    list(TRANSFORM hardened REPLACE "(.+)" "$<TARGET_FILE:\\1>" OUTPUT_VARIABLE hardened_files)
    list(TRANSFORM hardened REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>" OUTPUT_VARIABLE hardened_objects)
    set(fortified 1)
    if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
        set(fortified 0)
    endif()
    add_test(NAME abi.hardening COMMAND ${CMAKE_CURRENT_LIST_DIR}/hardening ${CMAKE_SYSTEM_PROCESSOR}
        $<IF:$<CONFIG:Debug>,0,${fortified}> ${hardened_files} -- ${hardened_objects} COMMAND_EXPAND_LISTS)
endif()
