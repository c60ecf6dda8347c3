// SPDX-License-Identifier: Apache-2.0
// A host of a library that is initialised before libcommon. Prints "good", or a short text that names the failure.
//   early_host full FORKS    forks with full tracing on
//   early_host file FORKS    forks with a trace file on
//   early_host exit          ends with a trace file on; prints nothing
#include "early_library.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <qv_mtrace.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<bool> stop;

void *allocate_under_the_lock(void *)
{
    while (!stop) {
        pthread_mutex_lock(&early_lock);
        std::free(std::malloc(50));
        pthread_mutex_unlock(&early_lock);
    }
    return nullptr;
}

bool child_allocates()
{
    pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);
        std::free(std::malloc(30));
        ::_exit(0);
    }
    int status = -1;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

int main(int argc, char **argv)
{
    std::string_view mode = argv[1];
    const int forks = std::atoi(argv[argc - 1]);
    ::alarm(60);
    if (mode == "full") {
        qv_mtrace_start();
    } else {
        ::setenv("MALLOC_TRACE", "/tmp/trace", 1);
        mtrace();
    }
    early_library_allocate();
    if (mode == "exit")
        return 0;
    if (!child_allocates())
        return std::puts("alone"), 1;

    pthread_t thread;
    pthread_create(&thread, nullptr, allocate_under_the_lock, nullptr);
    bool good = true;
    for (int i = 0; i < forks && good; i++)
        good = child_allocates();
    stop = true;
    pthread_join(thread, nullptr);
    muntrace();
    qv_mtrace_reset();
    std::puts(good ? "good" : "with a thread");
    return 0;
}
