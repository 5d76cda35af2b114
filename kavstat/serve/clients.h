// The clients of the HTTP server, and which of them is cut off when there are too many or when one takes too long.
#pragma once

#include "serve/answer_body.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <random>
#include <string>

struct MHD_Connection;
struct sockaddr;

namespace kavstat {

struct HttpLimits
{
    // Connections at a time. Above that, one is cut off: one that has not sent its request yet, or the one that has
    // read nothing for the longest time.
    std::size_t connections = 256;
    std::size_t connections_of_address = 128;        // of an IPv4 address, or of an IPv6 network of 64 bits
    std::chrono::milliseconds time_to_ask{500};      // before it, a client is cut off at random instead of by age
    std::chrono::milliseconds idle{3000};            // for the whole request, and then for a client that reads nothing
    std::chrono::milliseconds longest_answer{30000}; // from the beginning of the connection to the end of the answer
};

// Resets a connection, so that the client cannot mistake this for the regular end of an answer. Data that was not sent
// yet is dropped. The descriptor stays open; the library notices the end and closes it.
void reset_connection(int socket);

struct Client
{
    using steady_clock = std::chrono::steady_clock;

    Client(MHD_Connection* its_connection, int its_socket, const sockaddr* its_address, std::uint64_t its_number);

    // Resets the connection and gives up the answer.
    void cut_off();
    // Lets the library continue with a client that it has suspended.
    void resume();
    // Updates how much the client's system has acknowledged.
    void note_taken(steady_clock::time_point now);

    MHD_Connection* connection;
    int socket;
    std::uint64_t number; // of this server, and never used again
    bool b_unix;
    std::string address;
    steady_clock::time_point since = steady_clock::now();
    std::string target;   // of the request
    bool b_asked = false; // the request is complete
    bool b_cut_off = false;
    bool b_waiting = false;      // until its password is verified
    std::optional<bool> verdict; // whether the password is correct
    std::unique_ptr<AnswerBody> answer;
    std::size_t text_bytes = 0; // of the answer, when it is a text
    std::uint64_t made = 0;     // of the answer
    std::uint64_t taken = 0;    // of the answer, and when that last became more
    steady_clock::time_point taken_at = since;
};

class Clients
{
public:
    void set_limits(const HttpLimits& limits) { m_limits = limits; }

    Client& add(MHD_Connection* connection, int socket, const sockaddr* address)
    {
        return m_clients.emplace_back(connection, socket, address, m_next_number++);
    }
    void remove(const Client& gone);
    // A client that was cut off keeps its place until the library has noticed.
    bool is_full() const { return m_clients.size() >= m_limits.connections; }
    bool is_empty() const { return m_clients.empty(); }
    auto begin() { return m_clients.begin(); }
    auto end() { return m_clients.end(); }

    // Cuts off a client when all places are taken, or when the newest client's address has too many.
    void make_room();
    // Cuts off clients that exceed the time limits for a request or an answer.
    void sweep();
    // The size of all texts that are being sent.
    std::size_t text_bytes() const;

private:
    using steady_clock = std::chrono::steady_clock;

    void cut_off_one(const std::string* address);
    bool may_be_cut_off(const Client& one, const std::string* address) const;
    Client* find_silent(const std::string* address);
    Client* find_idle(const std::string* address);

    HttpLimits m_limits;
    std::list<Client> m_clients; // oldest first
    std::uint64_t m_next_number = 0;
    std::minstd_rand m_random{std::random_device()()};
};

} // namespace kavstat
