# SPDX-License-Identifier: Apache-2.0
peer(LIBUNWIND unwind libunwind.h)
