// SPDX-License-Identifier: Apache-2.0
// processes.h - the processes that the tests of qvstat start. Each ends with its object.
#ifndef LIBCOMMON_TESTS_QVSTAT_PROCESSES_H
#define LIBCOMMON_TESTS_QVSTAT_PROCESSES_H

#include "support/support.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <linux/capability.h>
#include <netinet/in.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace support {

inline const std::string kQvstat = build_dir() + "/qvstat";

// A program with pipes for its input and output.
class Piped {
public:
    explicit Piped(std::vector<std::string> argv)
    {
        int input[2], output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0)
            abort();
        std::vector<char *> words;
        for (std::string &word : argv)
            words.push_back(word.data());
        words.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(input[0], STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            execv(words[0], words.data());
            _exit(127);
        }
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        output_ = output[0];
    }

    ~Piped()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(input_);
        close(output_);
    }

    Piped(const Piped &) = delete;
    Piped &operator=(const Piped &) = delete;

    pid_t pid() const { return pid_; }
    std::string id() const { return std::to_string(pid_); }
    bool lives() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

    void send(const std::string &text)
    {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(input_, text.data(), text.size()));
    }

    // The next line of its output, without the newline; shorter at the end.
    std::string read_line()
    {
        std::string line;
        for (char c; read(output_, &c, 1) == 1 && c != '\n';)
            line += c;
        return line;
    }

private:
    pid_t pid_;
    int input_;
    int output_;
};

// A running host that has done what its arguments say, and waits.
class Host : public Piped {
public:
    Host(std::initializer_list<std::string> arguments) : Piped(command(arguments))
    {
        EXPECT_EQ("ready", read_line()) << "the host did not start";
    }

    // Lets it allocate and free a block.
    void allocate() { send("x"); }

private:
    static std::vector<std::string> command(std::initializer_list<std::string> arguments)
    {
        std::vector<std::string> argv = {build_dir() + "/tests/inspected_host"};
        argv.insert(argv.end(), arguments);
        return argv;
    }
};

// A running process that does not have the library.
class Stranger : public Piped {
public:
    Stranger() : Piped({"/bin/cat"})
    {
        // What it sends back proves that it is no longer a copy of the test.
        send("started\n");
        EXPECT_EQ("started", read_line());
    }
};

// For what is started from here on: root of a container has no CAP_SYS_PTRACE by default. False where the system then
// does not allow reading processes of the same user.
inline bool give_up_tracing()
{
    int restriction = std::atoi(read_file("/proc/sys/kernel/yama/ptrace_scope").c_str());
    return restriction == 0 && geteuid() == 0 && prctl(PR_CAPBSET_DROP, CAP_SYS_PTRACE, 0, 0, 0) == 0;
}

// A connection to a server on the loopback, to be closed; -1 where there is none.
inline int connect_to(std::uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

// What a server on the loopback answers, up to its end; empty where there is none.
inline std::string ask(std::uint16_t port, const std::string &request)
{
    int fd = connect_to(port);
    if (fd < 0)
        return {};
    std::string answer;
    char part[4096];
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    for (ssize_t size; (size = read(fd, part, sizeof part)) > 0;)
        answer.append(part, static_cast<std::size_t>(size));
    close(fd);
    return answer;
}

// A running qvstat that serves metrics.
class Server : public Piped {
public:
    explicit Server(const std::string &address = "0")
        : Piped({kQvstat, "--openmetrics", "--listen", address}), greeting_(read_line())
    {}

    const std::string &greeting() const { return greeting_; }

    std::uint16_t port() const
    {
        return static_cast<std::uint16_t>(std::atoi(greeting_.c_str() + greeting_.rfind(':') + 1));
    }

    std::string ask(const std::string &request) const { return support::ask(port(), request); }

private:
    std::string greeting_;
};

} // namespace support

#endif
