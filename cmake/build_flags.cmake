# SPDX-License-Identifier: Apache-2.0
# Flags that every target of the tree shares, and those of the shared objects that ship.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
# Wherever the tree is installed to: the libraries lie beside one another, the programs one folder away.
set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
# Optimising what the sanitizers add takes longer than all the rest of a build, so only the shipped objects are optimised.
set(CMAKE_CXX_FLAGS_SANITIZE "-O0 -g1")
set(CMAKE_C_FLAGS_SANITIZE "-O0 -g1")

# The shipped objects are linked by the C driver; without this CMake would add the C++ run time to their link line.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

# Crash logs walk frame pointers, so every frame keeps one.
add_compile_options(-fno-omit-frame-pointer)
if(LIBCOMMON_WERROR)
    add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
    # gcc's -Wpedantic objects to %m. clang does not: its build checks the formats.
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        add_compile_definitions(QV_NO_PRINTF_CHECK)
    endif()
endif()
if(LIBCOMMON_SANITIZE)
    add_compile_options(-fsanitize=${LIBCOMMON_SANITIZE} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${LIBCOMMON_SANITIZE})
endif()

function(libcommon_runtime_flags target)
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}
        PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/libcommon>)
    target_compile_definitions(${target} PRIVATE _GNU_SOURCE)
    # Allocation hooks tell malloc() from calloc(), so the compiler is not to make one of the other. A host may define an
    # exported function itself, and the library's own calls have to reach it: clang inlines them without the option.
    target_compile_options(${target} PRIVATE -fvisibility=hidden -fsemantic-interposition -fno-builtin-malloc
        $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility-inlines-hidden>)
    # The hardening binds all symbols at load: none may be bound lazily inside a signal handler.
    libcommon_harden(${target})
    target_link_options(${target} PRIVATE LINKER:--as-needed)
    if(LIBCOMMON_SANITIZE)
        target_compile_options(${target} PRIVATE -O1)
    else()
        target_link_options(${target} PRIVATE LINKER:-z,defs)
    endif()
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR} LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
endfunction()

# For shared objects whose names carry no version.
function(libcommon_c_symbols_only target)
    set(map ${PROJECT_SOURCE_DIR}/cmake/c-symbols-only.map)
    target_link_options(${target} PRIVATE LINKER:--version-script,${map})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()
