peer(JUDY Judy Judy.h)
