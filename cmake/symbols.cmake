# SPDX-License-Identifier: Apache-2.0
# The dynamic symbols of libcommon: which names carry a version, and which ones a host may define for the library too.
set(LIBCOMMON_SYMBOL_VERSION LIBCOMMON_1.0)
set(abi_dir ${PROJECT_SOURCE_DIR}/abi)

# The names that the library exports without a version.
function(libcommon_read_unversioned result)
    file(STRINGS ${abi_dir}/unversioned unversioned REGEX "^[a-z_]")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${abi_dir}/unversioned)
    set(${result} ${unversioned} PARENT_SCOPE)
endfunction()

# The version script: every exported name that is not listed as unversioned. What the script does not name keeps no version.
function(libcommon_write_version_script output)
    file(STRINGS ${abi_dir}/libcommon.exports exports)
    libcommon_read_unversioned(unversioned)
    list(REMOVE_ITEM exports ${unversioned})
    list(JOIN exports ";\n        " exports)
    file(CONFIGURE OUTPUT ${output} @ONLY CONTENT [[
@LIBCOMMON_SYMBOL_VERSION@ {
    global:
        @exports@;
    local: _Z*;
};
]])
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${abi_dir}/libcommon.exports)
endfunction()

function(libcommon_symbols target)
    set(script ${PROJECT_BINARY_DIR}/libcommon.map)
    set(interposable ${abi_dir}/interposable.list)
    libcommon_write_version_script(${script})
    target_link_options(${target} PRIVATE LINKER:--version-script,${script} LINKER:--dynamic-list,${interposable})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script} ${interposable})
endfunction()
