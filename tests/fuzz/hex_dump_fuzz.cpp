// SPDX-License-Identifier: Apache-2.0
// Any title over any bytes: the file holds the title as signal_snprintf() formats it, and the dump as printf() does.
#include "sighandler.h"
#include "signal_printf.h"

#include "tests/fuzz/input.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using fuzz::require;

constexpr int kArguments = 32;

// The conversions of a title that matter here. The third argument is a length: a title that uses it as a text's
// address breaks the contract, and so does one that uses more arguments than are passed.
struct conversions {
    int count = 0;
    char third = '\0';

    explicit conversions(const std::string &title)
    {
        const char *s = title.c_str();
        while ((s = std::strchr(s, '%')) != nullptr) {
            s++;
            s += std::strspn(s, "+ -0");
            s += std::strspn(s, "0123456789");
            if (*s == '.')
                s += 1 + std::strspn(s + 1, "0123456789");
            for (int i = 0; i < 2 && (*s == 'L' || *s == 'l' || (i == 0 && *s == 'H')); i++)
                s++;
            if (*s != '\0' && std::strchr("csdiuboxXpn", *s) != nullptr && ++count == 3)
                third = *s;
            s += *s != '\0';
        }
    }
};

std::string contents(int fd)
{
    std::string text(1 << 16, '\0');
    ssize_t length = ::pread(fd, text.data(), text.size(), 0);
    require(length >= 0);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::string dump_of(const unsigned char *bytes, int length, const unsigned char *mark)
{
    std::string text;
    char piece[32];
    for (int i = 0; i < length; i++) {
        if (i % 16 == 0) {
            signal_snprintf(piece, sizeof piece, "\n%p:", static_cast<const void *>(bytes + i));
            text += piece;
        }
        std::snprintf(piece, sizeof piece, bytes + i == mark ? "*%02x" : " %02x", bytes[i]);
        text += piece;
    }
    return length > 0 ? text + "\n" : text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const int length = input.byte() % 80 - 5;
    const unsigned marked = input.byte();
    std::string title;
    while (!input.empty())
        title += static_cast<char>(input.byte());
    title = title.c_str();
    const conversions wanted(title);
    if (wanted.third == 's' || wanted.third == 'n')
        return 0;

    // All other arguments are writable texts, so that every conversion may use them. Formatted first, so that the
    // effect of %n is the same for both.
    alignas(8) static unsigned char bytes[128];
    alignas(8) static char t[kArguments - 3][32];
    auto fill = [] {
        for (std::size_t i = 0; i < sizeof bytes; i++)
            bytes[i] = static_cast<unsigned char>(i + 1 < sizeof bytes ? 'A' + i % 50 : 0);
        for (auto &text : t)
            std::snprintf(text, sizeof text, "%*d", static_cast<int>(&text - t), 7);
    };
    // %n stores an int, which must be aligned.
    const bool stores = title.find('n') != title.npos;
    const unsigned char *mark = bytes + marked % sizeof bytes / (stores ? 8 : 1) * (stores ? 8 : 1);
    auto with_arguments = [&](auto call) {
        fill();
        call(t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8], t[9], t[10], t[11], t[12], t[13], t[14], t[15],
             t[16], t[17], t[18], t[19], t[20], t[21], t[22], t[23], t[24], t[25], t[26], t[27], t[28]);
    };

    static const int fd = ::memfd_create("dump", 0);
    require(fd >= 0 && ::ftruncate(fd, 0) == 0 && ::lseek(fd, 0, SEEK_SET) == 0);
    with_arguments([&](auto... rest) { hex_dump_to_file(fd, title.c_str(), bytes, mark, length, rest...); });
    const std::string dump = dump_of(bytes, length, mark), written = contents(fd);

    static char expected[4096];
    int expected_length = 0; // %c may write a zero
    if (wanted.count > kArguments)
        expected_length = signal_snprintf(expected, sizeof expected, "%s", title.c_str());
    else
        with_arguments([&](auto... rest) {
            expected_length = signal_snprintf(expected, sizeof expected, title.c_str(), bytes, mark, length, rest...);
        });
    const std::string text(expected, static_cast<std::size_t>(expected_length));
    require(written.size() >= dump.size() && written.compare(written.size() - dump.size(), dump.size(), dump) == 0);
    const std::string head = written.substr(0, written.size() - dump.size());
    // A single write to a descriptor accepts fewer characters than a buffer may hold.
    require(head == text.substr(0, head.size()) && (head.size() >= 900 || head == text));
    return 0;
}
