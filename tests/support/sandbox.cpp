// SPDX-License-Identifier: Apache-2.0
// The sandbox: a private root made of bind mounts, so that folders that the machine lacks (/flash) exist and nothing is
// created outside.
#include "support/support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace support {
namespace {

[[noreturn]] void die(const std::string &what)
{
    std::fprintf(stderr, "sandbox: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(125);
}

void check(int result, const std::string &what)
{
    if (result < 0)
        die(what);
}

void put(const char *path, const std::string &text)
{
    int fd = ::open(path, O_WRONLY);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        die(path);
    ::close(fd);
}

void make_dirs(const std::string &path)
{
    for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
        ::mkdir(path.substr(0, at).c_str(), 0755);
    ::mkdir(path.c_str(), 0755);
}

void touch(const std::string &path)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0666);
    check(fd, path);
    ::close(fd);
}

// Without root rights the mounts are made as the root of a user namespace.
void new_namespace()
{
    if (::unshare(CLONE_NEWNS) == 0)
        return;
    unsigned uid = ::getuid();
    unsigned gid = ::getgid();
    check(::unshare(CLONE_NEWUSER | CLONE_NEWNS), "unshare (neither root nor user namespaces)");
    put("/proc/self/setgroups", "deny");
    put("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    put("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

bool is_replaced(const std::string &name)
{
    return name == "etc" || name == "tmp" || name == "flash" || name == "var" || name == "dev";
}

void bind_top_level(const std::string &root)
{
    DIR *top = ::opendir("/");
    if (top == nullptr)
        die("/");
    while (const dirent *entry = ::readdir(top)) {
        std::string name = entry->d_name;
        if (name == "." || name == ".." || is_replaced(name))
            continue;
        std::string from = "/" + name;
        std::string to = root + "/" + name;
        struct stat info;
        if (::lstat(from.c_str(), &info) != 0)
            continue;
        if (S_ISLNK(info.st_mode)) {
            char target[4096] = {};
            check(static_cast<int>(::readlink(from.c_str(), target, sizeof target - 1)), from);
            check(::symlink(target, to.c_str()), to);
        } else if (S_ISDIR(info.st_mode)) {
            check(::mkdir(to.c_str(), 0755), to);
            check(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "bind " + from);
        }
    }
    ::closedir(top);
}

void make_devices(const std::string &dev)
{
    check(::mount("tmpfs", dev.c_str(), "tmpfs", 0, "mode=755"), dev);
    for (const char *name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        std::string from = std::string("/dev/") + name;
        if (!exists(from))
            continue;
        touch(dev + "/" + name);
        check(::mount(from.c_str(), (dev + "/" + name).c_str(), nullptr, MS_BIND, nullptr), from);
    }
    check(::mkdir((dev + "/shm").c_str(), 01777), "shm");
    check(::symlink("/proc/self/fd", (dev + "/fd").c_str()), "fd");
    touch(dev + "/console");
    touch(dev + "/ttyS0");
}

} // namespace

void enter_sandbox()
{
    ::umask(0);
    new_namespace();
    check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
    std::string kept = build_dir();
    int kept_fd = ::open(kept.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    check(kept_fd, kept);

    // The new root is a tmpfs over /mnt or, without that folder, over /tmp. Both mounts are visible only in the
    // sandbox.
    std::string root = exists("/mnt") ? "/mnt" : "/tmp";
    check(::mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=755"), root);
    bind_top_level(root);
    for (const char *name : {"/etc", "/tmp", "/flash", "/var", "/dev"})
        ::mkdir((root + name).c_str(), 0755);
    for (const char *name : {"/etc", "/tmp", "/flash", "/var"})
        check(::mount("tmpfs", (root + name).c_str(), "tmpfs", 0, "mode=1777"), name);
    make_devices(root + "/dev");
    make_dirs(root + "/var/sysinfo");

    // A build below a replaced folder (a clone in /tmp, say) keeps its path for the programs that tests start.
    make_dirs(root + kept);
    std::string again = root + kept;
    if (!exists(again + "/tests"))
        check(::mount(("/proc/self/fd/" + std::to_string(kept_fd)).c_str(), again.c_str(), nullptr, MS_BIND, nullptr),
              "bind " + kept);
    ::close(kept_fd);

    check(::chroot(root.c_str()), "chroot");
    check(::chdir("/"), "chdir");
}

bool enter_own_network()
{
    if (::unshare(CLONE_NEWNET) != 0)
        return false;
    ifreq loopback = {};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    bool is_up = ::ioctl(fd, SIOCSIFFLAGS, &loopback) == 0;
    ::close(fd);
    return is_up;
}

} // namespace support
