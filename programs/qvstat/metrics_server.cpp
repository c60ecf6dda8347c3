// SPDX-License-Identifier: Apache-2.0
#include "metrics_server.h"

#include "base/unique_fd.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>

using namespace qv;

namespace qvstat {
namespace {

constexpr const char *kDefaultHost = "127.0.0.1";
constexpr const char *kPath = "/metrics";
constexpr std::size_t kMaxRequest = 8192;
constexpr int kBacklog = 16;
// For a whole request, and then for a whole answer: clients are served one after another, so this limits how long one
// that stalls delays the others.
constexpr std::chrono::seconds kPatience{3};

struct host_and_port {
    std::string host = kDefaultHost;
    std::string port;
};

host_and_port split(const std::string &address)
{
    host_and_port result;
    std::size_t colon = address.rfind(':');
    if (colon == std::string::npos) {
        result.port = address;
        return result;
    }
    result.port = address.substr(colon + 1);
    std::string host = address.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (!host.empty())
        result.host = host;
    return result;
}

base::unique_fd open_listener(const host_and_port &where, std::string *error)
{
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (int status = ::getaddrinfo(where.host.c_str(), where.port.c_str(), &hints, &found); status != 0) {
        *error = ::gai_strerror(status);
        return {};
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
    base::unique_fd listener(::socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol));
    int yes = 1;
    if (listener && ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
        ::bind(listener.get(), found->ai_addr, found->ai_addrlen) == 0 && ::listen(listener.get(), kBacklog) == 0)
        return listener;
    *error = std::strerror(errno);
    return {};
}

std::string url_of(int listener, const host_and_port &where)
{
    sockaddr_storage bound = {};
    socklen_t size = sizeof bound;
    char port[NI_MAXSERV] = "";
    if (::getsockname(listener, reinterpret_cast<sockaddr *>(&bound), &size) == 0)
        ::getnameinfo(reinterpret_cast<sockaddr *>(&bound), size, nullptr, 0, port, sizeof port, NI_NUMERICSERV);
    bool is_v6 = where.host.find(':') != std::string::npos;
    return "http://" + (is_v6 ? '[' + where.host + ']' : where.host) + ':' + port + kPath;
}

// Waits until the socket is ready for `events`; false at the end of the patience.
bool wait_for(int fd, short events, std::chrono::steady_clock::time_point end)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    pollfd waited = {fd, events, 0};
    return left > 0 && ::poll(&waited, 1, static_cast<int>(left)) == 1;
}

// The head of a request; empty when none came.
std::string read_request(int fd)
{
    auto end = std::chrono::steady_clock::now() + kPatience;
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) {
        char part[1024];
        ssize_t size = wait_for(fd, POLLIN, end) ? ::recv(fd, part, sizeof part, MSG_DONTWAIT) : 0;
        if (size <= 0 || request.size() > kMaxRequest)
            return {};
        request.append(part, static_cast<std::size_t>(size));
    }
    return request;
}

void send_all(int fd, std::string_view text)
{
    auto end = std::chrono::steady_clock::now() + kPatience;
    while (!text.empty() && wait_for(fd, POLLOUT, end)) {
        ssize_t size = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (size <= 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(size));
    }
}

std::string answer(const char *status, const char *type, const std::string &body)
{
    return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

std::string answer_to(const std::string &request, const std::function<std::string()> &metrics)
{
    constexpr const char *kText = "text/plain; charset=utf-8";
    constexpr const char *kMetrics = "application/openmetrics-text; version=1.0.0; charset=utf-8";
    if (!request.starts_with("GET "))
        return answer("405 Method Not Allowed", kText, "only GET\n");
    std::string_view target = std::string_view(request).substr(4);
    target = target.substr(0, target.find_first_of(" ?\r"));
    if (target != kPath)
        return answer("404 Not Found", kText, "see /metrics\n");
    return answer("200 OK", kMetrics, metrics());
}

} // namespace

std::string serve_metrics(const std::string &address, const std::function<void(const std::string &)> &is_ready,
                          const std::function<std::string()> &metrics)
{
    std::string error;
    host_and_port where = split(address);
    base::unique_fd listener = open_listener(where, &error);
    if (!listener)
        return address + ": " + error;
    is_ready(url_of(listener.get(), where));
    for (;;) {
        base::unique_fd client(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            return address + ": " + std::strerror(errno);
        }
        std::string request = read_request(client.get());
        if (!request.empty())
            send_all(client.get(), answer_to(request, metrics));
    }
}

} // namespace qvstat
