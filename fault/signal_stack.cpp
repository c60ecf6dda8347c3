// SPDX-License-Identifier: Apache-2.0
// An alternate signal stack for a thread that asks for one, so that its stack overflow leaves a crash log.
//
//     low                                  high
//     | guard page | QV_SIGNAL_STACK_SIZE  |
//
// The handler grows down and faults on the guard page instead of writing over another mapping.
#include "sighandler.h"

#include "base/errno_guard.h"
#include "fault/crash_handler.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace qv;

namespace qv::fault {

std::atomic<int> g_crash_action_flags = SA_SIGINFO;

namespace {

class signal_stack {
public:
    // False with errno set when there is no room, or when the thread runs on an alternate stack right now.
    bool install()
    {
        guard_size_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        mapping_ = ::mmap(nullptr, size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (mapping_ == MAP_FAILED)
            return false;
        stack_t mine = {};
        mine.ss_sp = stack();
        mine.ss_size = QV_SIGNAL_STACK_SIZE;
        if (::mprotect(mapping_, guard_size_, PROT_NONE) == 0 && ::sigaltstack(&mine, &previous_) == 0)
            return true;
        unmap();
        return false;
    }

    // At the end of the thread. A thread that ends inside a handler still uses the stack, which then stays mapped.
    void uninstall()
    {
        stack_t now = {};
        ::sigaltstack(nullptr, &now);
        if (now.ss_sp == stack() && ::sigaltstack(&previous_, nullptr) != 0)
            return;
        unmap();
    }

private:
    void *stack() const { return static_cast<char *>(mapping_) + guard_size_; }
    std::size_t size() const { return guard_size_ + QV_SIGNAL_STACK_SIZE; }

    void unmap()
    {
        base::errno_guard keep;
        ::munmap(mapping_, size());
    }

    void *mapping_ = nullptr;
    std::size_t guard_size_ = 0;
    stack_t previous_ = {};
};

pthread_key_t key; // the thread's signal_stack
bool has_key;
pthread_once_t key_once = PTHREAD_ONCE_INIT;

void make_key()
{
    has_key = ::pthread_key_create(&key, [](void *stack) {
                  static_cast<signal_stack *>(stack)->uninstall();
                  std::free(stack);
              }) == 0;
}

// A large enough stack of the host is kept.
bool has_large_stack()
{
    stack_t now = {};
    return ::sigaltstack(nullptr, &now) == 0 && (now.ss_flags & SS_DISABLE) == 0 && now.ss_size >= QV_SIGNAL_STACK_SIZE;
}

bool install_stack()
{
    ::pthread_once(&key_once, make_key);
    void *room = has_key ? std::calloc(1, sizeof(signal_stack)) : nullptr;
    if (room == nullptr) {
        errno = ENOMEM;
        return false;
    }
    auto *stack = new (room) signal_stack;
    if (!stack->install()) {
        std::free(room);
        return false;
    }
    if (::pthread_setspecific(key, stack) == 0)
        return true;
    stack->uninstall();
    std::free(room);
    errno = ENOMEM;
    return false;
}

// Handlers that are armed already; later ones take the flag from g_crash_action_flags.
void move_handlers_to_signal_stack()
{
    for (int sig = 1; sig < NSIG; sig++) {
        struct sigaction action = {};
        if (::sigaction(sig, nullptr, &action) != 0 || action.sa_sigaction != signal_err)
            continue;
        if ((action.sa_flags & SA_SIGINFO) == 0 || (action.sa_flags & SA_ONSTACK) != 0)
            continue;
        action.sa_flags |= SA_ONSTACK;
        ::sigaction(sig, &action, nullptr);
    }
}

} // namespace
} // namespace qv::fault

extern "C" int qv_use_signal_stack(void)
{
    using namespace fault;
    if (!has_large_stack() && !install_stack())
        return -1;
    g_crash_action_flags = SA_SIGINFO | SA_ONSTACK;
    move_handlers_to_signal_stack();
    return 0;
}
