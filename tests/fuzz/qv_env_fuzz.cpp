// SPDX-License-Identifier: Apache-2.0
// Any file through both lookups and the setter. The first line of the input is the name; what follows is the file.
#include "qv_env.h"

#include "tests/fuzz/private_tmp.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

using fuzz::require;

void check_result(const char *value)
{
    if (value == nullptr)
        return;
    std::size_t length = std::strlen(value);
    require(length <= 65 && length != 64 && std::memchr(value, '\n', length) == nullptr);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz::enter_private_tmp(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string input(reinterpret_cast<const char *>(data), size);
    std::size_t newline = input.find('\n');
    if (newline == input.npos || size > 8192)
        return 0;
    std::string name = input.substr(0, newline).c_str();
    fuzz::store_settings(input.substr(newline + 1));

    check_result(qv_getenv(name.c_str()));
    check_result(qv_getenv_filename(QV_ENV_FILE, name.c_str()));
    int kept = qv_setenv(name.c_str(), "1", 0);
    require(kept == 0 || kept == -2 || (kept == -1 && name.size() > 30));
    if (name.size() > 30)
        return 0;
    require(qv_setenv(name.c_str(), "new", 1) == 0);
    std::string text = fuzz::stored_settings(), record = name + "=new\n";
    require(text.size() >= record.size() && text.compare(text.size() - record.size(), record.size(), record) == 0);
    return 0;
}
