# SPDX-License-Identifier: Apache-2.0
# Writes a C source that defines every exported name that is not interposable, as a host of its own might.
function(write_own_names output)
    libcommon_read_exports(${libcommon_exports} .+ names)
    # Prefixes, the C library's names, what is interposable as a variable, and the thread-local table.
    list(FILTER names EXCLUDE REGEX "^(__|qv_|console_print|g_process_stack_)|^(malloc|calloc|realloc|free|mtrace|muntrace)$")
    list(FILTER names EXCLUDE REGEX "^(strcasestr|section_rec|stack_main_top)$")
    set(variables Base64 crc16_table crc_table mirror_func mutex old_free_hook old_malloc_hook old_realloc_hook rwlock
        time_wait zlist)
    list(REMOVE_ITEM names ${variables})
    set(text "#define SIZE 64\nvoid own_names_called(const char *name);\n")
    foreach(name IN LISTS names)
        string(APPEND text "void ${name}(void);\nvoid ${name}(void)\n{\n    own_names_called(\"${name}\");\n}\n")
    endforeach()
    foreach(name IN LISTS variables)
        string(APPEND text "extern unsigned char ${name}[SIZE];\nunsigned char ${name}[SIZE] = {[0 ... SIZE - 1] = 0x5a};\n")
    endforeach()
    list(JOIN variables ", " places)
    list(JOIN variables "\", \"" texts)
    string(APPEND text "extern unsigned char *const own_variables[];\nextern const char *const own_variable_names[];\n"
        "extern const unsigned own_variable_size, own_variable_pattern;\n"
        "unsigned char *const own_variables[] = {${places}};\n"
        "const char *const own_variable_names[] = {\"${texts}\", 0};\n"
        "const unsigned own_variable_size = SIZE, own_variable_pattern = 0x5a;\n")
    file(CONFIGURE OUTPUT ${output} CONTENT "${text}" @ONLY)
endfunction()
