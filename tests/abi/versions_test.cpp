// SPDX-License-Identifier: Apache-2.0
// Versions of the symbols and of the loaded library; hosts with other versions and with other definitions of our names.
#include "support/support.h"

#include "hashtbl.h"
#include "libcommon_version.h"

#include <dlfcn.h>
#include <string>

using namespace support;

TEST(Versions, TheLoadedLibraryHasThatOfTheHeaders)
{
    EXPECT_STREQ(LIBCOMMON_VERSION, libcommon_version());
    EXPECT_STREQ(PROJECT_VERSION, LIBCOMMON_VERSION);
    std::string parts = std::to_string(LIBCOMMON_VERSION_MAJOR) + "." + std::to_string(LIBCOMMON_VERSION_MINOR) + "." +
                        std::to_string(LIBCOMMON_VERSION_PATCH);
    EXPECT_EQ(LIBCOMMON_VERSION, parts);
}

TEST(Versions, ASymbolIsFoundWithAndWithoutItsVersion)
{
    auto *own = reinterpret_cast<void *>(&hashtbl_init);
    EXPECT_EQ(own, ::dlvsym(RTLD_DEFAULT, "hashtbl_init", "LIBCOMMON_1.0"));
    EXPECT_EQ(own, ::dlsym(RTLD_DEFAULT, "hashtbl_init"));
    EXPECT_EQ(nullptr, ::dlvsym(RTLD_DEFAULT, "hashtbl_init", "LIBCOMMON_0.9"));
}

TEST(Versions, AHostLinkedWithoutVersionsRuns)
{
    if (under_sanitizer())
        GTEST_SKIP() << "interposition is off in this build: the sanitizer has the allocator";
    ChildResult result = run_program({build_dir() + "/tests/old_host"});
    EXPECT_TRUE(result.exited(0)) << result.status << result.err;
    EXPECT_EQ("good\n", result.out);
}

TEST(Names, WhatAHostCallsTheSameStaysItsOwn)
{
    if (under_sanitizer())
        GTEST_SKIP() << "interposition is off in this build: the sanitizer has the allocator";
    ChildResult result = run_program({build_dir() + "/tests/own_names_host"});
    EXPECT_TRUE(result.killed_by(SIGABRT)) << result.status << result.err;
    EXPECT_EQ("good\n", result.out);
    ASSERT_EQ(1u, list_dir("/etc/core").size());
    EXPECT_NE(std::string::npos, read_file("/etc/core/" + list_dir("/etc/core")[0]).find("(abort+"));
}
