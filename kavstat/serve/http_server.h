// Serves statistics over HTTP at the paths of serve/routes.h. Each request looks for the engine anew, so an
// engine that stops, starts or restarts is followed from one request to the next.
//
// One thread serves all clients; none of them can make it wait. Each has a bounded share of memory and of time:
// requests are limited in size, answers are written piece by piece as they are taken, and both have to come to an end
// in time.
#pragma once

#include "documents/metrics.h"
#include "serve/listener.h"
#include "serve/web_config.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kavstat {

struct HttpLimits
{
    // Connections at a time. When there are more, one is cut off: one that has not sent its request yet, or the one
    // that has taken nothing for longest.
    std::size_t connections = 256;
    std::size_t connections_of_address = 128;        // of an IPv4 address, or of an IPv6 network of 64 bits
    std::chrono::milliseconds time_to_ask{500};      // before it, a client is cut off at random instead of by age
    std::chrono::milliseconds idle{3000};            // for the whole request, and then for a client that takes nothing
    std::chrono::milliseconds longest_answer{30000}; // from the beginning of the connection to the end of the answer
};

struct HttpOptions
{
    std::vector<std::string>
        allowed_hosts;     // clients of a loopback address may use these names beside those of loopback
    MetricsChoice metrics; // what /metrics gives
    WebConfig web;         // TLS and users; neither when empty
    std::string history;   // the path of a recorded history; empty without one
    // Is called with messages for the administrator, in the server's thread.
    std::function<void(const std::string&)> report = [](const std::string&) {};
};

class HttpServer
{
public:
    HttpServer();
    // Ends what is being served and stops listening.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Starts serving in a thread of its own; false with a reason when the address cannot be listened on.
    bool start(const ListenAddress& address, const HttpLimits& limits, const HttpOptions& options, std::string& reason);
    // What the server listens on, with the port that was found.
    const ListenAddress& address() const;
    int port() const { return address().port; }

private:
    class implementation;
    std::unique_ptr<implementation> m_impl;
};

} // namespace kavstat
