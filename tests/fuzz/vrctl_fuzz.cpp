// SPDX-License-Identifier: Apache-2.0
// Replies of any content to the requests about virtual routers: the fuzzer's ioctl() writes them over the record, with
// any result. Every call returns what its header documents, reads only the record, and closes its socket.
#include "vrctl.h"
#include "vrsock.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr std::size_t kCommandSize = 280;
constexpr std::size_t kInterfaceRequestSize = 56;
constexpr unsigned kCalls = 24;

// The rest of the input: each request consumes a header, then the available bytes of its reply.
struct {
    const std::uint8_t *data;
    std::size_t size;
    int open_sockets;
    int last_error;
} kernel;

std::uint8_t next_byte()
{
    if (kernel.size == 0)
        return 0;
    kernel.size--;
    return *kernel.data++;
}

void require(bool held)
{
    if (!held)
        std::abort();
}

void require_name(const char *name)
{
    if (name != nullptr)
        require(std::strlen(name) < 32);
}

// Failures of the private channel: -1, with the request's errno.
void require_status(int result)
{
    require(result == 0 || (result == -1 && errno == kernel.last_error));
}

void require_interface_status(int result)
{
    require(result == 0 || result == kernel.last_error);
}

} // namespace

extern "C" int socket(int, int, int) noexcept
{
    if (next_byte() == 255) {
        errno = kernel.last_error = EMFILE;
        return -1;
    }
    kernel.open_sockets++;
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC));
}

extern "C" int close(int fd)
{
    kernel.open_sockets--;
    ::syscall(SYS_close, fd);
    errno = EBADF; // must not reach the caller
    return 0;
}

extern "C" int ioctl(int, unsigned long number, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, number);
    void *record = va_arg(arguments, void *);
    va_end(arguments);
    std::size_t size = kInterfaceRequestSize;
    if (number == 0x89F0) {
        ifreq channel;
        std::memcpy(&channel, record, sizeof channel);
        require(std::strcmp(channel.ifr_name, "pow0") == 0);
        record = channel.ifr_data;
        size = kCommandSize;
    }
    auto result = static_cast<std::int8_t>(next_byte());
    std::size_t from = next_byte();
    for (std::size_t i = from; i < size && kernel.size != 0; i++)
        static_cast<unsigned char *>(record)[i] = next_byte();
    errno = kernel.last_error = 1 + next_byte() % 133;
    return result;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 4)
        return 0;
    kernel = {data, size, 0, 0};
    unsigned call = next_byte() % kCalls;
    auto id = static_cast<std::uint16_t>(next_byte() | next_byte() << 8);
    unsigned vr = 12345;
    unsigned short vsys = 1234;
    const unsigned char mac[6] = {};
    int result = 0;
    switch (call) {
    case 0:
        result = qv_vrid_2_vsysid(id);
        require(result >= -1 && result <= 65535 && (result >= 0 || errno == kernel.last_error));
        break;
    case 1:
        require_name(qv_vrid_2_name(id));
        break;
    case 2:
        qv_vrname_2_id(id, "a name of more than thirty-one characters");
        break;
    case 3:
        require_name(qv_vsysid_2_name(id));
        break;
    case 4:
        result = qv_vsysname_2_id("name");
        require(result >= -1 && result <= 65535);
        break;
    case 5:
        require(qv_vsysid_2_default_vrid(id) == 1 || id != 0);
        break;
    case 6:
        result = qv_is_vr_shared(id);
        require(result == 0 || result == 2);
        break;
    case 7:
        require_status(qv_set_vr_shared(id));
        break;
    case 8:
        require_status(qv_set_vr_unshared(id));
        break;
    case 9:
        result = qv_get_if_vsysid(id, &vsys);
        require_status(result);
        require(result == 0 || vsys == 1234);
        break;
    case 10:
        result = qv_is_if_shared(id);
        require(result == 0 || result == 2);
        break;
    case 11:
        require_status(qv_set_if_shared(id));
        break;
    case 12:
        require_status(qv_set_if_unshared(id));
        break;
    case 13:
        require_status(qv_set_cellular_if_mac(mac, id, 5));
        break;
    case 14:
        require_status(qv_set_wifi_if(id, 5));
        break;
    case 15:
        require_status(qv_set_if_mtu_limit(id));
        break;
    case 16:
        require_status(qv_change_cellular_dev(nullptr, id, 5));
        break;
    case 17:
        result = qv_get_if_vr("eth0-1", &vr);
        require_interface_status(result);
        // Without a socket the output is unchanged; a refused request sets the mark.
        require(result == 0 || vr == QV_NO_VR || (vr == 12345 && result == EMFILE));
        break;
    case 18:
        require_interface_status(qv_set_if_vr("a name of more than 15", id));
        break;
    case 19:
        require_interface_status(qv_get_netif_vr("ethernet0/1", &vr));
        break;
    case 20:
        result = qv_ifname_2_vsysid("ethernet0/1");
        require(result >= -1 && result <= 65535);
        break;
    default: // the two static names do not overlap
        const char *vr_name = qv_vrid_2_name(id);
        char before[32] = {};
        if (vr_name != nullptr)
            std::strcpy(before, vr_name);
        const char *vsys_name = qv_vsysid_2_name(id);
        require_name(vsys_name);
        require(vr_name == nullptr || std::strcmp(before, vr_name) == 0);
        break;
    }
    require(kernel.open_sockets == 0);
    return 0;
}
