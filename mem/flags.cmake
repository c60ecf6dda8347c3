# The compiler would make calloc(), written as malloc() and clearing, a call of itself. Calls of the allocator below are
# made without a stub in between: they are on every allocation's way.
set_source_files_properties(${PROJECT_SOURCE_DIR}/mem/malloc_hooks.cpp TARGET_DIRECTORY libcommon
    PROPERTIES COMPILE_OPTIONS "-fno-builtin;-fno-plt")

# Threads, fork handlers and hooks keep pointers into the library for the life of the process.
target_link_options(libcommon PRIVATE LINKER:-z,nodelete)
