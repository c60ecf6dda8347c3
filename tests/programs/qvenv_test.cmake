# SPDX-License-Identifier: Apache-2.0
add_dependencies(qvenv_test libcommon_qvenv)
