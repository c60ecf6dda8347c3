// SPDX-License-Identifier: Apache-2.0
// sandbox_run PROGRAM [ARGUMENT...] - runs a program in the sandbox that the tests run in.
#include "support/support.h"

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: sandbox_run PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    // The build folder is derived from this program's path, which an exec inside the sandbox changes.
    std::string build = support::build_dir();
    support::enter_sandbox();
    ::setenv("LIBCOMMON_BUILD", build.c_str(), 1);
    ::execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return 127;
}
