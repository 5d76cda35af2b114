// Serves statistics over HTTP: /metrics, /api/v1/statistics, /healthz. Each request reads the engine's statistics anew,
// with a reader of its own, so an engine that stops, starts or restarts is followed from one request to the next.
//
// Nothing that a client does takes more than a bounded share: requests are limited in size, a fixed number of threads
// serves a bounded queue, and both a request and its answer have to come to an end in time.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct RE_listen_address
{
    std::string host; // a numeric address, "127.0.0.1" or "::1"
    int port = 0;     // 0 for any that is free
};
// "127.0.0.1:9748" or "[::1]:9748"; nothing when it is not of that form.
std::optional<RE_listen_address> parse_listen_address(std::string_view text);

struct RE_http_limits
{
    int threads = 16;                                // requests served at a time
    int queue = 32;                                  // connections that wait for a thread
    std::chrono::milliseconds idle{3000};            // a client that neither sends nor takes anything is dropped
    std::chrono::milliseconds longest_answer{30000}; // an answer that takes longer is cut off
};

class RE_http_server
{
public:
    RE_http_server();
    // Ends what is being served and stops listening.
    ~RE_http_server();
    RE_http_server(const RE_http_server&) = delete;
    RE_http_server& operator=(const RE_http_server&) = delete;

    // Starts serving in threads of its own; false with a reason when the address cannot be listened on.
    bool start(const RE_listen_address& address, const RE_http_limits& limits, std::string& reason);
    // The port that is listened on.
    int port() const;

private:
    struct implementation;
    std::unique_ptr<implementation> m_impl;
};
