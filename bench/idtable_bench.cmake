# SPDX-License-Identifier: Apache-2.0
glib_peer()
peer(JUDY Judy Judy.h)
