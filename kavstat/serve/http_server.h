// Serves statistics over HTTP at the paths of serve/routes.h. Each request looks for the engine again, so each answer
// is that of the engine which is running now.
//
// One thread serves all clients and waits for none of them. Memory and time of each client are bounded: requests are
// limited in size, answers are written in pieces as the client reads, and both have time limits.
#pragma once

#include "documents/metrics.h"
#include "health/rules.h"
#include "serve/clients.h"
#include "serve/listener.h"
#include "serve/web_config.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kavstat {

struct HttpOptions
{
    std::vector<std::string>
        allowed_hosts;     // on a loopback address, names that clients may use in addition to those of loopback
    MetricsChoice metrics; // the content of /metrics
    WebConfig web;         // TLS and users; without both when empty
    std::string history;   // the path of a recorded history; empty without one
    RuleSet rules;         // of the health that the page shows
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

    // Starts serving in a thread of its own. Returns false with a reason when it cannot listen on the address.
    bool start(const ListenAddress& address, const HttpLimits& limits, const HttpOptions& options, std::string& reason);
    // The address that the server listens on, with the actual port.
    const ListenAddress& address() const;
    int port() const { return address().port; }

private:
    class implementation;
    std::unique_ptr<implementation> m_impl;
};

} // namespace kavstat
