// SPDX-License-Identifier: Apache-2.0
// Base64 both ways against the resolver's, the cryptographic library's and the desktop library's routines.
#include "encoding.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <resolv.h>
#include <vector>
#ifdef HAVE_CRYPTO
#include <openssl/evp.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif

// The resolver's header defines the library's names as macros.
#undef b64_ntop
#undef b64_pton

namespace {

extern "C" {
int theirs_ntop(const unsigned char *src, std::size_t srclength, char *target, std::size_t targsize) asm("__b64_ntop");
int theirs_pton(const char *src, unsigned char *target, std::size_t targsize) asm("__b64_pton");
}

std::vector<unsigned char> bytes(std::size_t size)
{
    std::vector<unsigned char> data(size);
    for (std::size_t i = 0; i < size; i++)
        data[i] = static_cast<unsigned char>(i * 131 + (i >> 8));
    return data;
}

template <typename Function>
void encode(benchmark::State &state, Function function)
{
    std::vector<unsigned char> data = bytes(static_cast<std::size_t>(state.range(0)));
    std::vector<char> text(data.size() * 2 + 8);
    for (auto _ : state) {
        benchmark::DoNotOptimize(function(data.data(), data.size(), text.data(), text.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

template <typename Function>
void decode(benchmark::State &state, Function function)
{
    std::vector<unsigned char> data = bytes(static_cast<std::size_t>(state.range(0)) / 3 * 3);
    std::vector<char> text(data.size() * 2 + 8);
    auto length = static_cast<std::size_t>(b64_ntop(data.data(), data.size(), text.data(), text.size()));
    for (auto _ : state) {
        benchmark::DoNotOptimize(function(text.data(), length, data.data(), data.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void encode_ours(benchmark::State &state)
{
    encode(state, b64_ntop);
}
void encode_resolver(benchmark::State &state)
{
    encode(state, theirs_ntop);
}
void decode_ours(benchmark::State &state)
{
    decode(state, [](const char *text, std::size_t, unsigned char *out, std::size_t size) {
        return b64_pton(text, out, size);
    });
}
void decode_resolver(benchmark::State &state)
{
    decode(state, [](const char *text, std::size_t, unsigned char *out, std::size_t size) {
        return theirs_pton(text, out, size);
    });
}
BENCHMARK(encode_ours)->Arg(48)->Arg(4096)->Arg(1 << 20);
BENCHMARK(encode_resolver)->Arg(48)->Arg(4096)->Arg(1 << 20);
BENCHMARK(decode_ours)->Arg(48)->Arg(4096)->Arg(1 << 20);
BENCHMARK(decode_resolver)->Arg(48)->Arg(4096)->Arg(1 << 20);

#ifdef HAVE_CRYPTO
void encode_crypto(benchmark::State &state)
{
    encode(state, [](const unsigned char *data, std::size_t length, char *text, std::size_t) {
        return EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text), data, static_cast<int>(length));
    });
}
void decode_crypto(benchmark::State &state)
{
    decode(state, [](const char *text, std::size_t length, unsigned char *out, std::size_t) {
        return EVP_DecodeBlock(out, reinterpret_cast<const unsigned char *>(text), static_cast<int>(length));
    });
}
BENCHMARK(encode_crypto)->Arg(48)->Arg(4096)->Arg(1 << 20);
BENCHMARK(decode_crypto)->Arg(48)->Arg(4096)->Arg(1 << 20);
#endif

#ifdef HAVE_GLIB
void encode_glib(benchmark::State &state)
{
    encode(state, [](const unsigned char *data, std::size_t length, char *text, std::size_t) {
        int bits = 0, save = 0;
        gsize written = g_base64_encode_step(data, length, FALSE, text, &bits, &save);
        return written + g_base64_encode_close(FALSE, text + written, &bits, &save);
    });
}
void decode_glib(benchmark::State &state)
{
    decode(state, [](const char *text, std::size_t length, unsigned char *out, std::size_t) {
        int bits = 0;
        guint save = 0;
        return g_base64_decode_step(text, length, out, &bits, &save);
    });
}
BENCHMARK(encode_glib)->Arg(48)->Arg(4096)->Arg(1 << 20);
BENCHMARK(decode_glib)->Arg(48)->Arg(4096)->Arg(1 << 20);
#endif

} // namespace
