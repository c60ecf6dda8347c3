// SPDX-License-Identifier: Apache-2.0
// A host that loads and unloads plug-ins with thread-local storage while other threads allocate, start and end, and
// fork, under full tracing or with a trace file. Prints "good".
//   loader_host full|file SECONDS PLUGIN
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <pthread.h>
#include <qv_mtrace.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// More than the loader's first table and those of threads can hold: it allocates larger ones while it holds its
// locks.
constexpr int kPlugins = 100;

std::atomic<bool> stop;
std::string plugin;

std::string copy_of_plugin(int i)
{
    std::string path = "/tmp/plugin" + std::to_string(i) + ".so";
    std::ofstream(path, std::ios::binary) << std::ifstream(plugin, std::ios::binary).rdbuf();
    return path;
}

void *load(void *first)
{
    const int begin = *static_cast<int *>(first);
    std::string paths[kPlugins / 2];
    for (int i = 0; i < kPlugins / 2; i++)
        paths[i] = copy_of_plugin(begin + i);
    void *loaded[std::size(paths)] = {};
    while (!stop) {
        for (std::size_t i = 0; i < std::size(paths); i++)
            loaded[i] = ::dlopen(paths[i].c_str(), RTLD_NOW);
        for (void *library : loaded)
            if (library != nullptr)
                ::dlclose(library);
    }
    return nullptr;
}

void *allocate_once(void *)
{
    std::free(std::malloc(40));
    return nullptr;
}

void *allocate(void *)
{
    while (!stop)
        allocate_once(nullptr);
    return nullptr;
}

void *start_threads(void *)
{
    while (!stop) {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, allocate_once, nullptr) == 0)
            pthread_join(thread, nullptr);
    }
    return nullptr;
}

bool child_allocates()
{
    pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);
        allocate_once(nullptr);
        ::_exit(0);
    }
    int status = -1;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

int main(int, char **argv)
{
    const double seconds = std::atof(argv[2]);
    plugin = argv[3];
    ::alarm(static_cast<unsigned>(seconds) + 40); // a deadlock ends here
    if (argv[1] == std::string_view("full")) {
        qv_mtrace_start();
    } else {
        ::setenv("MALLOC_TRACE", "/dev/null", 1);
        mtrace();
    }
    int firsts[] = {0, kPlugins / 2};
    pthread_t threads[6];
    pthread_create(&threads[0], nullptr, load, &firsts[0]);
    pthread_create(&threads[1], nullptr, load, &firsts[1]);
    pthread_create(&threads[2], nullptr, allocate, nullptr);
    pthread_create(&threads[3], nullptr, allocate, nullptr);
    pthread_create(&threads[4], nullptr, start_threads, nullptr);
    pthread_create(&threads[5], nullptr, start_threads, nullptr);
    bool good = true;
    for (std::time_t end = std::time(nullptr) + static_cast<std::time_t>(seconds); std::time(nullptr) < end && good;)
        good = child_allocates();
    stop = true;
    for (pthread_t thread : threads)
        pthread_join(thread, nullptr);
    std::puts(good ? "good" : "a child");
    return 0;
}
