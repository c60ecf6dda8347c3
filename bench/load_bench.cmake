# SPDX-License-Identifier: Apache-2.0
# One empty program for each library that is installed.
function(load_program library)
    add_executable(load_${library} EXCLUDE_FROM_ALL load_program.c)
    set_target_properties(load_${library} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench
        SKIP_BUILD_RPATH ON)
    target_link_libraries(load_${library} PRIVATE ${ARGN})
    target_link_options(load_${library} PRIVATE LINKER:--no-as-needed)
    add_dependencies(${name} load_${library})
    set(load_libraries ${load_libraries} "\"${library}\"" PARENT_SCOPE)
endfunction()

load_program(plain)
load_program(libcommon libcommon libcommon_heap)
foreach(pair IN ITEMS glib:glib-2.0 libuv:uv libevent:event)
    string(REGEX MATCH "^([^:]*):(.*)$" pair ${pair})
    set(peer ${CMAKE_MATCH_1})
    find_library(LOAD_${peer} ${CMAKE_MATCH_2})
    if(LOAD_${peer})
        load_program(${peer} ${LOAD_${peer}})
    else()
        message(STATUS "${name} runs without ${peer}: it is not installed")
    endif()
endforeach()
list(JOIN load_libraries "," load_libraries)
target_compile_definitions(${name} PRIVATE LOAD_PROGRAMS="${PROJECT_BINARY_DIR}/bench"
    LOAD_LIBRARY_PATH="${PROJECT_BINARY_DIR}" "LOAD_LIBRARIES=${load_libraries}")
