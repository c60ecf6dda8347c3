/* SPDX-License-Identifier: Apache-2.0 */
/* <resolv.h> renames functions whose names are also names of ours. */
#include <sys/types.h>

#include <netinet/in.h>

#include <arpa/nameser.h>

#include <resolv.h>

#include "encoding.h"

#if defined(b64_ntop) || defined(b64_pton)
#error "a host that includes <resolv.h> first would call the C library's"
#endif

typedef int behind_resolv_is_not_empty;
