// A minimal HTTP client, with which tests can also break the protocol.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

class http_client
{
public:
    // Connects to a port of the loopback address, with a small receive buffer. from: the client's own address, in
    // 127.0.0.0/8 or ::1. Throws when no server listens.
    explicit http_client(int port, const char* from = "127.0.0.1");
    // Connects to a Unix socket.
    explicit http_client(const std::string& path);
    ~http_client();
    http_client(const http_client&) = delete;
    http_client& operator=(const http_client&) = delete;

    // Returns false when the other side has closed the connection.
    bool send(std::string_view bytes) const;
    // Shuts down the sending direction.
    void end_sending() const;
    // Returns everything up to the end of the connection, or what arrives within ten seconds.
    std::string read_all() const;
    // Whether the other side ends the connection within this time. Received bytes are discarded.
    bool is_dropped_within(int milliseconds) const;
    // Waits for bytes and discards up to `count` of them. Returns false when the other side has ended the connection.
    bool take(std::size_t count) const;
    // Like take(), but does not wait.
    bool take_some(std::size_t count) const;
    // Returns false when the other side has ended the connection and everything that it sent was read.
    bool is_open() const;
    // Whether a read has shown that the other side reset the connection.
    bool is_reset() const { return m_b_reset; }

private:
    // Calls recv and records a reset.
    ssize_t receive(char* bytes, std::size_t size, int flags = 0) const;

    int m_socket;
    mutable bool m_b_reset = false;
};

struct http_answer
{
    int status = 0;
    std::string head;
    std::string body; // without chunk headers
    bool b_whole = false;
};
http_answer parse_answer(const std::string& text);

// Sends one GET request and returns the answer.
http_answer get(int port, const std::string& path, const char* from = "127.0.0.1");
