// SPDX-License-Identifier: Apache-2.0
// crash_note.hpp - exceptions that nobody catches, named in the crash log.
//
//     qv::note_uncaught_exceptions();    // once, at start, after install_sighandler()
#ifndef LIBCOMMON_CXX_CRASH_NOTE_HPP
#define LIBCOMMON_CXX_CRASH_NOTE_HPP

#include "../crash_details.h"

#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <typeinfo>

namespace qv {

namespace detail {

inline void note_exception()
{
    const std::type_info *type = abi::__cxa_current_exception_type();
    if (type == nullptr) {
        qv_crash_note("std::terminate() without an exception");
        return;
    }
    int status = -1;
    char *readable = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
    const char *name = status == 0 ? readable : type->name();
    try {
        throw;
    } catch (const std::exception &exception) {
        qv_crash_note("uncaught %s: %s", name, exception.what());
    } catch (...) {
        qv_crash_note("uncaught %s", name);
    }
    std::free(readable);
}

} // namespace detail

/**
 * Makes std::terminate() leave a note of the exception's type and what() for the crash log (crash_details.h) and then
 * call abort(). Replaces the terminate handler of the process.
 */
inline void note_uncaught_exceptions()
{
    std::set_terminate([] {
        detail::note_exception();
        std::abort();
    });
}

} // namespace qv

#endif
