// SPDX-License-Identifier: Apache-2.0
// The four methods to read memory that may not be mapped.
#include "fault/safe_memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>

namespace qv::fault {
namespace {

// The smallest page of any port. With larger pages some calls are redundant.
constexpr unsigned long kPage = 4096;

constexpr unsigned long page_of(unsigned long address)
{
    return address & ~(kPage - 1);
}

// The kernel copies the new mask in before it checks `how`. So an invalid `how` changes nothing and distinguishes
// readable memory (EINVAL) from the rest (EFAULT), without a descriptor and cheaper than any copying call. A null mask
// would not be read at all; nothing is ever mapped there.
bool is_readable_page(unsigned long page)
{
    constexpr int kInvalidHow = -1;
    constexpr std::size_t kKernelMaskSize = 8;
    if (page == 0)
        return false;
    return ::syscall(SYS_rt_sigprocmask, kInvalidHow, page, nullptr, kKernelMaskSize) == -1 && errno == EINVAL;
}

// Not instrumented: the memory belongs to another frame or module, which sanitizers would report. Volatile keeps the
// compiler from replacing the loop with memcpy(), which they check too.
#if defined(__clang__)
__attribute__((no_sanitize("address", "thread", "undefined")))
#else
__attribute__((no_sanitize("address,thread,undefined")))
#endif
void read_bytes(unsigned long address, unsigned char *to, std::size_t size)
{
    if (size == sizeof(unsigned long) && address % sizeof(unsigned long) == 0) {
        // A walk reads words. A word that was stored by bytes could not be forwarded to the load that follows.
        unsigned long word = *reinterpret_cast<const volatile unsigned long *>(address);
        std::memcpy(to, &word, sizeof word);
        return;
    }
    const volatile auto *from = reinterpret_cast<const volatile unsigned char *>(address);
    for (std::size_t i = 0; i < size; i++)
        to[i] = from[i];
}

bool read_process_vm(unsigned long address, unsigned char *to, std::size_t size)
{
    iovec local = {to, size};
    iovec remote = {reinterpret_cast<void *>(address), size};
    return ::syscall(SYS_process_vm_readv, ::getpid(), &local, 1UL, &remote, 1UL, 0UL) == static_cast<long>(size);
}

} // namespace

std::size_t safe_memory::copy(unsigned long address, void *to, std::size_t size)
{
    base::errno_guard keep;
    decide();
    auto *bytes = static_cast<unsigned char *>(to);
    std::size_t done = 0;
    while (done < size) {
        unsigned long from = address + done;
        std::size_t step = std::min(size - done, static_cast<std::size_t>(kPage - (from - page_of(from))));
        if (!copy_within_page(from, bytes + done, step))
            break;
        done += step;
    }
    return done;
}

// A stack is read a word at a time, and the probe is the cheapest for that. A module is copied by the kernel wherever
// possible, because it may be unmapped between a probe and the read.
void safe_memory::decide()
{
    if (method_ != method::undecided)
        return;
    constexpr method kForStack[] = {method::probe, method::memory_file, method::pipe, method::process_vm};
    constexpr method kForModule[] = {method::memory_file, method::pipe, method::probe, method::process_vm};
    for (method candidate : subject_ == subject::stack ? kForStack : kForModule) {
        method_ = candidate;
        if (open(candidate) && passes_trial())
            return;
    }
    read_end_.reset();
    write_end_.reset();
    method_ = method::none;
}

bool safe_memory::open(method candidate)
{
    int ends[2] = {-1, -1};
    if (candidate == method::memory_file)
        ends[0] = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    if (candidate == method::pipe && ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    read_end_.reset(ends[0]);
    write_end_.reset(ends[1]);
    return candidate != method::memory_file || read_end_;
}

// A refused call may report any error, including those that mean "readable" and "not readable", and /proc may hold
// another file. So a method must read known memory correctly and refuse an address of the kernel.
bool safe_memory::passes_trial()
{
    constexpr unsigned long kKernelAddress = 0UL - kPage;
    constexpr unsigned long kPattern = 0x5a17ed0fb1a5ed0dUL;
    volatile unsigned long known = kPattern;
    auto address = reinterpret_cast<unsigned long>(&known);
    unsigned long word = 0;
    auto *bytes = reinterpret_cast<unsigned char *>(&word);
    if (method_ == method::probe) // must not read the kernel's address itself
        return !is_readable_page(kKernelAddress) && is_readable_page(page_of(address));
    return !copy_within_page(kKernelAddress, bytes, sizeof word) && copy_within_page(address, bytes, sizeof word) &&
           word == kPattern;
}

bool safe_memory::copy_within_page(unsigned long address, unsigned char *to, std::size_t size)
{
    switch (method_) {
    case method::probe:
        return probe_and_read(address, to, size);
    case method::memory_file:
        return read_memory_file(address, to, size);
    case method::pipe:
        return pass_through_pipe(address, to, size);
    case method::process_vm:
        return read_process_vm(address, to, size);
    case method::undecided:
    case method::none:
        break;
    }
    return false;
}

bool safe_memory::probe_and_read(unsigned long address, unsigned char *to, std::size_t size)
{
    unsigned long page = page_of(address);
    if (page != known_page_ && !is_readable_page(page))
        return false;
    if (subject_ == subject::stack)
        known_page_ = page; // a module's page is probed before each read, to keep the time between the two short
    read_bytes(address, to, size);
    return true;
}

// Offsets are signed, so pread() refuses the upper half of the address space, which is the kernel's.
bool safe_memory::read_memory_file(unsigned long address, unsigned char *to, std::size_t size) const
{
    return ::pread(read_end_.get(), to, size, static_cast<off_t>(address)) == static_cast<ssize_t>(size);
}

// One page fits into any pipe. All that was written is read back, so the pipe is empty between two calls.
bool safe_memory::pass_through_pipe(unsigned long address, unsigned char *to, std::size_t size) const
{
    ssize_t written = ::write(write_end_.get(), reinterpret_cast<const void *>(address), size);
    if (written <= 0)
        return false;
    return ::read(read_end_.get(), to, static_cast<std::size_t>(written)) == static_cast<ssize_t>(size);
}

} // namespace qv::fault
