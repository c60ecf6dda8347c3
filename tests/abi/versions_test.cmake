# SPDX-License-Identifier: Apache-2.0
# A host that was linked with a library without versions, and runs with this one.
target_compile_definitions(versions_test PRIVATE PROJECT_VERSION="${PROJECT_VERSION}")
if(NOT LIBCOMMON_SANITIZE)
    add_library(unversioned_stub SHARED ${folder}/hosts/stub.c)
    set_target_properties(unversioned_stub PROPERTIES OUTPUT_NAME common SOVERSION 1
        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/unversioned_stub)
    add_executable(old_host ${folder}/hosts/old_host.c)
    foreach(target IN ITEMS unversioned_stub old_host)
        target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/include)
    endforeach()
    # The stub for the linker, the library for the loader.
    set_target_properties(old_host PROPERTIES POSITION_INDEPENDENT_CODE OFF RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
        BUILD_RPATH $ORIGIN/.. LINK_DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/unversioned_stub/libcommon.so)
    target_link_options(old_host PRIVATE -no-pie)
    target_link_libraries(old_host PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/unversioned_stub/libcommon.so)
    add_dependencies(old_host unversioned_stub)
    # A host with names of its own. It is exported whole: the names come before the library's.
    include(${folder}/own_names.cmake)
    write_own_names(${CMAKE_CURRENT_BINARY_DIR}/own_names.c)
    add_executable(own_names_host ${folder}/hosts/own_names_host.c ${CMAKE_CURRENT_BINARY_DIR}/own_names.c)
    set_target_properties(own_names_host PROPERTIES ENABLE_EXPORTS ON RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
    target_compile_options(own_names_host PRIVATE -fno-builtin -Wno-pedantic)
    target_link_options(own_names_host PRIVATE LINKER:--no-as-needed)
    target_link_libraries(own_names_host PRIVATE libcommon libcommon_heap)
    add_dependencies(versions_test old_host own_names_host)
endif()
