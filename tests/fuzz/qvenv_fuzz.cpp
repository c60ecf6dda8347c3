// SPDX-License-Identifier: Apache-2.0
// Any command line of qvenv on any store. The input's first byte is the number of arguments, each of which ends with a
// zero byte; what follows is the store. A command line that sets leaves its record at the end; no other one changes the
// store.
#define main qvenv_main
#include "programs/qvenv/qvenv.cpp"
#undef main

#include "tests/fuzz/private_tmp.h"

#include <string>
#include <vector>

using fuzz::require;

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz::enter_private_tmp(*argc, *argv);
    // Before the fuzzer has threads, and not in the first command: the leak check needs threads with equal privileges.
    require(programs::keep_capabilities({CAP_DAC_READ_SEARCH}));
    // Replaces the streams, not the descriptors: the fuzzer reports on the standard descriptors.
    stdout = std::fopen("/dev/null", "w");
    stderr = std::fopen("/dev/null", "w");
    return stdout != nullptr && stderr != nullptr ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size > 8192)
        return 0;
    fuzz::Input input(data, size);
    std::vector<std::string> words = {"qvenv"};
    for (unsigned left = input.below(8); left > 0; left--)
        words.push_back(input.text());
    std::string before;
    while (!input.empty())
        before += static_cast<char>(input.byte());
    fuzz::store_settings(before);

    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    optind = 0; // starts getopt() again
    int code = qvenv_main(static_cast<int>(words.size()), arguments.data());

    require(code >= 0 && code <= 2);
    std::string after = fuzz::stored_settings();
    if (after == before)
        return 0;
    require(words.size() >= 4 && code == 0);
    std::string record = words[words.size() - 2] + "=" + words.back() + "\n";
    require(after.size() >= record.size() && after.compare(after.size() - record.size(), record.size(), record) == 0);
    return 0;
}
