include(${CMAKE_CURRENT_LIST_DIR}/glib_peer.cmake)
