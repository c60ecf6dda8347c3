# SPDX-License-Identifier: Apache-2.0
# Sanitizers add thread-local variables.
if(NOT LIBCOMMON_SANITIZE)
    file(GLOB sources RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/mem/*.cpp)
    list(TRANSFORM sources REPLACE "(.+)" "${PROJECT_BINARY_DIR}/CMakeFiles/libcommon.dir/\\1.o" OUTPUT_VARIABLE objects)
    add_test(NAME mem.no_thread_local_storage
        COMMAND ${CMAKE_CURRENT_LIST_DIR}/no_thread_local_storage ${CMAKE_READELF} ${objects})
endif()
