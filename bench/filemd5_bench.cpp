// SPDX-License-Identifier: Apache-2.0
// The digest of a file of 1 GiB in the page cache against the command for it. FILEMD5_BENCH_MIB asks for another size.
#include "encoding.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *kFile = "/tmp/filemd5_bench";

class big_file {
public:
    big_file()
    {
        const char *asked = std::getenv("FILEMD5_BENCH_MIB");
        std::vector<char> mebibyte(1 << 20, 'x');
        std::FILE *file = std::fopen(kFile, "wb");
        for (int i = asked != nullptr ? std::atoi(asked) : 1024; i > 0 && file != nullptr; i--)
            std::fwrite(mebibyte.data(), 1, mebibyte.size(), file);
        if (file == nullptr || std::fclose(file) != 0)
            std::abort();
    }
    ~big_file() { ::unlink(kFile); }
};

void make_file()
{
    static big_file file;
}

void ours(benchmark::State &state)
{
    make_file();
    char digest[33];
    for (auto _ : state)
        if (filemd5str(kFile, digest, sizeof digest) != 0)
            std::abort();
}

void md5sum(benchmark::State &state)
{
    make_file();
    for (auto _ : state)
        if (std::system((std::string("md5sum ") + kFile + " >/dev/null").c_str()) != 0)
            std::abort();
}

BENCHMARK(ours)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(md5sum)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
