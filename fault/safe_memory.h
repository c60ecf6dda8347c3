// SPDX-License-Identifier: Apache-2.0
// safe_memory.h - reads memory that may be unmapped at any moment. Signal-safe.
//
// There are four methods, since none works in every process: a system call filter may refuse any of them, /proc may be
// hidden, the descriptors may be used up. The first method that passes a trial on known memory is used:
//
//     probe         asks the kernel whether the page is readable, then reads it. Cheap and needs no descriptor, but
//                   another thread may unmap the page in between.
//     memory_file   pread() of /proc/self/mem. The kernel copies, so unmapping is harmless.
//     pipe          write() into a pipe and read() it back. Likewise.
//     process_vm    process_vm_readv(). Likewise. The last choice: filters that kill commonly forbid it.
#ifndef LIBCOMMON_FAULT_SAFE_MEMORY_H
#define LIBCOMMON_FAULT_SAFE_MEMORY_H

#include "base/cancel_guard.h"
#include "base/unique_fd.h"

#include <cstddef>

namespace qv::fault {

class safe_memory {
public:
    // Whose memory is read: the calling thread's stack stays mapped, a module may be unmapped at any moment.
    enum class subject { stack, module };

    explicit safe_memory(subject of) : subject_(of) {}

    // Copies the bytes at `address` up to the first one that cannot be read.
    // @return number of bytes copied, at most `size`
    std::size_t copy(unsigned long address, void *to, std::size_t size);

    // False when the word at `address`, aligned or not, cannot be read.
    bool load(unsigned long address, unsigned long *word) { return copy(address, word, sizeof *word) == sizeof *word; }

private:
    enum class method { undecided, probe, memory_file, pipe, process_vm, none };

    void decide();
    bool open(method candidate);
    bool passes_trial();
    bool copy_within_page(unsigned long address, unsigned char *to, std::size_t size);
    bool probe_and_read(unsigned long address, unsigned char *to, std::size_t size);
    bool read_memory_file(unsigned long address, unsigned char *to, std::size_t size) const;
    bool pass_through_pipe(unsigned long address, unsigned char *to, std::size_t size) const;

    base::cancel_guard no_cancellation_; // first, so that the descriptors are closed under it
    subject subject_;
    method method_ = method::undecided;
    unsigned long known_page_ = 1; // found readable by the probe; no page starts at 1
    base::unique_fd read_end_;     // the memory file, or the pipe's
    base::unique_fd write_end_;
};

} // namespace qv::fault

#endif
