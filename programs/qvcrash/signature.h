// SPDX-License-Identifier: Apache-2.0
// signature.h - a name for the bug that a crash log shows, so that logs of one bug count as one.
//
// A signature is made of the first frames that tell bugs apart: frames of the C library, of allocators and of what only
// ends a process are skipped. It needs no symbols, only what the log has.
#ifndef QVCRASH_SIGNATURE_H
#define QVCRASH_SIGNATURE_H

#include "crash_log.h"

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace qvcrash {

inline constexpr std::size_t kDefaultSignatureFrames = 3;

class signature_maker {
public:
    /** @param frames  how many frames make a signature at most */
    explicit signature_maker(std::size_t frames = kDefaultSignatureFrames);

    /**
     * Adds functions and modules to skip: one on a line, a module as "module:NAME", where a last '*' matches any
     * ending. Empty lines and lines that begin with '#' are left out.
     */
    void skip(std::string_view list);

    /**
     * The signature of a log: "SIGSEGV routed!handle_packet | routed!run". Function names are as the log has them. A
     * frame without a function is "routed+0x301f", with "@" and the beginning of the build id where the log has one.
     * Recursion counts as its cycle of functions, which "| recursion" follows and ends the signature: the same for
     * every depth, for every function of the cycle in which the walk begins, and for a walk that ends within it. The
     * cycle begins with the function whose name sorts first. The callers below it are not in the walk of a deep one.
     * A failed assertion and misuse of an object cache come before the frames. Where the walk has no usable frame,
     * what was found on the stack is used; a log without either is "SIGSEGV unattributable".
     */
    std::string operator()(const crash_log &log) const;

private:
    bool is_skipped(const code_reference &code) const;
    std::string join(const crash_log &log, const std::vector<const code_reference *> &frames) const;

    std::size_t max_frames_;
    std::unordered_set<std::string> functions_, modules_;
    std::vector<std::string> function_prefixes_, module_prefixes_;
};

/** The same with function names demangled, for people. */
std::string readable_signature(const std::string &signature);

} // namespace qvcrash

#endif
