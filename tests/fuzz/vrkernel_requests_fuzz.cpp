// SPDX-License-Identifier: Apache-2.0
// Requests of any content to the stand-in kernel, one after another on the same tables: each reads and writes only the
// fields of its command, at any alignment of the record, and the tables stay consistent.
#include "platform/kernel/requests.h"
#include "platform/kernel/tables.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <vector>

using namespace qv;
using namespace qv;
using namespace vr_abi;

namespace {

struct field {
    std::size_t offset;
    std::size_t size;
};

void require(bool held)
{
    if (!held)
        std::abort();
}

std::vector<field> written_by(std::uint64_t code)
{
    switch (code) {
    case kGetIf:
        return {{kIfFlags, 4}, {kIfVsysId, 2}};
    case kGetVr:
        return {{kSecondId, 2}, {kValue, 4}, {kVrName, kNameSize}};
    case kVrNameToId:
    case kVsysNameToId:
        return {{kFirstId, 2}};
    case kVsysIdToName:
        return {{kVsysName, kNameSize}};
    case kDefaultVrOfVsys:
        return {{kDefaultVr, 2}};
    default:
        return {};
    }
}

void require_unchanged_but(const std::vector<std::uint8_t> &before, std::vector<std::uint8_t> after,
                           const std::vector<field> &fields)
{
    for (const field &one : fields)
        std::copy_n(before.begin() + static_cast<long>(one.offset), one.size,
                    after.begin() + static_cast<long>(one.offset));
    require(before == after);
}

void fill(vrkernel::tables &all)
{
    std::memset(static_cast<void *>(&all), 0, sizeof all);
    auto add_vr = [&](unsigned id, std::uint16_t vsys, const char *name, unsigned flags) {
        std::strcpy(all.vrs[id].name, name);
        all.vrs[id].vsys = vsys;
        all.vrs[id].flags = flags;
    };
    all.all_vsys[all.vsys_count++] = {0, 1, "root"};
    all.all_vsys[all.vsys_count++] = {3, 7, "a-name-with-thirty-one-characte"};
    add_vr(1, 0, "default", 0);
    add_vr(7, 3, "trust", 0);
    add_vr(QV_VRID_MAX, 3, "a-name-with-thirty-one-characte", kShared);
    vrkernel::interface *one = &all.interfaces[all.interface_count++];
    std::strcpy(one->name, "eth0-1");
    one->id = 17;
    one->vsys = 3;
    one->vr = 7;
    one = &all.interfaces[all.interface_count++];
    std::strcpy(one->name, "fifteen-charact");
    one->id = 0xFFFF;
    one->vr = 1;
}

// The bytes of a record up to the last one that may be accessed. 0 for a field that is not given.
std::vector<std::uint8_t> take(const std::uint8_t *&data, std::size_t &size, std::size_t wanted)
{
    std::vector<std::uint8_t> bytes(wanted, 0);
    std::size_t given = std::min(wanted, size);
    std::copy_n(data, given, bytes.begin());
    data += given;
    size -= given;
    return bytes;
}

// At an odd address, and at the end of the block, so that an access beyond it is detected.
class placed_record {
public:
    explicit placed_record(const std::vector<std::uint8_t> &bytes)
        : block_(static_cast<std::uint8_t *>(std::malloc(bytes.size() + 1))), size_(bytes.size())
    {
        std::copy(bytes.begin(), bytes.end(), at());
    }
    ~placed_record() { std::free(block_); }
    placed_record(const placed_record &) = delete;
    placed_record &operator=(const placed_record &) = delete;

    std::uint8_t *at() { return block_ + 1; }
    std::vector<std::uint8_t> bytes() { return {at(), at() + size_}; }

private:
    std::uint8_t *block_;
    std::size_t size_;
};

void ask_channel(vrkernel::tables &all, std::uint8_t code, const std::vector<std::uint8_t> &bytes)
{
    auto request = bytes;
    if (code < 32) // likely codes, in addition to those that the input gives
        std::fill_n(request.begin(), 8, 0), request[0] = code;
    std::uint64_t asked;
    std::memcpy(&asked, request.data(), sizeof asked);
    placed_record record(request);
    ifreq channel{};
    std::strcpy(channel.ifr_name, kChannelDevice);
    channel.ifr_data = reinterpret_cast<char *>(record.at());
    require(vrkernel::is_ours(kPrivateChannel, &channel));
    int error = vrkernel::answer(all, kPrivateChannel, &channel);
    require(error == 0 || error == ENODEV || error == ENOENT || error == EOPNOTSUPP);
    require_unchanged_but(request, record.bytes(), error == 0 ? written_by(asked) : std::vector<field>{});
}

void ask_interface(vrkernel::tables &all, unsigned long number, const std::vector<std::uint8_t> &bytes)
{
    placed_record record(bytes);
    int error = vrkernel::answer(all, number, record.at());
    require(error == 0 || error == ENODEV || (number == kSetIfVr && (error == ENOENT || error == EINVAL)));
    bool writes = error == 0 && number == kGetIfVr;
    require_unchanged_but(bytes, record.bytes(), writes ? std::vector<field>{{kIfVrId, 4}} : std::vector<field>{});
}

void require_sound(vrkernel::tables &all)
{
    require(all.vsys_count == 2 && all.interface_count == 2);
    for (const vrkernel::interface &one : all.interfaces)
        require(one.name[0] == '\0' || all.find_vr(one.vr) != nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static auto *all = static_cast<vrkernel::tables *>(std::malloc(sizeof(vrkernel::tables)));
    fill(*all);
    while (size != 0) {
        std::uint8_t kind = *data++;
        size--;
        if (kind >= 0xF0)
            ask_interface(*all, (kind & 1) != 0 ? kGetIfVr : kSetIfVr, take(data, size, kIfVrSize));
        else
            ask_channel(*all, kind, take(data, size, kCommandSize));
    }
    require_sound(*all);
    return 0;
}
