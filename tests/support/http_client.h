// A client as bare as can be, so that tests can be as rude as any client may be.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

class http_client
{
public:
    // Connects to a port of the loopback address, with a small window for what it receives. from: the client's own
    // address, of 127.0.0.0/8 or ::1. Throws when nobody listens.
    explicit http_client(int port, const char* from = "127.0.0.1");
    ~http_client();
    http_client(const http_client&) = delete;
    http_client& operator=(const http_client&) = delete;

    // False when the other side has gone.
    bool send(std::string_view bytes) const;
    // No more will be sent.
    void end_sending() const;
    // Everything up to the end of the connection, or what came within ten seconds.
    std::string read_all() const;
    // Whether the other side ends the connection within so many milliseconds; what it sends is dropped.
    bool is_dropped_within(int milliseconds) const;
    // Waits for bytes and takes `count` of them, or fewer. False when the other side has ended the connection.
    bool take(std::size_t count) const;
    // The same without waiting.
    bool take_some(std::size_t count) const;
    // False when the other side has ended the connection and all that it sent was read.
    bool is_open() const;
    // Whether the other side has ended the connection by a reset, as far as has been read.
    bool is_reset() const { return m_b_reset; }

private:
    // recv, which notices a reset.
    ssize_t receive(char* bytes, std::size_t size, int flags = 0) const;

    int m_socket;
    mutable bool m_b_reset = false;
};

struct http_answer
{
    int status = 0;
    std::string head;
    std::string body; // put together again when it came in pieces
    bool b_whole = false;
};
http_answer parse_answer(const std::string& text);

// One GET and its answer.
http_answer get(int port, const std::string& path, const char* from = "127.0.0.1");
