// SPDX-License-Identifier: Apache-2.0
#include "libcommon_version.h"

const char *libcommon_version(void)
{
    return LIBCOMMON_VERSION;
}
