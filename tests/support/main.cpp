// SPDX-License-Identifier: Apache-2.0
// The main program of every test: into the sandbox, then the cases.
#include "support/support.h"

#include <cstring>

int main(int argc, char **argv)
{
    bool only_lists = false;
    for (int i = 1; i < argc; i++)
        only_lists = only_lists || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;

    ::testing::InitGoogleMock(&argc, argv);
    if (!only_lists)
        support::enter_sandbox();
    return RUN_ALL_TESTS();
}
