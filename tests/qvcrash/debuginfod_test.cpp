// SPDX-License-Identifier: Apache-2.0
// qvcrash show --debuginfod against a real server, in a private network namespace that holds only the two.
#include "support/support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace support;
using testing::HasSubstr;

namespace {

constexpr char kServer[] = "/usr/bin/debuginfod";
constexpr unsigned short kPort = 8002;
const std::string kHost = build_dir() + "/tests/failing_host";

class server {
public:
    explicit server(const std::string &folder)
    {
        std::string port = std::to_string(kPort);
        pid_ = ::fork();
        if (pid_ != 0)
            return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::unsetenv("DEBUGINFOD_URLS");
        int fd = ::open("/tmp/server", O_WRONLY | O_CREAT, 0600);
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        ::execl(kServer, kServer, "-d", ":memory:", "-p", port.c_str(), "-F", folder.c_str(),
                static_cast<char *>(nullptr));
        ::_exit(127);
    }

    ~server()
    {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    server(const server &) = delete;
    server &operator=(const server &) = delete;

    // The first line of the answer, empty without one.
    static std::string ask(const std::string &path)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(kPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        timeval patience = {1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::string request = "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
        char answer[64] = {};
        if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
            ::recv(fd, answer, sizeof answer - 1, 0) < 0)
            answer[0] = '\0';
        ::close(fd);
        return std::string(answer).substr(0, std::string(answer).find('\r'));
    }

    // The server reads its folder in the background.
    static bool await(const std::string &path)
    {
        for (int i = 0; i < 200; i++) {
            if (ask(path).find(" 200 ") != std::string::npos)
                return true;
            ::usleep(50000);
        }
        return false;
    }

private:
    pid_t pid_;
};

std::string build_id_in(const std::string &log)
{
    for (const std::string &line : lines(read_file(log))) {
        if (line.starts_with("module : ") && line.ends_with(kHost))
            return line.substr(43, line.find(' ', 43) - 43);
    }
    return {};
}

TEST(QvcrashDebuginfod, AStrippedProgramsLinesComeFromTheServer)
{
    if (!exists(kServer))
        GTEST_SKIP() << "needs Debian's debuginfod";
    if (!enter_own_network())
        GTEST_SKIP() << "no private network here";
    run_program({kHost, "null-member", ""});
    std::vector<std::string> logs = list_dir("/etc/core");
    ASSERT_EQ(1u, logs.size());
    std::string log = "/etc/core/" + logs.front();

    std::string image = "/tmp/image", stripped = image + kHost;
    ChildResult made = run_program({"/bin/sh", "-ec",
                                    "mkdir -p /tmp/files " + stripped.substr(0, stripped.rfind('/')) + "; cp " + kHost +
                                        " /tmp/files/host; objcopy -S " + kHost + " " + stripped});
    ASSERT_TRUE(made.exited(0)) << made.err;
    std::vector<std::string> show = {build_dir() + "/qvcrash", "show", "--root", image, log};
    server running("/tmp/files");
    ASSERT_TRUE(server::await("/buildid/" + build_id_in(log) + "/debuginfo")) << read_file("/tmp/server");

    // Not before: a server asks the servers that it finds here, and would wait for itself.
    ::setenv("DEBUGINFOD_URLS", ("http://127.0.0.1:" + std::to_string(kPort)).c_str(), 1);
    ::setenv("DEBUGINFOD_CACHE_PATH", "/tmp/cache", 1);
    EXPECT_THAT(run_program(show).out, testing::Not(HasSubstr("failing_host.cpp:"))) << "asked nobody";
    EXPECT_FALSE(exists("/tmp/cache"));
    show.insert(show.begin() + 2, "--debuginfod");
    EXPECT_THAT(run_program(show).out, testing::ContainsRegex("count_session[^\n]* at "));
    EXPECT_THAT(run_program(show).out, HasSubstr("failing_host.cpp:"));
}

} // namespace
