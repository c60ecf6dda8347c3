# One libFuzzer program a source <name>_fuzz.cpp, linked with the library's own sources so that they are instrumented.
# Each is replayed over its kept corpus as a test; tools/test gives each a short run besides.
file(GLOB fuzz_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_fuzz.cpp)
if(NOT fuzz_sources)
    return()
endif()

set(fuzz_flags -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -g1 -O1)
# The log reader's parsers need no packages.
set(reader_sources allocation_trace.cpp crash_log.cpp signature.cpp)
list(TRANSFORM reader_sources PREPEND ${PROJECT_SOURCE_DIR}/programs/qvcrash/)
add_library(fuzz_reader STATIC ${reader_sources})
target_compile_options(fuzz_reader PRIVATE ${fuzz_flags})
add_library(fuzz_common STATIC ${common_sources} ${heap_sources})
target_include_directories(fuzz_common PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(fuzz_common PRIVATE _GNU_SOURCE)
target_compile_options(fuzz_common PUBLIC ${fuzz_flags})
target_compile_options(fuzz_common PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics)
include(${PROJECT_SOURCE_DIR}/mem/flags.cmake OPTIONAL)

# The stand-in kernel without its system calls, which a target supplies if it needs them.
set(kernel_dir ${PROJECT_SOURCE_DIR}/platform/kernel)
add_library(fuzz_vrkernel STATIC ${kernel_dir}/config.cpp ${kernel_dir}/datagrams.cpp ${kernel_dir}/names.cpp
    ${kernel_dir}/requests.cpp ${kernel_dir}/sockets.cpp ${kernel_dir}/tables.cpp)
target_link_libraries(fuzz_vrkernel PUBLIC fuzz_common)
target_compile_definitions(fuzz_vrkernel PRIVATE _GNU_SOURCE)
target_compile_options(fuzz_vrkernel PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics)

foreach(source IN LISTS fuzz_sources)
    cmake_path(GET source STEM name)
    string(REGEX REPLACE "_fuzz$" "" subject ${name})
    set(corpus ${CMAKE_CURRENT_LIST_DIR}/corpus/${subject})
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE fuzz_vrkernel fuzz_reader fuzz_common)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/fuzz)
    add_test(NAME fuzz.replay.${subject} COMMAND ${name} -runs=0 ${corpus})
    list(APPEND fuzz_targets ${name})
endforeach()
add_custom_target(fuzzers DEPENDS ${fuzz_targets})
