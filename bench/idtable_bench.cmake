glib_peer()
peer(JUDY Judy Judy.h)
