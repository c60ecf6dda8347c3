# SPDX-License-Identifier: Apache-2.0
# libcommon::host: what a host executable links to give the library its callback table and its text bounds. The options
# work with GNU ld, gold, lld and mold; a host that prefers a linker script uses libcommon-host.ld instead.
add_library(libcommon_host_bounds OBJECT ${CMAKE_CURRENT_LIST_DIR}/host_bounds.c)

set(host_link_options
    LINKER:--defsym=__qv_coredump_begin=__start_qv_coredump_callbacks
    LINKER:--defsym=__qv_coredump_end=__stop_qv_coredump_callbacks
    LINKER:--defsym=__qv_text_start=__executable_start
    LINKER:--defsym=__qv_text_end=etext)

function(libcommon_give_host_bounds target)
    target_link_options(${target} INTERFACE ${host_link_options})
    target_link_libraries(${target} INTERFACE
        $<BUILD_INTERFACE:$<TARGET_OBJECTS:libcommon_host_bounds>>
        $<INSTALL_INTERFACE:$<INSTALL_PREFIX>/${CMAKE_INSTALL_LIBDIR}/libcommon/host_bounds.o>)
endfunction()

add_library(libcommon_host INTERFACE)
add_library(libcommon::host ALIAS libcommon_host)
set_target_properties(libcommon_host PROPERTIES EXPORT_NAME host)
# A crash log names the host's functions by its dynamic symbols.
target_link_options(libcommon_host INTERFACE -rdynamic)
libcommon_give_host_bounds(libcommon_host)

# A crash log's backtrace follows frame pointers, through plug-ins too, which link libcommon::common alone.
target_compile_options(libcommon INTERFACE -fno-omit-frame-pointer)
target_compile_options(libcommon_host INTERFACE -fno-omit-frame-pointer)

install(TARGETS libcommon_host EXPORT libcommon-targets)
install(FILES $<TARGET_OBJECTS:libcommon_host_bounds> DESTINATION ${CMAKE_INSTALL_LIBDIR}/libcommon
    RENAME host_bounds.o)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/libcommon-host.ld DESTINATION ${CMAKE_INSTALL_DATADIR}/libcommon)
