// SPDX-License-Identifier: Apache-2.0
#include "support/random.h"

#include <cstdlib>

namespace support {
namespace {

RandomWork *newest = nullptr;

} // namespace

RandomWork::RandomWork(unsigned long usual_seed) : seed_(usual_seed), next_(newest)
{
    if (const char *given = std::getenv("LIBCOMMON_SEED"))
        seed_ = std::strtoul(given, nullptr, 0);
    newest = this;
}

RandomWork::~RandomWork()
{
    RandomWork **link = &newest;
    while (*link != this)
        link = &(*link)->next_;
    *link = next_;
}

std::string RandomWork::describe_all()
{
    std::string text;
    for (const RandomWork *work = newest; work != nullptr; work = work->next_) {
        text += "seed " + std::to_string(work->seed_);
        if (work->operation_ != nullptr)
            text += ", step " + std::to_string(work->steps_) + ": " + work->operation_;
        for (std::size_t i = 0; i < work->count_; i++)
            text += " " + std::to_string(work->values_[i]);
        text += '\n';
    }
    return text;
}

} // namespace support
