if(TARGET qvenv)
    add_dependencies(mtrace_file_test qvenv)
endif()
