# SPDX-License-Identifier: Apache-2.0
# The programs in the guides compile, and run if the guide says so.
string(REPLACE "LINKER:" "-Wl," docs_host_options "${host_link_options}")
if(NOT CMAKE_CROSSCOMPILING AND NOT LIBCOMMON_SANITIZE AND LIBCOMMON_MALLOC_HOOKS)
    file(GLOB guides CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/*.md)
    foreach(guide IN LISTS guides)
        cmake_path(GET guide STEM name)
        add_test(NAME docs.${name} COMMAND ${CMAKE_CURRENT_LIST_DIR}/compile_examples $<TARGET_FILE:sandbox_run>
            -I${PROJECT_SOURCE_DIR}/include -fno-omit-frame-pointer -rdynamic $<TARGET_OBJECTS:libcommon_host_bounds>
            -L${PROJECT_BINARY_DIR} -lcommon -Wl,-rpath,${PROJECT_BINARY_DIR} -Wl,-rpath-link,${PROJECT_BINARY_DIR}
            -pthread ${docs_host_options} -- ${guide} COMMAND_EXPAND_LISTS)
        set_tests_properties(docs.${name} PROPERTIES TIMEOUT 120
            ENVIRONMENT "CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER}")
    endforeach()
endif()

# Headers, guides and programs are in the lists that name them all.
if(NOT CMAKE_CROSSCOMPILING AND NOT LIBCOMMON_SANITIZE)
    add_test(NAME docs.listed COMMAND ${CMAKE_CURRENT_LIST_DIR}/listed ${PROJECT_SOURCE_DIR})
endif()

# The reference has no gap, and man finds its pages.
find_program(doxygen doxygen)
if(doxygen AND NOT CMAKE_CROSSCOMPILING AND NOT LIBCOMMON_SANITIZE)
    add_test(NAME docs.reference COMMAND ${CMAKE_CURRENT_LIST_DIR}/reference ${libcommon_exports}
        ${CMAKE_CURRENT_BINARY_DIR}/reference)
endif()

# The generator of docs/performance.md, from stored results and with programs that fail.
find_program(python3 python3)
if(python3 AND NOT CMAKE_CROSSCOMPILING AND NOT LIBCOMMON_SANITIZE)
    add_test(NAME docs.report COMMAND ${python3} ${CMAKE_CURRENT_LIST_DIR}/report/report_test.py)
    set_tests_properties(docs.report PROPERTIES TIMEOUT 120)
endif()
