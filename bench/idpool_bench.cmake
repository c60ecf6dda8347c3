include(${CMAKE_CURRENT_LIST_DIR}/judy_peer.cmake)
