// The address that a server listens on, and the socket for it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace kavstat {

struct ListenAddress
{
    std::string host; // a numeric address, "127.0.0.1" or "::1"
    int port = 0;     // 0 for any free port
    std::string path; // of a Unix socket, instead of both
    mode_t mode = 0660;
    int inherited = -1; // a socket that listens already
    ino_t inode = 0;    // of a Unix socket that this process has created

    bool is_unix() const { return !path.empty(); }
    bool is_v6() const { return host.find(':') != std::string::npos; }
    // Whether only this machine reaches the address: 127.0.0.0/8 or ::1.
    bool is_loopback() const;
    // "127.0.0.1:9748", "[::1]:9748" or "unix:/run/kavstat.sock".
    std::string text() const;
};

// Parses the form of text(). Returns nothing for other texts.
std::optional<ListenAddress> parse_listen_address(std::string_view text);

// Finds the socket that systemd has opened for this process, by the variables LISTEN_PID and LISTEN_FDS. Returns false
// with a reason when it cannot be used. Without such a socket, the address is unchanged.
bool find_systemd_socket(ListenAddress& address, std::string& reason);

// Listens, and stores the port in `address` when it was 0. Replaces the Unix socket of a server that is gone. Returns a
// non-blocking socket, or -1 with errno set.
int listen_on(ListenAddress& address);

// Removes the Unix socket that listen_on() has created, unless another one has its name by now.
void remove_unix_socket(const ListenAddress& address);

} // namespace kavstat
