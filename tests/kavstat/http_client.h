// A client as bare as can be, so that tests can be as rude as any client may be.
#pragma once

#include <string>
#include <string_view>

class http_client
{
public:
    // Connects to a port of 127.0.0.1, with a small window for what it receives. Throws when nobody listens.
    explicit http_client(int port);
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

private:
    int m_socket;
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
http_answer get(int port, const std::string& path);
