// SPDX-License-Identifier: Apache-2.0
// The main program of every test: it enters the sandbox, then runs the cases. With --serve-cases it runs those that it
// is asked for, each in a process.
#include "support/random.h"
#include "support/support.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

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

bool has_argument(int argc, char **argv, const char *name)
{
    for (int i = 1; i < argc; i++) {
        if (std::strncmp(argv[i], name, std::strlen(name)) == 0)
            return true;
    }
    return false;
}

// In the process of a case: its session, the standard streams, the choice of the case.
void become_case(const std::string &name, const std::string &output)
{
    ::setsid();
    int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(out, STDERR_FILENO);
    ::close(out);
    if (std::freopen("/dev/null", "r", stdin) == nullptr) // with nothing left in the stream of what the server read
        std::exit(1);
    GTEST_FLAG_SET(filter, name);
}

// Reads "<case> <output file>" a line, and answers with the number of the process that runs the case, then with its
// status, a line each. So an emulator, which takes longer to start a program than to run most cases, starts it once.
// Returns in the processes of cases.
void serve_cases()
{
    std::string name, output;
    while (std::cin >> name >> output) {
        pid_t pid = ::fork();
        if (pid == 0)
            return become_case(name, output);
        std::cout << pid << std::endl;
        int status = -1;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR)
            ;
        std::cout << status << std::endl;
    }
    std::exit(0);
}

} // namespace

int main(int argc, char **argv)
{
    bool only_lists = has_argument(argc, argv, "--gtest_list_tests");
    ::testing::InitGoogleMock(&argc, argv);
    if (has_argument(argc, argv, "--serve-cases"))
        serve_cases();
    if (!only_lists)
        support::enter_sandbox();
    ::testing::UnitTest::GetInstance()->listeners().Append(new RandomWorkPrinter);
    return RUN_ALL_TESTS();
}
