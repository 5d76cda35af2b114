// The address that a server listens on, and the socket for it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kavstat {

struct ListenAddress
{
    std::string host; // a numeric address, "127.0.0.1" or "::1"
    int port = 0;     // 0 for any that is free

    bool is_v6() const { return host.find(':') != std::string::npos; }
    // Reached from this machine only: of 127.0.0.0/8, or ::1.
    bool is_loopback() const;
    // "127.0.0.1:9748" or "[::1]:9748".
    std::string text() const;
};

// The reverse of text(); nothing when it is not of that form.
std::optional<ListenAddress> parse_listen_address(std::string_view text);

// Listens, and puts the port into `address` when it was 0. Returns a non-blocking socket, or -1 with errno set.
int listen_on(ListenAddress& address);

} // namespace kavstat
