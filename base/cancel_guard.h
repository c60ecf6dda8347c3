// SPDX-License-Identifier: Apache-2.0
// cancel_guard.h - disables cancellation of the calling thread within the scope.
#ifndef LIBCOMMON_BASE_CANCEL_GUARD_H
#define LIBCOMMON_BASE_CANCEL_GUARD_H

#include <pthread.h>

namespace qv::base {

// Signal-safe. open(), write() and most other system calls are cancellation points: a pending pthread_cancel() would
// end the thread there with descriptors open and locks held. The request stays pending and acts after the scope.
class cancel_guard {
public:
    cancel_guard() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved_); }
    ~cancel_guard() { ::pthread_setcancelstate(saved_, nullptr); }
    cancel_guard(const cancel_guard &) = delete;
    cancel_guard &operator=(const cancel_guard &) = delete;

private:
    int saved_;
};

} // namespace qv::base

#endif
