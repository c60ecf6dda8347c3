// SPDX-License-Identifier: Apache-2.0
// The main program of every test: it enters the sandbox, then runs the cases.
#include "support/random.h"
#include "support/support.h"

#include <cstdio>
#include <cstring>

namespace {

// Prints after a failure what the randomised work of the case was doing.
class RandomWorkPrinter : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override
    {
        if (!result.failed())
            return;
        std::printf("%s", support::RandomWork::describe_all().c_str());
        std::fflush(stdout);
    }
};

} // namespace

int main(int argc, char **argv)
{
    bool only_lists = false;
    for (int i = 1; i < argc; i++)
        only_lists = only_lists || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;

    ::testing::InitGoogleMock(&argc, argv);
    if (!only_lists)
        support::enter_sandbox();
    ::testing::UnitTest::GetInstance()->listeners().Append(new RandomWorkPrinter);
    return RUN_ALL_TESTS();
}
