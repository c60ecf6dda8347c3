# libvrkernel.so, to be preloaded, and the program vrkernel that does so and shows the tables. Development aids: they are
# installed for those who write programs for the appliance, but are not part of find_package(libcommon).
set(kernel_dir ${CMAKE_CURRENT_LIST_DIR})
add_library(libcommon_vrkernel SHARED ${kernel_dir}/config.cpp ${kernel_dir}/datagrams.cpp ${kernel_dir}/interpose.cpp
    ${kernel_dir}/names.cpp ${kernel_dir}/requests.cpp ${kernel_dir}/sockets.cpp ${kernel_dir}/system_calls.cpp
    ${kernel_dir}/tables.cpp)
set_target_properties(libcommon_vrkernel PROPERTIES OUTPUT_NAME vrkernel)
libcommon_runtime_flags(libcommon_vrkernel)
set_property(TARGET libcommon_vrkernel PROPERTY VERSION) # nobody links with it: one file, under its plain name
set_property(TARGET libcommon_vrkernel PROPERTY SOVERSION)

# In a separate folder: the linker and the loader do not look for it by its name.
file(RELATIVE_PATH library_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/libcommon/libvrkernel.so)
add_executable(libcommon_vrkernel_command ${kernel_dir}/vrkernel.cpp ${kernel_dir}/config.cpp ${kernel_dir}/tables.cpp)
target_include_directories(libcommon_vrkernel_command PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(libcommon_vrkernel_command PRIVATE _GNU_SOURCE VRKERNEL_LIBRARY_FROM_BIN="${library_from_bin}")
set_target_properties(libcommon_vrkernel_command PROPERTIES OUTPUT_NAME vrkernel RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})

install(TARGETS libcommon_vrkernel LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/libcommon)
install(TARGETS libcommon_vrkernel_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${kernel_dir}/vrkernel.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
