# SPDX-License-Identifier: Apache-2.0
glib_peer()
peer(MIMALLOC mimalloc mimalloc.h PATH_SUFFIXES mimalloc-2.0)
