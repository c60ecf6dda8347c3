// SPDX-License-Identifier: Apache-2.0
// Requests to the appliance kernel about virtual routers, virtual systems and interfaces.
#include "vrctl.h"

#include "base/unique_fd.h"
#include "ifname.h"
#include "net/vr_abi.h"
#include "net/vr_record.h"
#include "strutil.h"
#include "vrsock.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using namespace qv;
using namespace vr_abi;

namespace {

// A record that travels to the kernel, zero where nothing was put. The kernel may write all of it.
template <std::size_t Size>
class record : public record_view {
public:
    record() : record_view(storage_) {}
    record(const record &) = delete;
    record &operator=(const record &) = delete;

    void put_name(std::size_t offset, const char *name, std::size_t size) { strlcpy(text(offset), name, size); }

    // A name in a reply may lack its terminator.
    void get_name(std::size_t offset, char (&name)[kNameSize]) const
    {
        std::memset(name, 0, sizeof name);
        std::memcpy(name, text(offset), ::strnlen(text(offset), kNameSize - 1));
    }

private:
    alignas(8) unsigned char storage_[Size]{};
};

// The names returned last.
char vr_name[kNameSize];
char vsys_name[kNameSize];

// One ioctl on a separate socket. Closing it preserves the errno of a failed call.
int request(unsigned long number, void *argument)
{
    base::unique_fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
    return fd ? ::ioctl(fd.get(), number, argument) : -1;
}

struct command_record : record<kCommandSize> {
    explicit command_record(command code) { put<std::uint64_t>(kCode, code); }

    // Sends the command; the reply replaces the record.
    bool transact()
    {
        ifreq channel{};
        strlcpy(channel.ifr_name, kChannelDevice, sizeof channel.ifr_name);
        channel.ifr_data = text(0);
        return request(kPrivateChannel, &channel) >= 0;
    }
};
static_assert(sizeof(ifreq) == 40 && offsetof(ifreq, ifr_data) == 16);

// ---- flags of interfaces and VRs: they differ in the commands that read and write them ----

struct interface_flags {
    static bool read(unsigned short ifid, std::uint32_t *flags)
    {
        command_record r(kGetIf);
        r.put<std::uint32_t>(kIfId, ifid);
        if (!r.transact())
            return false;
        *flags = r.get<std::uint32_t>(kIfFlags);
        return true;
    }

    static int write(unsigned short ifid, std::uint32_t flags)
    {
        command_record r(kSetIfFlags);
        r.put<std::uint32_t>(kIfId, ifid);
        r.put(kIfFlags, flags);
        return r.transact() ? 0 : -1;
    }
};

bool read_vr(unsigned short vrid, command_record &r)
{
    r.put(kFirstId, vrid);
    return r.transact();
}

struct vr_flags {
    static bool read(unsigned short vrid, std::uint32_t *flags)
    {
        command_record r(kGetVr);
        if (!read_vr(vrid, r))
            return false;
        *flags = r.get<std::uint32_t>(kValue);
        return true;
    }

    static int write(unsigned short vrid, std::uint32_t flags)
    {
        command_record r(kSetVrFlags);
        r.put(kFirstId, vrid);
        r.put(kValue, flags);
        return r.transact() ? 0 : -1;
    }
};

template <typename Flags>
int is_shared(unsigned short id)
{
    std::uint32_t flags = 0;
    return Flags::read(id, &flags) ? static_cast<int>(flags & kShared) : 0;
}

template <typename Flags>
int change_shared(unsigned short id, bool shared)
{
    std::uint32_t flags = 0;
    if (!Flags::read(id, &flags))
        return -1;
    return Flags::write(id, shared ? flags | kShared : flags & ~kShared);
}

// Commands that send an interface id and a number.
int send_if_value(command code, unsigned short ifid, std::uint32_t value)
{
    command_record r(code);
    r.put(kFirstId, ifid);
    r.put(kValue, value);
    return r.transact() ? 0 : -1;
}

struct if_vr_record : record<kIfVrSize> {
    explicit if_vr_record(const char *linux_name) { put_name(kIfVrName, linux_name, kIfNameSize); }
};

} // namespace

