# SPDX-License-Identifier: Apache-2.0
# libvrkernel.so, to be preloaded: a development aid. It is installed for those who write programs for the appliance, but
# is not part of find_package(libcommon). programs/vrkernel is the command that preloads it.
set(kernel_dir ${CMAKE_CURRENT_LIST_DIR})
add_library(libcommon_vrkernel SHARED ${kernel_dir}/config.cpp ${kernel_dir}/datagrams.cpp ${kernel_dir}/interpose.cpp
    ${kernel_dir}/names.cpp ${kernel_dir}/requests.cpp ${kernel_dir}/sockets.cpp ${kernel_dir}/system_calls.cpp
    ${kernel_dir}/tables.cpp)
set_target_properties(libcommon_vrkernel PROPERTIES OUTPUT_NAME vrkernel)
libcommon_runtime_flags(libcommon_vrkernel)
libcommon_c_symbols_only(libcommon_vrkernel)
# It defines recvfrom() and its relatives, of which the checked headers have inline definitions.
set_property(SOURCE ${kernel_dir}/interpose.cpp TARGET_DIRECTORY libcommon_vrkernel APPEND PROPERTY COMPILE_OPTIONS
    -U_FORTIFY_SOURCE)
set_property(TARGET libcommon_vrkernel PROPERTY VERSION) # nobody links with it: one file, under its plain name
set_property(TARGET libcommon_vrkernel PROPERTY SOVERSION)

# In a separate folder: the linker and the loader do not look for it by its name.
install(TARGETS libcommon_vrkernel LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/libcommon)
