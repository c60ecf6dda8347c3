add_dependencies(qvenv_test qvenv)