extern "C" {

int qv_vrid_2_vsysid(unsigned short vrid)
{
    command_record r(kGetVr);
    return read_vr(vrid, r) ? r.get<std::uint16_t>(kSecondId) : -1;
}

char *qv_vrid_2_name(unsigned short vrid)
{
    command_record r(kGetVr);
    if (!read_vr(vrid, r))
        return nullptr;
    r.get_name(kVrName, vr_name);
    return vr_name;
}

unsigned short qv_vrname_2_id(unsigned short vsysid, const char *name)
{
    if (name == nullptr)
        return 0;
    command_record r(kVrNameToId);
    r.put(kSecondId, vsysid);
    r.put_name(kVrName, name, kNameSize);
    return r.transact() ? r.get<std::uint16_t>(kFirstId) : 0;
}

char *qv_vsysid_2_name(unsigned short vsysid)
{
    command_record r(kVsysIdToName);
    r.put(kFirstId, vsysid);
    if (!r.transact())
        return nullptr;
    r.get_name(kVsysName, vsys_name);
    return vsys_name;
}

int qv_vsysname_2_id(const char *name)
{
    if (name == nullptr)
        return -1;
    command_record r(kVsysNameToId);
    r.put_name(kVsysName, name, kNameSize);
    return r.transact() ? r.get<std::uint16_t>(kFirstId) : -1;
}

unsigned short qv_vsysid_2_default_vrid(unsigned short vsysid)
{
    if (vsysid == 0)
        return 1;
    command_record r(kDefaultVrOfVsys);
    r.put(kFirstId, vsysid);
    return r.transact() ? r.get<std::uint16_t>(kDefaultVr) : 0;
}

int qv_is_vr_shared(unsigned short vrid)
{
    return is_shared<vr_flags>(vrid);
}

int qv_set_vr_shared(unsigned short vrid)
{
    return change_shared<vr_flags>(vrid, true);
}

int qv_set_vr_unshared(unsigned short vrid)
{
    return change_shared<vr_flags>(vrid, false);
}

int qv_get_if_vsysid(unsigned short ifid, unsigned short *vsysid)
{
    command_record r(kGetIf);
    r.put<std::uint32_t>(kIfId, ifid);
    if (!r.transact())
        return -1;
    *vsysid = r.get<std::uint16_t>(kIfVsysId);
    return 0;
}

int qv_is_if_shared(unsigned short ifid)
{
    return is_shared<interface_flags>(ifid);
}

int qv_set_if_shared(unsigned short ifid)
{
    return change_shared<interface_flags>(ifid, true);
}

int qv_set_if_unshared(unsigned short ifid)
{
    return change_shared<interface_flags>(ifid, false);
}

int qv_set_cellular_if_mac(const unsigned char mac[6], unsigned short ifid, unsigned int value)
{
    command_record r(kSetCellularMac);
    r.put(kFirstId, ifid);
    r.put(kValue, value);
    std::memcpy(r.text(kMac), mac, kMacSize);
    return r.transact() ? 0 : -1;
}

int qv_set_wifi_if(unsigned short ifid, unsigned int value)
{
    return send_if_value(kSetWifi, ifid, value);
}

int qv_set_if_mtu_limit(unsigned short ifid)
{
    command_record r(kSetMtuLimit);
    r.put(kFirstId, ifid);
    return r.transact() ? 0 : -1;
}

int qv_change_cellular_dev(const void *, unsigned short ifid, unsigned int value)
{
    return send_if_value(kChangeCellularDev, ifid, value);
}

int qv_get_if_vr(const char *linux_name, unsigned int *vrid)
{
    if (linux_name == nullptr)
        return -1;
    // Not through request(): without a socket *vrid stays, a refused request sets it to QV_NO_VR.
    base::unique_fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
    if (!fd)
        return errno;
    if_vr_record r(linux_name);
    if (::ioctl(fd.get(), kGetIfVr, r.text(0)) != 0) {
        *vrid = QV_NO_VR;
        return errno;
    }
    *vrid = r.get<std::uint32_t>(kIfVrId);
    return 0;
}

int qv_set_if_vr(const char *linux_name, unsigned int vrid)
{
    if (linux_name == nullptr)
        return -1;
    if_vr_record r(linux_name);
    r.put<std::uint32_t>(kIfVrId, vrid);
    return request(kSetIfVr, r.text(0)) == 0 ? 0 : errno;
}

int qv_get_netif_vr(const char *ifp_name, unsigned int *vrid)
{
    char linux_name[32] = {};
    if (ifpname2unixname(ifp_name, linux_name, sizeof linux_name) < 0)
        return -1;
    return qv_get_if_vr(linux_name, vrid);
}

int qv_ifname_2_vsysid(const char *ifp_name)
{
    unsigned int vrid = 0;
    if (qv_get_netif_vr(ifp_name, &vrid) != 0)
        return -1;
    return qv_vrid_2_vsysid(static_cast<std::uint16_t>(vrid));
}

int qv_is_support_multi_vrouter(void)
{
    return 1;
}

int qv_is_support_vrf(void)
{
    return 0;
}
}
