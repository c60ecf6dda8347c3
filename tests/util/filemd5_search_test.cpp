// SPDX-License-Identifier: Apache-2.0
// The search for digest functions in a host without any. A failed search is repeated, and a library without the
// functions does not end the search.
#include "encoding.h"

#include "support/next_function.h"
#include "support/support.h"

#include <atomic>
#include <barrier>
#include <dlfcn.h>
#include <map>
#include <thread>

using namespace support;

namespace {

constexpr const char *kDigest = "900150983cd24fb0d6963f7d28e17f72"; // of "abc"

// Maps each library name to the file that it opens. Other names cannot be opened.
std::map<std::string, const char *> libraries;
std::atomic<int> opened, closed;

std::string digest()
{
    write_file("/tmp/file", "abc");
    char text[33] = "";
    int result = filemd5str("/tmp/file", text, sizeof text);
    return result == 0 ? text : std::to_string(result);
}

} // namespace

extern "C" void *dlopen(const char *name, int flags) noexcept
{
    auto found = libraries.find(name);
    if (found == libraries.end())
        return nullptr;
    opened++;
    return support::next_function<void *(const char *, int)>("dlopen")(found->second, flags);
}

extern "C" int dlclose(void *library) noexcept
{
    closed++;
    return support::next_function<int(void *)>("dlclose")(library);
}

TEST(FileMd5Search, AFailedSearchIsRepeated)
{
    EXPECT_EQ("-1", digest());
    libraries["libcrypto.so.3"] = "libm.so.6";
    EXPECT_EQ("-1", digest());
    libraries["libcrypto.so.3"] = "libcrypto.so.3";
    EXPECT_EQ(kDigest, digest());
}

TEST(FileMd5Search, ALibraryWithoutTheDigestDoesNotEndTheSearch)
{
    libraries["libcrypto.so.3"] = "libm.so.6";
    libraries["libcrypto.so"] = "libcrypto.so.3";
    EXPECT_EQ(kDigest, digest());
    EXPECT_EQ(2, opened);
    EXPECT_EQ(1, closed);
}

TEST(FileMd5Search, TheLibraryIsFoundOnce)
{
    libraries["libcrypto.so.3"] = "libcrypto.so.3";
    EXPECT_EQ(kDigest, digest());
    libraries.clear();
    EXPECT_EQ(kDigest, digest());
    EXPECT_EQ(1, opened);
    EXPECT_EQ(0, closed);
}

TEST(FileMd5Search, SeveralThreadsMaySearchFirst)
{
    constexpr int kThreads = 8;
    libraries["libcrypto.so.3"] = "libcrypto.so.3";
    write_file("/tmp/file", "abc");
    std::barrier start(kThreads);
    std::atomic<int> good = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            char text[33] = "";
            good += filemd5str("/tmp/file", text, sizeof text) == 0 && text == std::string(kDigest);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(kThreads, good);
    EXPECT_EQ(1, opened - closed) << "one library stays open";
}
