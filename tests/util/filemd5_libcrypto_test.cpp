// SPDX-License-Identifier: Apache-2.0
// The digest of a file in a host that is linked with libcrypto, compared with md5sum.
#include "encoding.h"

#include "support/random.h"
#include "support/support.h"

using namespace support;

namespace {

std::string digest(const std::string &content)
{
    write_file("/tmp/file", content);
    char text[33] = "";
    EXPECT_EQ(0, filemd5str("/tmp/file", text, sizeof text));
    return text;
}

} // namespace

TEST(FileMd5Libcrypto, KnownDigests)
{
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", digest(""));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", digest("abc"));
}

TEST(FileMd5Libcrypto, AgreesWithTheCommand)
{
    Random random(1);
    for (std::size_t length : std::initializer_list<std::size_t>{1, 55, 56, 63, 64, 65, 2047, 2048, 2049, 100000}) {
        random.doing("length", length);
        std::string content(length, '\0');
        for (char &c : content)
            c = static_cast<char>(random());
        std::string ours = digest(content);
        ChildResult theirs = run_program({"/usr/bin/md5sum", "/tmp/file"});
        ASSERT_TRUE(theirs.exited(0));
        EXPECT_EQ(theirs.out.substr(0, 32), ours) << length;
    }
}
