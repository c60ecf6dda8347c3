# SPDX-License-Identifier: Apache-2.0
glib_peer()
find_package(absl QUIET)
if(absl_FOUND)
    target_compile_definitions(hashtbl_bench PRIVATE HAVE_ABSL)
    target_link_libraries(hashtbl_bench PRIVATE absl::flat_hash_map)
else()
    message(STATUS "hashtbl_bench runs without Abseil: it is not installed")
endif()
