#include "support/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

http_client::http_client(int port, const char* from)
{
    sockaddr_in6 v6{};
    const bool b_v6 = inet_pton(AF_INET6, from, &v6.sin6_addr) == 1;
    v6.sin6_family = AF_INET6;
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    inet_pton(AF_INET, from, &v4.sin_addr);
    auto* const address = b_v6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
    const socklen_t size = b_v6 ? sizeof v6 : sizeof v4;

    m_socket = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int window = 4096;
    setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    const bool b_bound = bind(m_socket, address, size) == 0;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    v4.sin_port = v6.sin6_port = htons(static_cast<std::uint16_t>(port));
    if (!b_bound || connect(m_socket, address, size) != 0) {
        close(m_socket);
        throw std::runtime_error("nobody listens on port " + std::to_string(port));
    }
}

http_client::http_client(const std::string& path) : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(m_socket);
        throw std::runtime_error("nobody listens on " + path);
    }
}

http_client::~http_client()
{
    close(m_socket);
}

bool http_client::send(std::string_view bytes) const
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void http_client::end_sending() const
{
    shutdown(m_socket, SHUT_WR);
}

ssize_t http_client::receive(char* bytes, std::size_t size, int flags) const
{
    const ssize_t count = recv(m_socket, bytes, size, flags);
    m_b_reset = m_b_reset || (count < 0 && errno == ECONNRESET);
    return count;
}

bool http_client::take(std::size_t count) const
{
    std::string bytes(count, '\0');
    return receive(bytes.data(), count) > 0;
}

bool http_client::take_some(std::size_t count) const
{
    std::string bytes(count, '\0');
    errno = 0;
    return receive(bytes.data(), count, MSG_DONTWAIT) > 0 || errno == EAGAIN;
}

bool http_client::is_open() const
{
    char byte = 0;
    errno = 0;
    return receive(&byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0 || errno == EAGAIN;
}

std::string http_client::read_all() const
{
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::seconds(10);
    std::string text;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        pollfd ready{m_socket, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) {
            return text;
        }
        char bytes[65536];
        const ssize_t count = receive(bytes, sizeof bytes);
        if (count <= 0) {
            return text;
        }
        text.append(bytes, static_cast<std::size_t>(count));
    }
}

bool http_client::is_dropped_within(int milliseconds) const
{
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        pollfd ready{m_socket, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) {
            return false;
        }
        char bytes[4096];
        if (receive(bytes, sizeof bytes) <= 0) {
            return true;
        }
    }
}

http_answer parse_answer(const std::string& text)
{
    http_answer answer;
    const std::size_t end = text.find("\r\n\r\n");
    if (!text.starts_with("HTTP/1.1 ") || end == std::string::npos) {
        return answer;
    }
    answer.status = std::atoi(text.c_str() + 9);
    answer.head = text.substr(0, end + 2);
    std::string rest = text.substr(end + 4);
    if (answer.head.find("Transfer-Encoding: chunked\r\n") == std::string::npos) {
        answer.body = rest;
        answer.b_whole = true;
        return answer;
    }
    for (;;) {
        const std::size_t line = rest.find("\r\n");
        if (line == std::string::npos) {
            return answer;
        }
        const std::size_t size = std::strtoul(rest.c_str(), nullptr, 16);
        if (size == 0) {
            answer.b_whole = true;
            return answer;
        }
        if (rest.size() < line + 2 + size + 2) {
            return answer;
        }
        answer.body += rest.substr(line + 2, size);
        rest.erase(0, line + 2 + size + 2);
    }
}

http_answer get(int port, const std::string& path, const char* from)
{
    const http_client client(port, from);
    client.send("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    return parse_answer(client.read_all());
}
