#include "serve/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

namespace kavstat {

namespace {

// An address of either family, as the socket calls take it.
struct socket_address
{
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;

    explicit socket_address(const ListenAddress& address)
    {
        const auto port = htons(static_cast<std::uint16_t>(address.port));
        storage.ss_family = address.is_v6() ? AF_INET6 : AF_INET;
        if (address.is_v6()) {
            auto* const v6 = reinterpret_cast<sockaddr_in6*>(&storage);
            v6->sin6_port = port;
            b_sound = inet_pton(AF_INET6, address.host.c_str(), &v6->sin6_addr) == 1;
            size = sizeof *v6;
        } else {
            auto* const v4 = reinterpret_cast<sockaddr_in*>(&storage);
            v4->sin_port = port;
            b_sound = inet_pton(AF_INET, address.host.c_str(), &v4->sin_addr) == 1;
            size = sizeof *v4;
        }
    }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    // In network order, at the same place in both families.
    int port() const { return ntohs(reinterpret_cast<const sockaddr_in*>(&storage)->sin_port); }

    bool b_sound = false;
};

bool start_listening(int socket, ListenAddress& address)
{
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address.is_v6()) {
        setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    socket_address wanted(address);
    if (bind(socket, wanted.get(), wanted.size) != 0 || listen(socket, SOMAXCONN) != 0 ||
        getsockname(socket, wanted.get(), &wanted.size) != 0) {
        return false;
    }
    address.port = wanted.port();
    return true;
}

} // namespace

bool ListenAddress::is_loopback() const
{
    return is_v6() ? host == "::1" : host.starts_with("127.");
}

std::string ListenAddress::text() const
{
    return (is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::optional<ListenAddress> parse_listen_address(std::string_view text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view port = text.substr(colon + 1);
    std::string_view host = text.substr(0, colon);
    const bool b_brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (b_brackets) {
        host = host.substr(1, host.size() - 2);
    }
    ListenAddress address{std::string(host), 0};
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
    const bool b_port = error == std::errc() && end == port.data() + port.size() && port.front() != '-' &&
                        address.port >= 0 && address.port <= 65535;
    if (!b_port || address.is_v6() != b_brackets || host.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    socket_address binary(address);
    if (!binary.b_sound) {
        return std::nullopt;
    }
    // The shortest form of an IPv6 address.
    char canonical[INET6_ADDRSTRLEN] = "";
    if (b_brackets) {
        address.host = inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&binary.storage)->sin6_addr, canonical,
                                 sizeof canonical);
    }
    return address;
}

int listen_on(ListenAddress& address)
{
    const int family = address.is_v6() ? AF_INET6 : AF_INET;
    const int socket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket >= 0 && !start_listening(socket, address)) {
        const int error = errno;
        close(socket);
        errno = error;
        return -1;
    }
    return socket;
}

} // namespace kavstat
