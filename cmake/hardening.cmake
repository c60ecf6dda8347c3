# SPDX-License-Identifier: Apache-2.0
# Hardening of what is installed: canaries in stack frames, checks of the C library's calls, protected branches, read-only
# relocations. tests/abi/hardening checks the result.
include(CheckCXXCompilerFlag)

# As an error: clang only warns of a flag of another machine.
set(CMAKE_REQUIRED_FLAGS -Werror)
# AArch64: signed return addresses and branch targets. x86-64: branch targets and the shadow stack.
foreach(flag IN ITEMS -mbranch-protection=standard -fcf-protection=full)
    string(MAKE_C_IDENTIFIER "LIBCOMMON_ACCEPTS${flag}" known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
        list(APPEND LIBCOMMON_HARDENING -fstack-protector-strong ${flag})
    endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)

# The checks need an optimising compiler, and the sanitizers have better ones.
if(NOT LIBCOMMON_SANITIZE)
    list(APPEND LIBCOMMON_HARDENING -U_FORTIFY_SOURCE "$<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>")
endif()

function(libcommon_harden target)
    target_compile_options(${target} PRIVATE ${LIBCOMMON_HARDENING})
    target_link_options(${target} PRIVATE LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL EXECUTABLE)
        target_link_options(${target} PRIVATE -pie)
    endif()
endfunction()

# These format texts of the host. Level 2 ends the process at a "%n" in a format that is not in read-only memory.
function(libcommon_accept_any_format target)
    set(sources ${ARGN})
    list(TRANSFORM sources PREPEND ${PROJECT_SOURCE_DIR}/)
    if(NOT LIBCOMMON_SANITIZE)
        set_property(SOURCE ${sources} TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_OPTIONS
            -U_FORTIFY_SOURCE "$<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=1>")
    endif()
endfunction()
