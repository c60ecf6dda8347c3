include(${CMAKE_CURRENT_LIST_DIR}/glib_peer.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/judy_peer.cmake)
