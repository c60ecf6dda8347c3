// SPDX-License-Identifier: Apache-2.0
// Any command line through the split: the words are parts of the text, in order, without blanks, and the list is
// terminated by null.
#include "util/parse_line.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace qv;

// A line with too many words is reported on standard output.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    std::string line = text.c_str();
    util::word_list words{};
    int count = util::parse_line(line.data(), words.data());
    int kept = count < 0 ? util::kMaxWords : count;
    const char *from = line.data();
    for (int i = 0; i < kept; i++) {
        const char *word = words[static_cast<std::size_t>(i)];
        if (word < from || *word == '\0' || std::strpbrk(word, " \t") != nullptr)
            std::abort();
        from = word + std::strlen(word);
    }
    if (words[static_cast<std::size_t>(kept)] != nullptr)
        std::abort();
    return 0;
}
