# The installed package serves a C11 and a C++20 consumer, with plain flags, through pkg-config and through
# find_package.
if(NOT LIBCOMMON_SANITIZE)
    foreach(way IN ITEMS plain pkg-config find_package)
        add_test(NAME package.${way} COMMAND ${CMAKE_CURRENT_LIST_DIR}/consume ${way} ${PROJECT_BINARY_DIR})
        set_tests_properties(package.${way} PROPERTIES TIMEOUT 120)
    endforeach()
endif()
