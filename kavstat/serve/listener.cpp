#include "serve/listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

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

sockaddr_un unix_address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// Whether the server of a Unix socket is gone.
bool is_stale(const sockaddr_un& address)
{
    struct stat info
    {
    };
    if (lstat(address.sun_path, &info) != 0 || !S_ISSOCK(info.st_mode)) {
        return false;
    }
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool b_refused =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 && errno == ECONNREFUSED;
    close(probe);
    return b_refused;
}

// Locks a folder, so that servers which start at the same time create their sockets one after the other. Every user who
// can read the folder can hold its lock, so the server continues without the lock after a second.
class folder_lock
{
public:
    explicit folder_lock(const std::string& folder) : m_folder(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        for (int round = 0; round < 100 && flock(m_folder, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; ++round) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~folder_lock()
    {
        if (m_folder >= 0) {
            close(m_folder);
        }
    }
    folder_lock(const folder_lock&) = delete;
    folder_lock& operator=(const folder_lock&) = delete;

private:
    int m_folder;
};

ino_t inode_of(const char* path)
{
    struct stat info
    {
    };
    return lstat(path, &info) == 0 ? info.st_ino : 0;
}

bool start_listening_unix(int socket, ListenAddress& address)
{
    // A socket that is bound and does not listen yet looks like one of a server that is gone.
    const folder_lock lock(address.path.substr(0, address.path.rfind('/') + 1));
    const sockaddr_un wanted = unix_address(address.path);
    const auto* const bytes = reinterpret_cast<const sockaddr*>(&wanted);
    int error = bind(socket, bytes, sizeof wanted) != 0 ? errno : 0;
    if (error == EADDRINUSE && is_stale(wanted)) {
        unlink(wanted.sun_path);
        error = bind(socket, bytes, sizeof wanted) != 0 ? errno : 0;
    }
    if (error != 0) {
        errno = error;
        return false;
    }
    address.inode = inode_of(wanted.sun_path);
    // Before clients can connect.
    if (chmod(wanted.sun_path, address.mode) != 0 || listen(socket, SOMAXCONN) != 0) {
        error = errno;
        remove_unix_socket(address);
        errno = error;
        return false;
    }
    return true;
}

bool start_listening(int socket, ListenAddress& address)
{
    if (address.is_unix()) {
        return start_listening_unix(socket, address);
    }
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

// The address of a socket. Returns nothing for other families.
std::optional<ListenAddress> address_of(int socket)
{
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &size) != 0) {
        return std::nullopt;
    }
    ListenAddress address;
    char text[INET6_ADDRSTRLEN] = "";
    if (storage.ss_family == AF_UNIX) {
        const auto* const local = reinterpret_cast<const sockaddr_un*>(&storage);
        address.path = local->sun_path[0] != 0 ? local->sun_path : "@";
    } else if (storage.ss_family == AF_INET) {
        const auto* const v4 = reinterpret_cast<const sockaddr_in*>(&storage);
        address.host = inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
        address.port = ntohs(v4->sin_port);
    } else if (storage.ss_family == AF_INET6) {
        const auto* const v6 = reinterpret_cast<const sockaddr_in6*>(&storage);
        address.host = inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
        address.port = ntohs(v6->sin6_port);
    } else {
        return std::nullopt;
    }
    return address;
}

// The value of an environment variable as a number, or -1.
long number_in(const char* variable)
{
    const char* const text = std::getenv(variable);
    return text != nullptr && *text != 0 ? std::strtol(text, nullptr, 10) : -1;
}

} // namespace

bool ListenAddress::is_loopback() const
{
    return !is_unix() && (is_v6() ? host == "::1" : host.starts_with("127."));
}

std::string ListenAddress::text() const
{
    if (is_unix()) {
        return "unix:" + path;
    }
    return (is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::optional<ListenAddress> parse_listen_address(std::string_view text)
{
    constexpr std::string_view unix_prefix = "unix:";
    if (text.starts_with(unix_prefix)) {
        ListenAddress address;
        address.path = text.substr(unix_prefix.size());
        const bool b_sound = address.path.starts_with('/') && address.path.size() < sizeof sockaddr_un::sun_path &&
                             address.path.find('\0') == std::string::npos;
        return b_sound ? std::optional(address) : std::nullopt;
    }
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
    ListenAddress address;
    address.host = host;
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

bool find_systemd_socket(ListenAddress& address, std::string& reason)
{
    constexpr int first = 3;
    const long count = number_in("LISTEN_PID") == getpid() ? number_in("LISTEN_FDS") : 0;
    if (count <= 0) {
        return true;
    }
    unsetenv("LISTEN_PID");
    unsetenv("LISTEN_FDS");
    unsetenv("LISTEN_FDNAMES");
    int type = 0;
    int b_listens = 0;
    socklen_t size = sizeof(int);
    getsockopt(first, SOL_SOCKET, SO_TYPE, &type, &size);
    getsockopt(first, SOL_SOCKET, SO_ACCEPTCONN, &b_listens, &size);
    const std::optional<ListenAddress> found = address_of(first);
    if (count > 1 || !found || type != SOCK_STREAM || b_listens == 0) {
        reason =
            count > 1 ? "systemd has passed more than one socket" : "systemd has passed no listening stream socket";
        return false;
    }
    fcntl(first, F_SETFD, FD_CLOEXEC);
    fcntl(first, F_SETFL, fcntl(first, F_GETFL) | O_NONBLOCK);
    address = *found;
    address.inherited = first;
    return true;
}

int listen_on(ListenAddress& address)
{
    if (address.inherited >= 0) {
        return address.inherited;
    }
    const int family = address.is_unix() ? AF_UNIX : address.is_v6() ? AF_INET6 : AF_INET;
    const int socket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket >= 0 && !start_listening(socket, address)) {
        const int error = errno;
        close(socket);
        errno = error;
        return -1;
    }
    return socket;
}

void remove_unix_socket(const ListenAddress& address)
{
    if (address.inode != 0 && inode_of(address.path.c_str()) == address.inode) {
        unlink(address.path.c_str());
    }
}

} // namespace kavstat
