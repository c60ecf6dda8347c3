# SPDX-License-Identifier: Apache-2.0
# The installed package serves a C11 and a C++20 host: with plain flags and the linker script, through pkg-config with
# each linker, through find_package, and as an archive. A host built as the README says leaves a readable crash log. Where
# the target is another machine the hosts run under the emulator.
if(NOT LIBCOMMON_SANITIZE)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    foreach(way IN ITEMS script pkg-config.bfd pkg-config.gold pkg-config.lld pkg-config.mold find_package static)
        add_test(NAME package.${way} COMMAND ${CMAKE_CURRENT_LIST_DIR}/consume ${way} ${PROJECT_BINARY_DIR})
        set_tests_properties(package.${way} PROPERTIES TIMEOUT 120)
        set_property(TEST package.${way} PROPERTY ENVIRONMENT CC=${CMAKE_C_COMPILER} CXX=${CMAKE_CXX_COMPILER}
            EMULATOR=${emulator} "CMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE}")
    endforeach()
    if(NOT CMAKE_CROSSCOMPILING)
        add_test(NAME package.readme COMMAND ${CMAKE_CURRENT_LIST_DIR}/consume readme ${PROJECT_BINARY_DIR})
        set_tests_properties(package.readme PROPERTIES TIMEOUT 120
            ENVIRONMENT "CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER}")
    endif()
endif()
add_test(NAME package.symbols COMMAND ${CMAKE_CURRENT_LIST_DIR}/symbols ${libcommon_exports}
    ${PROJECT_SOURCE_DIR}/debian/libcommon1.symbols)
