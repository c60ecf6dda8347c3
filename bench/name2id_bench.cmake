glib_peer()
