# SPDX-License-Identifier: Apache-2.0
glib_peer()
