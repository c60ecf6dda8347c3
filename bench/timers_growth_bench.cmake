include(${CMAKE_CURRENT_LIST_DIR}/timer_peers.cmake)
