# SPDX-License-Identifier: Apache-2.0
# Install rules, pkg-config and find_package(libcommon).
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/libcommon)

install(TARGETS libcommon libcommon_heap EXPORT libcommon-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/libcommon FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
# gdb loads it together with the library, whose path the folder repeats: known only when it is installed.
install(CODE "set(gdb_auto_load \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/gdb/auto-load\")")
install(CODE "file(INSTALL \"${PROJECT_SOURCE_DIR}/programs/gdb/libcommon-gdb.py\"
    DESTINATION \"\${gdb_auto_load}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\"
    RENAME libcommon.so.${PROJECT_VERSION}-gdb.py)")
install(FILES LICENSES/Apache-2.0.txt DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME LICENSE)
install(EXPORT libcommon-targets NAMESPACE libcommon:: DESTINATION ${package_dir})

configure_package_config_file(cmake/libcommon-config.cmake.in ${PROJECT_BINARY_DIR}/libcommon-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libcommon-config-version.cmake COMPATIBILITY SameMajorVersion)
file(RELATIVE_PATH pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(kind IN ITEMS host host_static)
    string(REPLACE "LINKER:" "-Wl," pc_${kind}_options "${${kind}_link_options}")
    list(JOIN pc_${kind}_options " " pc_${kind}_options)
endforeach()
configure_file(cmake/libcommon.pc.in ${PROJECT_BINARY_DIR}/libcommon.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libcommon-config.cmake ${PROJECT_BINARY_DIR}/libcommon-config-version.cmake
    DESTINATION ${package_dir})
install(FILES ${PROJECT_BINARY_DIR}/libcommon.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
