# SPDX-License-Identifier: Apache-2.0
# libevent comes first: libev brings functions of the same names.
peer(EVENT event event2/event.h)
peer(EV ev ev.h)
peer(UV uv uv.h)
