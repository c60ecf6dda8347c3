# SPDX-License-Identifier: Apache-2.0
# The crash and walk cases once more in programs with signed return addresses, where the processor supports them.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    foreach(subject IN ITEMS backtrace_test crash_matrix_test)
        add_executable(signed_${subject} ${folder}/${subject}.cpp)
        target_compile_options(signed_${subject} PRIVATE -mbranch-protection=standard)
        target_link_libraries(signed_${subject} PRIVATE $<LINK_LIBRARY:WHOLE_ARCHIVE,test_support>
            libcommon libcommon_heap libcommon_host)
        set_target_properties(signed_${subject} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
    endforeach()
endif()
