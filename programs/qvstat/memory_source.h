// SPDX-License-Identifier: Apache-2.0
// memory_source.h - memory that is read from outside: that of a process, or bytes of a test.
#ifndef QVSTAT_MEMORY_SOURCE_H
#define QVSTAT_MEMORY_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace qvstat {

class memory_source {
public:
    virtual ~memory_source() = default;

    /** Copies bytes. False unless all of them could be read. */
    virtual bool read(std::uint64_t address, void *to, std::size_t size) const = 0;
};

template <typename Value>
std::optional<Value> load(const memory_source &memory, std::uint64_t address)
{
    Value value;
    if (!memory.read(address, &value, sizeof value))
        return std::nullopt;
    return value;
}

// The memory of a running process. It is not stopped and does not notice.
class process_memory final : public memory_source {
public:
    explicit process_memory(pid_t process) : process_(process) {}

    bool read(std::uint64_t address, void *to, std::size_t size) const override;

private:
    pid_t process_;
};

} // namespace qvstat

#endif
