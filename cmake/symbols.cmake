# SPDX-License-Identifier: Apache-2.0
# The dynamic symbols of libcommon: which version each name has, and which ones a host may define for the library too.
set(abi_dir ${PROJECT_SOURCE_DIR}/abi)
set(libcommon_exports ${abi_dir}/libcommon.exports)

# libcommon_read_exports(FILE VERSION RESULT) - the names with this symbol version, a regular expression.
function(libcommon_read_exports file version result)
    file(STRINGS ${file} names REGEX "^[A-Za-z_][A-Za-z0-9_]* ${version}$")
    list(TRANSFORM names REPLACE " .*" "")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    set(${result} ${names} PARENT_SCOPE)
endfunction()

# The version script: a node for each version, which follows the node of the version before. A name that the script does not
# list has no version.
function(libcommon_write_version_script exports output)
    file(STRINGS ${exports} versions REGEX "^[^#].* LIBCOMMON_")
    list(TRANSFORM versions REPLACE ".* " "")
    list(REMOVE_DUPLICATES versions)
    list(SORT versions COMPARE NATURAL)
    set(script "")
    set(local_names "    local: _Z*;\n")
    set(predecessor "")
    foreach(version IN LISTS versions)
        libcommon_read_exports(${exports} ${version} names)
        list(JOIN names ";\n        " names)
        string(APPEND script "${version} {\n    global:\n        ${names};\n${local_names}}${predecessor};\n")
        set(local_names "")
        set(predecessor " ${version}")
    endforeach()
    file(CONFIGURE OUTPUT ${output} CONTENT "${script}" @ONLY)
endfunction()

# libcommon_version_symbols(TARGET EXPORTS) - gives the names of a shared library the versions that the file lists.
function(libcommon_version_symbols target exports)
    set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
    libcommon_write_version_script(${exports} ${script})
    target_link_options(${target} PRIVATE LINKER:--version-script,${script})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
endfunction()

function(libcommon_symbols target)
    set(interposable ${abi_dir}/interposable.list)
    libcommon_version_symbols(${target} ${libcommon_exports})
    target_link_options(${target} PRIVATE LINKER:--dynamic-list,${interposable})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${interposable})
endfunction()
