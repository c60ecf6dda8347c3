// SPDX-License-Identifier: Apache-2.0
// A host in C++ that holds the library: it counts what a thread allocates, and an exception that nobody catches ends
// it. With an argument it only reports.
#include <crash_details.h>
#include <cxx/crash_note.hpp>
#include <qv_mtrace.h>
#include <sighandler.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

QV_CRASH_DETAILS;

namespace {

unsigned count_blocks()
{
    static mtrace_stat_record record;
    qv_mtrace_stat_min(&record);
    return record.light_blocks;
}

bool is_counted()
{
    std::vector<std::unique_ptr<std::string>> names;
    names.reserve(8);
    unsigned before = count_blocks();
    std::thread([&names] { names.push_back(std::make_unique<std::string>("eth0")); }).join();
    return count_blocks() > before;
}

[[gnu::noinline]] void serve()
{
    throw std::runtime_error("no route"); // line: failure
}

} // namespace

int main(int argc, char **)
{
    std::printf("allocations %d\n", is_counted() ? 1 : 0);
    std::fflush(stdout);
    if (argc > 1)
        return 0;
    install_sighandler();
    qv::note_uncaught_exceptions();
    serve(); // line: caller
}
