# SPDX-License-Identifier: Apache-2.0
peer(JUDY Judy Judy.h)
