# SPDX-License-Identifier: Apache-2.0
# Logs name its functions.
set_target_properties(log_walk_test PROPERTIES ENABLE_EXPORTS ON)
