// SPDX-License-Identifier: Apache-2.0
#ifndef LIBCOMMON_TESTS_EARLY_LIBRARY_H
#define LIBCOMMON_TESTS_EARLY_LIBRARY_H

#include <pthread.h>

extern pthread_mutex_t early_lock;
void early_library_allocate(); // a block of 0x1234 bytes, freed at the library's end

#endif
