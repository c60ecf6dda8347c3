// SPDX-License-Identifier: Apache-2.0
// The digest of a file of 1 GiB in the page cache against md5sum. FILEMD5_BENCH_MIB sets another size.
#include "encoding.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <openssl/evp.h>
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

// The sum of the file in reads of the given size, with nothing else.
void reads(benchmark::State &state)
{
    make_file();
    std::vector<char> chunk(static_cast<std::size_t>(state.range(0)));
    EVP_MD_CTX *sum = EVP_MD_CTX_new();
    for (auto _ : state) {
        EVP_DigestInit_ex(sum, EVP_md5(), nullptr);
        int fd = ::open(kFile, O_RDONLY);
        ssize_t length;
        while ((length = ::read(fd, chunk.data(), chunk.size())) > 0)
            EVP_DigestUpdate(sum, chunk.data(), static_cast<std::size_t>(length));
        ::close(fd);
        unsigned char digest[EVP_MAX_MD_SIZE];
        EVP_DigestFinal_ex(sum, digest, nullptr);
        benchmark::DoNotOptimize(digest);
    }
    EVP_MD_CTX_free(sum);
}
BENCHMARK(reads)->Arg(2048)->Arg(32768)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK(ours)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(md5sum)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
