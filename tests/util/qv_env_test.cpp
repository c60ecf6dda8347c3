// SPDX-License-Identifier: Apache-2.0
#include "qv_env.h"

#include "support/next_function.h"
#include "support/random.h"
#include "support/support.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace support;

namespace {

constexpr const char *kStore = "/tmp/qvenv";
constexpr const char *kOther = "/tmp/settings";

// The library's system calls: recorded, and shortened or failed as a case requests.
namespace io {

std::vector<std::string> calls; // changes of the store
std::vector<int> open_flags;
std::size_t most_read, most_written; // bytes per call; 0 for no limit
int good_reads = -1;                 // reads that succeed before one fails; -1 for no failure
bool killed_after_cut;

bool is_store(int fd)
{
    struct stat of_fd, of_path;
    return ::fstat(fd, &of_fd) == 0 && ::stat(kStore, &of_path) == 0 && of_fd.st_ino == of_path.st_ino &&
           of_fd.st_dev == of_path.st_dev;
}

} // namespace io

std::string text(std::size_t length, char c = 'x')
{
    return std::string(length, c);
}

// The result of a reader, or "(null)" for null. No value in these tests has that text.
std::string get(const std::string &name)
{
    const char *value = qv_getenv(name.c_str());
    return value != nullptr ? value : "(null)";
}

std::string get_from(const std::string &path, const std::string &name)
{
    const char *value = qv_getenv_filename(path.c_str(), name.c_str());
    return value != nullptr ? value : "(null)";
}

int open_store(int flags)
{
    int fd = ::open(kStore, flags, 0644);
    EXPECT_GE(fd, 0);
    return fd;
}

// The lock that conflicts with a lock of this type by another process; F_UNLCK for none.
struct flock blocking_lock(int fd, short type)
{
    struct flock lock = {};
    lock.l_type = type;
    EXPECT_EQ(0, ::fcntl(fd, F_GETLK, &lock));
    return lock;
}

} // namespace

extern "C" ssize_t read(int fd, void *buffer, std::size_t size)
{
    static auto *real = support::next_function<ssize_t(int, void *, std::size_t)>("read");
    if (io::good_reads == 0) {
        errno = EIO;
        return -1;
    }
    io::good_reads -= io::good_reads > 0;
    return real(fd, buffer, io::most_read != 0 ? std::min(size, io::most_read) : size);
}

extern "C" ssize_t write(int fd, const void *buffer, std::size_t size)
{
    static auto *real = support::next_function<ssize_t(int, const void *, std::size_t)>("write");
    if (io::is_store(fd))
        io::calls.push_back("write " + std::string(static_cast<const char *>(buffer), size));
    return real(fd, buffer, io::most_written != 0 ? std::min(size, io::most_written) : size);
}

extern "C" int ftruncate(int fd, off_t size) noexcept
{
    static auto *real = support::next_function<int(int, off_t)>("ftruncate");
    io::calls.push_back("cut " + std::to_string(size));
    int result = real(fd, size);
    if (io::killed_after_cut)
        ::raise(SIGKILL);
    return result;
}

extern "C" int open(const char *path, int flags, ...)
{
    static auto *real = support::next_function<int(const char *, int, ...)>("open");
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (std::strcmp(path, kStore) == 0)
        io::open_flags.push_back(flags);
    return real(path, flags, mode);
}

