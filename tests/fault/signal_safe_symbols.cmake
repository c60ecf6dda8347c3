# SPDX-License-Identifier: Apache-2.0
# Every object of the crash path refers to allowed symbols only. The handlers' set-up, the recorder and the console
# backtraces run in ordinary code and are left out. Sanitizers add calls of their own.
if(NOT LIBCOMMON_SANITIZE)
    set(port ${CMAKE_SYSTEM_PROCESSOR})
    set(crash_path backtrace crash_details crash_handler crash_log crash_notes hex_dump log_walk_${port}
        machine_context_${port} module_report module_symbols running_handlers safe_memory section_table signal_format
        stack_info stack_scan thread_report thread_walk)
    list(TRANSFORM crash_path PREPEND "fault/")
    list(APPEND crash_path log/civil_time log/console_handler log/console_platform log/console_sigctx log/handler_format time/zone_offset)
    list(TRANSFORM crash_path PREPEND "${PROJECT_BINARY_DIR}/CMakeFiles/libcommon.dir/")
    list(TRANSFORM crash_path APPEND ".cpp.o")
    add_test(NAME fault.signal_safe_symbols COMMAND ${CMAKE_CURRENT_LIST_DIR}/signal_safe_symbols
        ${CMAKE_CURRENT_LIST_DIR}/signal_safe_symbols.txt ${crash_path})

    # And every marked function of the library calls, however deep, only what is allowed.
    set(common_header_folders include fault log mem net time util)
    list(TRANSFORM common_header_folders PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE header_folders)
    list(JOIN header_folders ":" header_folders)
    set(here ${CMAKE_CURRENT_LIST_DIR})
    add_test(NAME fault.signal_safe_reach COMMAND ${here}/signal_safe_reach
        ${here}/signal_safe_symbols.txt:${here}/signal_safe_reach.txt ${header_folders} ${CMAKE_OBJDUMP}
        $<TARGET_OBJECTS:libcommon> COMMAND_EXPAND_LISTS)
endif()
