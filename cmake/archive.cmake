# SPDX-License-Identifier: Apache-2.0
# libcommon.a and libheap.a, for executables that are linked statically. They hold the objects of the shared libraries.
#
# libcommon.a is one object, so that a program that uses any function also gets the library's constructors. Its sections
# are as small as functions: a link with --gc-sections keeps those that are used. The names that a host may define itself
# are weak. The global symbols of both archives are the exported ones: a static link does not heed their visibility.
#
# A program holds the C library's malloc() too. The library's has the name __qv_malloc here; libcommon::host_static makes
# that the process's malloc().
set(archive_dir ${PROJECT_BINARY_DIR}/archive)
set(allocation_functions malloc calloc realloc free)
list(TRANSFORM allocation_functions REPLACE "(.+)" "\\1=__qv_\\1" OUTPUT_VARIABLE second_names)

libcommon_read_exports(${libcommon_exports} Base weak_symbols)
list(REMOVE_ITEM weak_symbols ${allocation_functions})
list(JOIN weak_symbols "\n" weak_symbols)
file(CONFIGURE OUTPUT ${archive_dir}/weak_symbols CONTENT "${weak_symbols}\n")
libcommon_read_exports(${libcommon_exports} .+ global_symbols)
list(JOIN global_symbols "\n" global_symbols)
list(TRANSFORM allocation_functions PREPEND __qv_ OUTPUT_VARIABLE own_allocation_names)
list(JOIN own_allocation_names "\n" own_allocation)
file(CONFIGURE OUTPUT ${archive_dir}/global_symbols CONTENT "${global_symbols}\n${own_allocation}\n")

# libcommon_join_objects(OBJECTS TO OPTION...) - makes one object of several, with options for objcopy.
function(libcommon_join_objects objects to)
    add_custom_command(OUTPUT ${to}
        COMMAND ${CMAKE_C_COMPILER} -r -nostdlib -o ${to}.joined ${objects}
        COMMAND ${CMAKE_OBJCOPY} ${ARGN} ${to}.joined ${to}
        DEPENDS ${objects} COMMENT "Joining the objects of ${to}" VERBATIM COMMAND_EXPAND_LISTS)
endfunction()

set(all_objects $<TARGET_OBJECTS:libcommon>)
set(interposition "/mem/interposition\\.cpp\\.")
list(TRANSFORM second_names PREPEND --redefine-sym= OUTPUT_VARIABLE give_second_names)
add_custom_command(OUTPUT ${archive_dir}/interposition.o
    COMMAND ${CMAKE_OBJCOPY} ${give_second_names} $<FILTER:${all_objects},INCLUDE,${interposition}>
        ${archive_dir}/interposition.o
    DEPENDS ${all_objects} VERBATIM COMMAND_EXPAND_LISTS)
libcommon_join_objects("$<FILTER:${all_objects},EXCLUDE,${interposition}>;${archive_dir}/interposition.o"
    ${archive_dir}/common.o --keep-global-symbols=${archive_dir}/global_symbols
    --weaken-symbols=${archive_dir}/weak_symbols)
add_custom_command(OUTPUT ${archive_dir}/common.o APPEND
    DEPENDS ${archive_dir}/global_symbols ${archive_dir}/weak_symbols)
libcommon_join_objects($<TARGET_OBJECTS:libcommon_heap> ${archive_dir}/heap.o --wildcard --keep-global-symbol=__heap_*)

add_library(libcommon_heap_static STATIC ${archive_dir}/heap.o)
add_library(libcommon::heap_static ALIAS libcommon_heap_static)
set_target_properties(libcommon_heap_static PROPERTIES OUTPUT_NAME heap EXPORT_NAME heap_static LINKER_LANGUAGE C)
add_dependencies(libcommon_heap_static libcommon_heap) # whose objects it uses

add_library(libcommon_static STATIC ${archive_dir}/common.o)
add_library(libcommon::common_static ALIAS libcommon_static)
set_target_properties(libcommon_static PROPERTIES OUTPUT_NAME common EXPORT_NAME common_static LINKER_LANGUAGE C)
add_dependencies(libcommon_static libcommon) # whose objects it uses
target_include_directories(libcommon_static INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/libcommon>)
target_compile_options(libcommon_static INTERFACE -fno-omit-frame-pointer)
target_link_libraries(libcommon_static INTERFACE libcommon_heap_static)

# libcommon::host for libcommon.a: with the names of the allocation functions. clang passes -rdynamic to the linker for
# static executables too, and GNU ld then writes relocations that such a program cannot apply to itself.
add_library(libcommon_host_static INTERFACE)
add_library(libcommon::host_static ALIAS libcommon_host_static)
set_target_properties(libcommon_host_static PROPERTIES EXPORT_NAME host_static)
libcommon_give_host_bounds(libcommon_host_static)
set(host_static_link_options LINKER:--no-export-dynamic)
if(LIBCOMMON_MALLOC_HOOKS)
    list(TRANSFORM second_names PREPEND LINKER:--defsym= OUTPUT_VARIABLE rename_allocation)
    # mold does not see that --defsym uses a function, and --gc-sections would drop it.
    list(TRANSFORM own_allocation_names PREPEND LINKER:--undefined= OUTPUT_VARIABLE keep_allocation)
    list(APPEND host_static_link_options ${rename_allocation} ${keep_allocation})
endif()
target_link_options(libcommon_host_static INTERFACE ${host_static_link_options})

install(TARGETS libcommon_static libcommon_heap_static libcommon_host_static EXPORT libcommon-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