namespace {

// ---- locks ----

TEST(FileLock, CoversTheWholeFileAndWhatIsAppended)
{
    int fd = open_store(O_RDWR | O_CREAT);
    ::lseek(fd, 100, SEEK_SET);
    ASSERT_EQ(0, file_lock(fd, F_WRLCK, 0));
    ChildResult child = run_child([&] {
        struct flock lock = blocking_lock(fd, F_RDLCK);
        EXPECT_EQ(F_WRLCK, lock.l_type);
        EXPECT_EQ(SEEK_SET, lock.l_whence);
        EXPECT_EQ(0, lock.l_start);
        EXPECT_EQ(0, lock.l_len);
        EXPECT_EQ(::getppid(), lock.l_pid);
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_TRUE(child.exited(0)) << child.out;
}

TEST(FileLock, FailsAtOnceWithoutWait)
{
    int fd = open_store(O_RDWR | O_CREAT);
    ASSERT_EQ(0, file_lock(fd, F_WRLCK, 0));
    ChildResult child = run_child([&] {
        bool refused = file_lock(fd, F_RDLCK, 0) == -1 && (errno == EAGAIN || errno == EACCES);
        ::_exit(refused ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

TEST(FileLock, ReadersShare)
{
    int fd = open_store(O_RDWR | O_CREAT);
    ASSERT_EQ(0, file_lock(fd, F_RDLCK, 1));
    ChildResult child = run_child([&] {
        bool as_told = file_lock(fd, F_RDLCK, 0) == 0 && file_lock(fd, F_WRLCK, 0) == -1;
        ::_exit(as_told ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

TEST(FileLock, WaitsUntilUnlocked)
{
    int fd = open_store(O_RDWR | O_CREAT);
    ASSERT_EQ(0, file_lock(fd, F_WRLCK, 1));
    int started[2];
    ASSERT_EQ(0, ::pipe(started));
    pid_t child = ::fork();
    if (child == 0) {
        [[maybe_unused]] ssize_t n = ::write(started[1], "", 1);
        ::_exit(file_lock(fd, F_WRLCK, 1));
    }
    char byte;
    ASSERT_EQ(1, ::read(started[0], &byte, 1));
    ::usleep(20000);
    int status = -1;
    EXPECT_EQ(0, ::waitpid(child, &status, WNOHANG)); // not unlocked yet
    EXPECT_EQ(0, file_unlock(fd));
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

TEST(FileLock, UnlockDropsTheLock)
{
    int fd = open_store(O_RDWR | O_CREAT);
    ASSERT_EQ(0, file_lock(fd, F_WRLCK, 0));
    EXPECT_EQ(0, file_unlock(fd));
    ChildResult child = run_child([&] { ::_exit(file_lock(fd, F_WRLCK, 0) == 0 ? 0 : 1); });
    EXPECT_TRUE(child.exited(0));
}

TEST(FileLock, GivesTheErrorOfTheSystemCall)
{
    EXPECT_EQ(-1, file_lock(-1, F_RDLCK, 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, file_unlock(-1));
    int fd = open_store(O_RDONLY | O_CREAT);
    EXPECT_EQ(-1, file_lock(fd, F_WRLCK, 1));
    EXPECT_EQ(EBADF, errno);
}

// ---- setting ----

TEST(SetEnv, CreatesTheStore)
{
    ::umask(0);
    EXPECT_EQ(0, qv_setenv("slot", "3", 0));
    EXPECT_EQ("slot=3\n", read_file(kStore));
    struct stat status = {};
    ASSERT_EQ(0, ::stat(kStore, &status));
    EXPECT_EQ(0644U, status.st_mode & 07777);
}

TEST(SetEnv, AppendsNewNames)
{
    EXPECT_EQ(0, qv_setenv("a", "1", 0));
    EXPECT_EQ(0, qv_setenv("b", "2", 1));
    EXPECT_EQ(0, qv_setenv("c", "", 1));
    EXPECT_EQ("a=1\nb=2\nc=\n", read_file(kStore));
}

TEST(SetEnv, AcceptsAnEmptyStore)
{
    write_file(kStore, "");
    EXPECT_EQ(0, qv_setenv("a", "1", 0));
    EXPECT_EQ("a=1\n", read_file(kStore));
}

TEST(SetEnv, KeepsAPresentNameWithoutOverwrite)
{
    write_file(kStore, "a=1\nb=2\n");
    EXPECT_EQ(-2, qv_setenv("a", "9", 0));
    EXPECT_EQ("a=1\nb=2\n", read_file(kStore));
}

TEST(SetEnv, MovesAnOverwrittenRecordToTheEnd)
{
    write_file(kStore, "a=1\nb=2\nc=3\n");
    EXPECT_EQ(0, qv_setenv("b", "9", 1));
    EXPECT_EQ("a=1\nc=3\nb=9\n", read_file(kStore));
    EXPECT_EQ(0, qv_setenv("a", "longer than it was", -1));
    EXPECT_EQ("c=3\nb=9\na=longer than it was\n", read_file(kStore));
    EXPECT_EQ(0, qv_setenv("a", "", 1));
    EXPECT_EQ("c=3\nb=9\na=\n", read_file(kStore));
}

TEST(SetEnv, OverwritesTheFirstMatchOnly)
{
    write_file(kStore, "a=1\na=2\n");
    EXPECT_EQ(0, qv_setenv("a", "3", 1));
    EXPECT_EQ("a=2\na=3\n", read_file(kStore));
}

TEST(SetEnv, CutsWithinALine)
{
    write_file(kStore, "x=0\nAB=1\nc=2\n");
    EXPECT_EQ(-2, qv_setenv("B", "9", 0));
    EXPECT_EQ(0, qv_setenv("B", "9", 1));
    EXPECT_EQ("x=0\nAc=2\nB=9\n", read_file(kStore));
}

TEST(SetEnv, CutsWithinTheLastLine)
{
    write_file(kStore, "x=0\nAB=1\n");
    EXPECT_EQ(0, qv_setenv("B", "9", 1));
    EXPECT_EQ("x=0\nAB=9\n", read_file(kStore));
}

TEST(SetEnv, FindsAMatchWithinAValue)
{
    write_file(kStore, "opt=a=1\nz=2\n");
    EXPECT_EQ(0, qv_setenv("a", "9", 1));
    EXPECT_EQ("opt=z=2\na=9\n", read_file(kStore));
}

TEST(SetEnv, AppendsToAnUnfinishedLine)
{
    write_file(kStore, "a=1");
    EXPECT_EQ(0, qv_setenv("b", "2", 1));
    EXPECT_EQ("a=1b=2\n", read_file(kStore));
}

TEST(SetEnv, ReplacesAnUnfinishedLine)
{
    write_file(kStore, "a=1\nb=2");
    EXPECT_EQ(0, qv_setenv("b", "9", 1));
    EXPECT_EQ("a=1\nb=9\n", read_file(kStore));
    write_file(kStore, "a=1\nb=2");
    EXPECT_EQ(0, qv_setenv("a", "9", 1));
    EXPECT_EQ("b=2a=9\n", read_file(kStore));
}

TEST(SetEnv, KeepsBlankLines)
{
    write_file(kStore, "\na=1\n\nb=2\n");
    EXPECT_EQ(0, qv_setenv("a", "9", 1));
    EXPECT_EQ("\n\nb=2\na=9\n", read_file(kStore));
}

TEST(SetEnv, AcceptsAnEmptyName)
{
    write_file(kStore, "ab\n");
    EXPECT_EQ(0, qv_setenv("", "1", 0));
    EXPECT_EQ("ab\n=1\n", read_file(kStore));
    EXPECT_EQ("1", get(""));
    EXPECT_EQ(-2, qv_setenv("", "2", 0));
}

TEST(SetEnv, BoundsOfTheName)
{
    EXPECT_EQ(0, qv_setenv(text(30).c_str(), "1", 1));
    EXPECT_EQ(text(30) + "=1\n", read_file(kStore));
    EXPECT_EQ(-1, qv_setenv(text(31).c_str(), "2", 1));
    EXPECT_EQ(-1, qv_setenv(text(5000).c_str(), "2", 1));
    EXPECT_EQ(text(30) + "=1\n", read_file(kStore));
    EXPECT_EQ("1", get(text(30)));
    EXPECT_EQ(0, qv_setenv(text(30).c_str(), "3", 1));
    EXPECT_EQ(text(30) + "=3\n", read_file(kStore));
}

TEST(SetEnv, BoundsOfTheValue)
{
    EXPECT_EQ(0, qv_setenv("v", text(64).c_str(), 1));
    EXPECT_EQ("v=" + text(64) + "\n", read_file(kStore));
    EXPECT_EQ(-1, qv_setenv("v", text(65).c_str(), 1));
    EXPECT_EQ(-1, qv_setenv("v", text(5000).c_str(), 1));
    EXPECT_EQ("v=" + text(64) + "\n", read_file(kStore));
}

TEST(SetEnv, RefusedLengthsDoNotCreateTheStore)
{
    EXPECT_EQ(-1, qv_setenv(text(31).c_str(), "1", 1));
    EXPECT_EQ(-1, qv_setenv("v", text(65).c_str(), 1));
    EXPECT_FALSE(exists(kStore));
}

TEST(SetEnv, FailsWhenTheStoreCannotBeOpened)
{
    ASSERT_EQ(0, ::mkdir(kStore, 0755));
    EXPECT_EQ(-1, qv_setenv("a", "1", 1));
    EXPECT_EQ("(null)", get("a"));
    EXPECT_EQ("(null)", get_from(kStore, "a"));
}

TEST(SetEnv, WriteErrorsAreIgnored)
{
    write_file(kStore, "a=1\nb=2\n");
    ChildResult child = run_child([] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = {6, 6};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        ::_exit(qv_setenv("c", "3", 1) == 0 ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
    EXPECT_EQ("a=1\nb=2\n", read_file(kStore));
}

TEST(SetEnv, ShortReadsLoseNothing)
{
    write_file(kStore, "a=1\nb=2\nc=3\n");
    io::most_read = 5;
    EXPECT_EQ(0, qv_setenv("a", "9", 1));
    EXPECT_EQ(-2, qv_setenv("c", "8", 0));
    EXPECT_EQ("2", get("b"));
    EXPECT_EQ("9", get("a"));
    EXPECT_EQ("3", get_from(kStore, "c"));
    io::most_read = 0;
    EXPECT_EQ("b=2\nc=3\na=9\n", read_file(kStore));
}

TEST(SetEnv, ShortWritesLoseNothing)
{
    write_file(kStore, "a=1\nb=2\nc=3\n");
    io::most_written = 3;
    EXPECT_EQ(0, qv_setenv("a", "long value", 1));
    io::most_written = 0;
    EXPECT_EQ("b=2\nc=3\na=long value\n", read_file(kStore));
}

TEST(SetEnv, AFailedReadChangesNothing)
{
    write_file(kStore, "a=1\nb=2\nc=3\n");
    io::most_read = 5;
    for (int good = 0; good < 3; good++) {
        io::good_reads = good;
        EXPECT_EQ(-1, qv_setenv("a", "9", 1));
        io::good_reads = good;
        EXPECT_EQ("(null)", get("a"));
    }
    io::good_reads = -1;
    EXPECT_EQ("a=1\nb=2\nc=3\n", read_file(kStore));
}

// The order is part of the contract: a writer killed in between leaves a truncated file, never one that holds a record
// twice.
TEST(SetEnv, CutsFirstThenWritesTheRestAtOnceThenTheRecordInFourPieces)
{
    write_file(kStore, "a=1\nb=2\nc=3\n");
    io::calls.clear();
    EXPECT_EQ(0, qv_setenv("b", "two", 1));
    EXPECT_EQ((std::vector<std::string>{"cut 4", "write c=3\n", "write b", "write =", "write two", "write \n"}),
              io::calls);
    io::calls.clear();
    EXPECT_EQ(0, qv_setenv("b", "2", 1));
    EXPECT_EQ((std::vector<std::string>{"cut 8", "write b", "write =", "write 2", "write \n"}), io::calls);
    io::calls.clear();
    EXPECT_EQ(0, qv_setenv("d", "4", 1));
    EXPECT_EQ((std::vector<std::string>{"write d", "write =", "write 4", "write \n"}), io::calls);
    io::calls.clear();
    EXPECT_EQ(-2, qv_setenv("a", "5", 0));
    EXPECT_EQ("1", get("a"));
    EXPECT_EQ(std::vector<std::string>{}, io::calls);
}

TEST(SetEnv, AKillBetweenTheCutAndTheRestLosesWhatFollowed)
{
    write_file(kStore, "a=1\nb=2\nc=3\n");
    ChildResult child = run_child([] {
        io::killed_after_cut = true;
        qv_setenv("b", "9", 1);
    });
    EXPECT_TRUE(child.killed_by(SIGKILL));
    EXPECT_EQ("a=1\n", read_file(kStore));
    EXPECT_EQ(0, qv_setenv("d", "4", 0)) << "the lock went with the process";
    EXPECT_EQ("a=1\nd=4\n", read_file(kStore));
}

TEST(SetEnv, NoDescriptorReachesAProgramThatIsStartedMeanwhile)
{
    write_file(kStore, "a=1\n");
    io::open_flags.clear();
    qv_setenv("a", "2", 1);
    get("a");
    get_from(kStore, "a");
    ASSERT_EQ(3U, io::open_flags.size());
    EXPECT_EQ(O_RDWR | O_CLOEXEC | O_CREAT, io::open_flags[0] & (O_ACCMODE | O_CLOEXEC | O_CREAT));
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, io::open_flags[1] & (O_ACCMODE | O_CLOEXEC | O_CREAT));
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, io::open_flags[2] & (O_ACCMODE | O_CLOEXEC | O_CREAT));
}

TEST(SetEnv, LeavesNoDescriptorAndNoLock)
{
    int before = ::dup(0);
    ::close(before);
    write_file(kStore, "a=1\n");
    qv_setenv("a", "2", 0);
    qv_setenv("a", "2", 1);
    qv_setenv("b", "2", 1);
    get("a");
    get("none");
    get_from("/tmp/none", "a");
    int after = ::dup(0);
    ::close(after);
    EXPECT_EQ(before, after);
    int fd = open_store(O_RDWR);
    ChildResult child = run_child([&] { ::_exit(blocking_lock(fd, F_WRLCK).l_type == F_UNLCK ? 0 : 1); });
    EXPECT_TRUE(child.exited(0));
}

TEST(SetEnv, ASignalDuringTheWaitFailsTheCall)
{
    int fd = open_store(O_RDWR | O_CREAT);
    ASSERT_EQ(0, file_lock(fd, F_WRLCK, 1));
    ChildResult child = run_child([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGALRM, &action, nullptr);
        struct itimerval often = {{0, 10000}, {0, 10000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
        bool failed = qv_setenv("a", "1", 1) == -1 && qv_getenv("a") == nullptr;
        ::_exit(failed ? 0 : 1);
    });
    EXPECT_TRUE(child.exited(0));
}

// ---- reading ----

TEST(GetEnv, MissingStoreIsNotCreated)
{
    EXPECT_EQ(nullptr, qv_getenv("a"));
    EXPECT_EQ(nullptr, qv_getenv_filename(kStore, "a"));
    EXPECT_FALSE(exists(kStore));
}

TEST(GetEnv, AnUnreadableStoreHoldsNothing)
{
    ASSERT_EQ(0, ::mkdir(kStore, 0755));
    EXPECT_EQ("(null)", get("a"));
    EXPECT_EQ("(null)", get_from(kStore, "a"));
}

TEST(GetEnv, ReadsWhatWasSet)
{
    qv_setenv("a", "1", 1);
    qv_setenv("b", "two words", 1);
    EXPECT_EQ("1", get("a"));
    EXPECT_EQ("two words", get("b"));
    EXPECT_EQ("(null)", get("c"));
    qv_setenv("a", "3", 1);
    EXPECT_EQ("3", get("a"));
}

TEST(GetEnv, EmptyStoreHoldsNothing)
{
    write_file(kStore, "");
    EXPECT_EQ("(null)", get("a"));
    EXPECT_EQ("(null)", get(""));
    EXPECT_EQ("(null)", get_from(kStore, "a"));
    EXPECT_EQ("(null)", get_from(kStore, ""));
}

TEST(GetEnv, FirstMatchAnywhereInTheText)
{
    write_file(kStore, "AB=1\nB=2\nB=3\n");
    EXPECT_EQ("1", get("B"));
    EXPECT_EQ("1", get("AB"));
    EXPECT_EQ("(null)", get("A"));
    write_file(kStore, "opt=a=1\na=2\n");
    EXPECT_EQ("1", get("a"));
    EXPECT_EQ("a=1", get("opt"));
    EXPECT_EQ("1", get("opt=a"));
}

TEST(GetEnv, LengthsOfTheValue)
{
    const std::string value = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-+*/.,";
    for (const char *end : {"\n", "", "\nw=1\n"}) {
        for (std::size_t length = 0; length <= value.size(); length++) {
            write_file(kStore, "v=" + value.substr(0, length) + end);
            std::string expected = length == 64 ? "(null)" : value.substr(0, std::min<std::size_t>(length, 65));
            EXPECT_EQ(expected, get("v")) << length;
            EXPECT_EQ(expected, get_from(kStore, "v")) << length;
        }
    }
    write_file(kStore, "v=" + text(100000));
    EXPECT_EQ(text(65), get("v"));
}

TEST(GetEnv, ASetValueOf64CharactersReadsAsAbsent)
{
    EXPECT_EQ(0, qv_setenv("v", text(64).c_str(), 1));
    EXPECT_EQ("(null)", get("v"));
    EXPECT_EQ(-2, qv_setenv("v", "1", 0));
    EXPECT_EQ(0, qv_setenv("v", text(63).c_str(), 1));
    EXPECT_EQ(text(63), get("v"));
}

TEST(GetEnv, LongNamesAreCut)
{
    write_file(kStore, text(30) + "=30\n" + text(31, 'y') + "=31\n" + text(40, 'z') + "=40\n");
    EXPECT_EQ("30", get(text(30)));
    EXPECT_EQ("(null)", get(text(31)));
    EXPECT_EQ("31", get(text(31, 'y')));
    EXPECT_EQ("40", get(text(31, 'z')));
    EXPECT_EQ("40", get(text(40, 'z')));
    EXPECT_EQ("40", get(text(31, 'z') + "other end"));
    EXPECT_EQ("40", get(text(5000, 'z')));
    write_file(kStore, text(31) + "\nb=1\n");
    EXPECT_EQ("(null)", get(text(31))); // that line has no value, and the next line's is not used
}

TEST(GetEnv, TheTextEndsAtAZero)
{
    write_file(kStore, std::string("a=1\0b\nc=3\n", 10));
    EXPECT_EQ("1", get("a"));
    EXPECT_EQ("(null)", get("c"));
}

TEST(GetEnv, BothReadersShareTheResult)
{
    write_file(kStore, "a=1\n");
    write_file(kOther, "b=2\n");
    char *first = qv_getenv("a");
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, qv_getenv_filename(kOther, "b"));
    EXPECT_STREQ("2", first);
}

TEST(GetEnvFilename, ReadsAnyFile)
{
    write_file(kStore, "a=1\n");
    write_file(kOther, "a=2\n");
    EXPECT_EQ("2", get_from(kOther, "a"));
    EXPECT_EQ("1", get_from(kStore, "a"));
    EXPECT_EQ("(null)", get_from("/tmp/none", "a"));
    EXPECT_FALSE(exists("/tmp/none"));
}

TEST(GetEnvFilename, OnlyTheFirstOccurrenceCounts)
{
    write_file(kOther, "abc=1\nab=2\n");
    EXPECT_EQ("(null)", get_from(kOther, "ab"));
    EXPECT_EQ("1", get_from(kOther, "abc"));
    EXPECT_EQ("1", get_from(kOther, "bc"));
    write_file(kOther, "x=ab\nab=2\n");
    EXPECT_EQ("(null)", get_from(kOther, "ab"));
    write_file(kOther, "ab=2\nabc=1\n");
    EXPECT_EQ("2", get_from(kOther, "ab"));
    write_file(kOther, "ab");
    EXPECT_EQ("(null)", get_from(kOther, "ab"));
}

TEST(GetEnvFilename, DoesNotCutNames)
{
    write_file(kOther, text(40) + "=1\n");
    EXPECT_EQ("1", get_from(kOther, text(40)));
    EXPECT_EQ("(null)", get_from(kOther, text(39))); // first occurrence: the line's start
    EXPECT_EQ("(null)", get_from(kOther, text(41)));
}

TEST(GetEnvFilename, EmptyNameNeedsAPrecedingEqualsSign)
{
    write_file(kOther, "a=1\n");
    EXPECT_EQ("(null)", get_from(kOther, ""));
    write_file(kOther, "=1\n");
    EXPECT_EQ("1", get_from(kOther, ""));
}

TEST(GetEnv, WaitsForTheWriter)
{
    write_file(kStore, "a=1\n");
    int fd = open_store(O_RDWR);
    ASSERT_EQ(0, file_lock(fd, F_WRLCK, 1));
    pid_t child = ::fork();
    if (child == 0)
        ::_exit(get("a") == "2" ? 0 : 1);
    ::usleep(20000);
    EXPECT_EQ(4, ::pwrite(fd, "a=2\n", 4, 0));
    file_unlock(fd);
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

// ---- against a model ----

// The reference: the store as a text in memory, changed by the same rules.
class Model {
public:
    std::string text;

    int set(const std::string &name, const std::string &value, bool overwrite)
    {
        if (name.size() > 30 || value.size() > 64)
            return -1;
        std::size_t match = text.find(name + "=");
        if (match != std::string::npos && !overwrite)
            return -2;
        if (match != std::string::npos) {
            std::size_t newline = text.find('\n', match);
            std::string rest = newline != std::string::npos ? text.substr(newline + 1) : "";
            text = text.substr(0, match) + rest;
        }
        text += name + "=" + value + "\n";
        return 0;
    }

    std::string get(const std::string &name) const
    {
        std::size_t match = text.find(name + "=");
        return match != std::string::npos ? value_at(match + name.size() + 1) : "(null)";
    }

    std::string get_strictly(const std::string &name) const
    {
        std::size_t match = text.find(name);
        if (match == std::string::npos || text[match + name.size()] != '=')
            return "(null)";
        return value_at(match + name.size() + 1);
    }

private:
    std::string value_at(std::size_t start) const
    {
        std::string value = text.substr(start, text.find('\n', start) - start);
        return value.size() == 64 ? "(null)" : value.substr(0, 65);
    }
};

TEST(Env, FollowsTheModel)
{
    Random random(8101);
    auto pick = [&](std::size_t below) { return random() % below; };
    // Few letters, so that names match within one another and within values.
    auto word = [&](std::size_t longest) {
        std::string letters;
        for (std::size_t n = pick(longest + 1); n > 0; n--)
            letters += "ab=c"[pick(4)];
        return letters;
    };
    Model model;
    for (std::size_t round = effort(4000); round > 0; round--) {
        std::string name = pick(8) != 0 ? word(4) : word(30);
        random.doing("store size", model.text.size());
        if (pick(2) == 0) {
            bool overwrite = pick(3) != 0;
            std::string value = pick(4) != 0 ? word(5) : word(66);
            ASSERT_EQ(model.set(name, value, overwrite), qv_setenv(name.c_str(), value.c_str(), overwrite))
                << name << " to " << value;
            ASSERT_EQ(model.text, read_file(kStore));
        } else {
            ASSERT_EQ(model.get(name), get(name)) << name;
            ASSERT_EQ(model.get_strictly(name), get_from(kStore, name)) << name;
        }
        if (model.text.size() > 2000 || pick(500) == 0) {
            model.text = pick(2) != 0 ? "" : "ab=1\nabc";
            write_file(kStore, model.text);
        }
    }
}

// ---- between processes ----

constexpr unsigned kWriters = 16;
constexpr unsigned kNames = 12;
constexpr std::size_t kOperations = 100000;

std::string name_of(unsigned n)
{
    return "n" + std::to_string(100 + n);
}

// A value names its writer and its number, and its end is recognisable: "<writer>:<count>:<count % 40 dots>;".
std::string value_of(unsigned writer, unsigned count)
{
    return std::to_string(writer) + ":" + std::to_string(count) + ":" + text(count % 40, '.') + ";";
}

// Parses a value. False if no writer wrote it.
bool parse_value(const std::string &value, unsigned *writer, unsigned *count)
{
    return std::sscanf(value.c_str(), "%u:%u:", writer, count) == 2 && value == value_of(*writer, *count);
}

// What the processes count. They may be killed at any time.
struct Tally {
    unsigned operations; // of all processes
    unsigned wrong;      // values that no writer wrote
    unsigned failed;     // calls that failed
    unsigned counts[kWriters];
};

Tally *new_tally()
{
    void *map = ::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, map);
    return static_cast<Tally *>(map);
}

void hammer(Tally *tally, unsigned writer, unsigned total)
{
    std::mt19937 random(static_cast<unsigned>(::getpid()));
    unsigned *count = &tally->counts[writer];
    while (__atomic_fetch_add(&tally->operations, 1, __ATOMIC_RELAXED) < total) {
        std::string name = name_of(static_cast<unsigned>(random()) % kNames);
        if (random() % 3 == 0) {
            ++*count; // counted before the write, so that the successor of a killed writer never writes the same value
            if (qv_setenv(name.c_str(), value_of(writer, *count).c_str(), 1) != 0)
                __atomic_fetch_add(&tally->failed, 1, __ATOMIC_RELAXED);
            continue;
        }
        std::string value = random() % 2 == 0 ? get(name) : get_from(kStore, name);
        unsigned by, at;
        if (value != "(null)" && !parse_value(value, &by, &at))
            __atomic_fetch_add(&tally->wrong, 1, __ATOMIC_RELAXED);
    }
}

pid_t start_hammer(Tally *tally, unsigned writer, unsigned total)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        hammer(tally, writer, total);
        ::_exit(0);
    }
    return pid;
}

// Checks that each complete line of the store is a written record and that each writer's newest record comes last.
// Returns the number of damaged lines.
unsigned check_store(const Tally *tally)
{
    unsigned odd = 0;
    std::map<unsigned, unsigned> last;
    std::map<std::string, unsigned> seen;
    for (const std::string &line : lines(read_file(kStore))) {
        std::size_t sign = line.find('=');
        unsigned writer, count;
        if (sign != 4 || !parse_value(line.substr(sign + 1), &writer, &count)) {
            odd++;
            continue;
        }
        EXPECT_LT(writer, kWriters) << line;
        EXPECT_LE(count, tally->counts[writer % kWriters]) << line;
        EXPECT_GT(count, last[writer]) << line;
        last[writer] = count;
        EXPECT_EQ(1U, ++seen[line.substr(0, sign)]) << line;
    }
    return odd;
}

TEST(EnvCancellation, ActsAfterTheRecord)
{
    if (under_sanitizer())
        GTEST_SKIP() << "the sanitizer faults when a cancelled thread ends";
    write_file(kStore, "a=1\nb=2\nc=3\n");
    std::size_t before = list_dir("/proc/self/fd").size();
    auto cancelled = [](auto call) {
        std::thread thread([call] {
            ::pthread_cancel(::pthread_self());
            call();
            ADD_FAILURE() << "the cancellation request is lost";
        });
        thread.join();
    };
    cancelled([] { qv_setenv("a", "new", 1); });
    cancelled([] { qv_getenv("b"); });
    cancelled([] { qv_getenv_filename(kStore, "c"); });
    EXPECT_EQ("b=2\nc=3\na=new\n", read_file(kStore));
    EXPECT_EQ(before, list_dir("/proc/self/fd").size());
}

TEST(EnvProcesses, NoReaderSeesATornRecord)
{
    Tally *tally = new_tally();
    std::vector<pid_t> children;
    for (unsigned i = 0; i < kWriters; i++)
        children.push_back(start_hammer(tally, i, static_cast<unsigned>(effort(kOperations))));
    for (pid_t child : children) {
        int status = -1;
        EXPECT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    EXPECT_EQ(0U, tally->wrong);
    EXPECT_EQ(0U, tally->failed);
    EXPECT_EQ(0U, check_store(tally));
}

// A record is written in four pieces, so a killed writer may leave part of one, and the next record continues that
// line. A kill costs no more: the lock ends with the process and the others continue.
TEST(EnvProcesses, KilledWritersCostALineEachAtMost)
{
    Tally *tally = new_tally();
    // Enough operations for some kills on a fast machine; the emulator mostly starts writers.
    unsigned total = under_emulation() ? 1000 : std::max(static_cast<unsigned>(effort(kOperations)) / 4, 8000U);
    std::vector<pid_t> children;
    for (unsigned i = 0; i < kWriters; i++)
        children.push_back(start_hammer(tally, i, total));

    Random random(8102);
    unsigned kills = 0;
    while (__atomic_load_n(&tally->operations, __ATOMIC_RELAXED) < total) {
        ::usleep(1000 + static_cast<useconds_t>(random() % 2000));
        unsigned victim = static_cast<unsigned>(random()) % kWriters;
        random.doing("kill writer", victim);
        ::kill(children[victim], SIGKILL);
        int status = -1;
        ASSERT_EQ(children[victim], ::waitpid(children[victim], &status, 0));
        kills += WIFSIGNALED(status);
        children[victim] = start_hammer(tally, victim, total);
    }
    for (pid_t child : children)
        ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
    EXPECT_GT(kills, 0U);
    EXPECT_EQ(0U, tally->failed);
    EXPECT_LE(check_store(tally), kills);

    // The store still works: what is set now is read back.
    for (unsigned i = 0; i < kNames; i++) {
        EXPECT_EQ(0, qv_setenv(name_of(i).c_str(), "back", 1));
        EXPECT_EQ("back", get(name_of(i)));
    }
}

} // namespace
