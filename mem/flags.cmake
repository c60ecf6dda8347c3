# SPDX-License-Identifier: Apache-2.0
# -fno-builtin: the compiler would turn calloc()'s slow path, which is malloc() and memset(), into a call of calloc().
# -fno-plt: every allocation calls the allocator below, without a stub in between.
set_source_files_properties(${PROJECT_SOURCE_DIR}/mem/interposition.cpp TARGET_DIRECTORY libcommon
    PROPERTIES COMPILE_OPTIONS "-fno-builtin;-fno-plt")

# It looks at what a call of malloc() does, and the compiler would drop the call.
set_source_files_properties(${PROJECT_SOURCE_DIR}/mem/process_malloc.cpp TARGET_DIRECTORY libcommon
    PROPERTIES COMPILE_OPTIONS -fno-builtin)

# Threads, fork handlers and hooks keep pointers into the library for the life of the process.
target_link_options(libcommon PRIVATE LINKER:-z,nodelete)
