// SPDX-License-Identifier: Apache-2.0
// support.h - what the tests share: files, children, captures, and the sandbox that every test process runs in.
//
// The library's paths are absolute and fixed, so main() moves the process into a private mount namespace before any
// test runs: fresh tmpfs on /etc, /tmp, /flash and /var, plain empty files as /dev/console and /dev/ttyS0. A case may
// write there as it likes; nothing of it reaches the machine or another case.
#ifndef LIBCOMMON_TESTS_SUPPORT_H
#define LIBCOMMON_TESTS_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace support {

inline constexpr const char *kConsole = "/dev/console";
inline constexpr const char *kSerial = "/dev/ttyS0";

// Files. A missing file reads as the empty text; writing fails the test when it cannot be done.
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);
bool exists(const std::string &path);
std::vector<std::string> list_dir(const std::string &path); // names, sorted, without "." and ".."

// Lines of a text, each without its newline.
std::vector<std::string> lines(const std::string &text);

// Puts a file with this content in place of an existing one, as on /proc/cmdline, for this process and its children.
void bind_over(const std::string &path, const std::string &content);

// Mounts a tmpfs of a limited size (bytes, rounded up to pages) on a folder, made if missing; 0 for no limit.
void mount_tmpfs(const std::string &path, std::size_t size = 0);

// Makes a mounted folder (see mount_tmpfs; /etc and /tmp are mounts already) read-only, or writable again.
void remount(const std::string &path, bool read_only);

struct ChildResult {
    int status = 0; // as waitpid() gives it
    std::string out;
    std::string err;
    bool timed_out = false; // it was killed for it
    pid_t pid = 0;

    bool exited(int code) const;
    bool killed_by(int signal) const;
};

// Runs body in a forked child that then leaves with _exit(0), its standard output and error captured.
ChildResult run_child(const std::function<void()> &body, int timeout_ms = 20000);

// Starts a program and waits for it, likewise captured.
ChildResult run_program(const std::vector<std::string> &argv, int timeout_ms = 20000);

// What body writes to the descriptor 1 or 2 of this process, stdio buffers flushed on both sides.
std::string capture_stdout(const std::function<void()> &body);
std::string capture_stderr(const std::function<void()> &body);

bool under_sanitizer();
bool under_emulation(); // inside the emulated AArch64 machine

// How many rounds a long model test does: n natively, less where every instruction costs more.
std::size_t effort(std::size_t n);

// The folder of the build that holds libcommon.so, tests/ and examples/.
std::string build_dir();

// Called by main(); a failure is printed and ends the process.
void enter_sandbox();

// Moves the process into a network of its loopback alone, where every port is free; false where that is not allowed.
bool enter_own_network();

} // namespace support

#endif
