# SPDX-License-Identifier: Apache-2.0
shared_peer()
