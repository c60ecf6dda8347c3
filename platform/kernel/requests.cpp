// SPDX-License-Identifier: Apache-2.0
// Requests on sockets: one function per command.
#include "requests.h"

#include "net/vr_record.h"
#include "tables.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>

using namespace qv;
using namespace vr_abi;

namespace qv::vrkernel {

namespace {

// The caller's record. Only the fields of a command are read and written.
using record = record_view;

interface *by_wide_id(tables &all, const record &r)
{
    return all.find_interface(r.get<std::uint32_t>(kIfId));
}

interface *by_first_id(tables &all, const record &r)
{
    return all.find_interface(r.get<std::uint16_t>(kFirstId));
}

// ---- interfaces ----

int set_interface_flags(tables &all, record r)
{
    interface *one = by_wide_id(all, r);
    if (one == nullptr)
        return ENODEV;
    one->flags = r.get<std::uint32_t>(kIfFlags);
    return 0;
}

int get_interface(tables &all, record r)
{
    const interface *one = by_wide_id(all, r);
    if (one == nullptr)
        return ENODEV;
    r.put<std::uint32_t>(kIfFlags, one->flags);
    r.put(kIfVsysId, one->vsys);
    return 0;
}

int set_cellular_mac(tables &all, record r)
{
    interface *one = by_first_id(all, r);
    if (one == nullptr)
        return ENODEV;
    std::uint64_t mac = 0;
    std::memcpy(&mac, r.text(kMac), kMacSize);
    one->mac = mac;
    one->cellular = r.get<std::uint32_t>(kValue);
    return 0;
}

int set_value(tables &all, record r, std::atomic<std::uint32_t> interface::*member)
{
    interface *one = by_first_id(all, r);
    if (one == nullptr)
        return ENODEV;
    one->*member = r.get<std::uint32_t>(kValue);
    return 0;
}

int set_mtu_limit(tables &all, record r)
{
    interface *one = by_first_id(all, r);
    if (one == nullptr)
        return ENODEV;
    one->mtu_limits++;
    return 0;
}

// ---- virtual routers and virtual systems ----

int set_vr_flags(tables &all, record r)
{
    vr *one = all.find_vr(r.get<std::uint16_t>(kFirstId));
    if (one == nullptr)
        return ENOENT;
    one->flags = r.get<std::uint32_t>(kValue);
    return 0;
}

int get_vr(tables &all, record r)
{
    const vr *one = all.find_vr(r.get<std::uint16_t>(kFirstId));
    if (one == nullptr)
        return ENOENT;
    r.put(kSecondId, one->vsys);
    r.put<std::uint32_t>(kValue, one->flags);
    r.put(kVrName, one->name);
    return 0;
}

int vr_name_to_id(tables &all, record r)
{
    const vr *one = all.find_vr(r.get<std::uint16_t>(kSecondId), r.text(kVrName));
    if (one == nullptr)
        return ENOENT;
    r.put(kFirstId, static_cast<std::uint16_t>(all.id_of(one)));
    return 0;
}

int vsys_id_to_name(tables &all, record r)
{
    const vsys *one = all.find_vsys(r.get<std::uint16_t>(kFirstId));
    if (one == nullptr)
        return ENOENT;
    r.put(kVsysName, one->name);
    return 0;
}

int vsys_name_to_id(tables &all, record r)
{
    const vsys *one = all.find_vsys(r.text(kVsysName));
    if (one == nullptr)
        return ENOENT;
    r.put(kFirstId, one->id);
    return 0;
}

int default_vr(tables &all, record r)
{
    const vsys *one = all.find_vsys(r.get<std::uint16_t>(kFirstId));
    if (one == nullptr)
        return ENOENT;
    r.put(kDefaultVr, one->default_vr);
    return 0;
}

// ---- dispatch ----

int take_command(tables &all, record r)
{
    switch (r.get<std::uint64_t>(kCode)) {
    case kSetIfFlags:
        return set_interface_flags(all, r);
    case kGetIf:
        return get_interface(all, r);
    case kSetVrFlags:
        return set_vr_flags(all, r);
    case kGetVr:
        return get_vr(all, r);
    case kVrNameToId:
        return vr_name_to_id(all, r);
    case kVsysIdToName:
        return vsys_id_to_name(all, r);
    case kVsysNameToId:
        return vsys_name_to_id(all, r);
    case kDefaultVrOfVsys:
        return default_vr(all, r);
    case kSetCellularMac:
        return set_cellular_mac(all, r);
    case kSetWifi:
        return set_value(all, r, &interface::wifi);
    case kSetMtuLimit:
        return set_mtu_limit(all, r);
    case kChangeCellularDev:
        return set_value(all, r, &interface::device);
    default:
        return EOPNOTSUPP;
    }
}

int take_interface_request(tables &all, unsigned long request, record r)
{
    interface *one = all.find_interface(r.text(kIfVrName));
    if (one == nullptr)
        return ENODEV;
    if (request == kGetIfVr) {
        r.put<std::uint32_t>(kIfVrId, one->vr);
        return 0;
    }
    auto id = r.get<std::uint32_t>(kIfVrId);
    const vr *to = all.find_vr(id);
    if (to == nullptr)
        return ENOENT;
    if (!may_hold(*to, one->vsys))
        return EINVAL;
    one->vr = id;
    return 0;
}

} // namespace

bool is_known(unsigned long request)
{
    return request == kPrivateChannel || request == kGetIfVr || request == kSetIfVr;
}

bool is_ours(unsigned long request, const void *argument)
{
    if (request == kGetIfVr || request == kSetIfVr)
        return true;
    return request == kPrivateChannel && argument != nullptr &&
           std::strncmp(static_cast<const ifreq *>(argument)->ifr_name, kChannelDevice, IFNAMSIZ) == 0;
}

int answer(tables &all, unsigned long request, void *argument)
{
    if (argument == nullptr)
        return EFAULT;
    if (request != kPrivateChannel)
        return take_interface_request(all, request, record(argument));
    void *command = static_cast<const ifreq *>(argument)->ifr_data;
    return command != nullptr ? take_command(all, record(command)) : EFAULT;
}

} // namespace qv::vrkernel
