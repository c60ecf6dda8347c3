glib_peer()
peer(MIMALLOC mimalloc mimalloc.h PATH_SUFFIXES mimalloc-2.0)
