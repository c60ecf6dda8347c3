if(TARGET sampled)
    add_dependencies(mtrace_file_test sampled)
endif()
