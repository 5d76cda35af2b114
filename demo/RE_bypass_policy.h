// Decides which servers' traffic bypasses an engine, because the engine has measured that it does not compress.
#pragma once

#include "RE_bytes.h"

#include <compare>
#include <ctime>
#include <map>

// Address and port in host order.
struct RE_server
{
    std::uint32_t ip;
    std::uint16_t port;
    auto operator<=>(const RE_server&) const = default;
};

struct RE_bypass_rule
{
    std::uint64_t sample_bytes = 1U << 20U; // a server is judged each time this much of its traffic has been encoded
    unsigned int least_reduction = 5;       // percent of the sample that must be saved
    std::time_t retry_after = 60;           // seconds until a server's traffic is tried again
};

// A server whose traffic bypasses the engine.
struct RE_bypassed_server
{
    std::time_t since;
    std::time_t next_attempt;
    std::uint64_t bytes = 0;
    std::uint64_t connections = 0;
};

class RE_bypass_policy
{
public:
    explicit RE_bypass_policy(const RE_bypass_rule& rule) : m_rule(rule) {}

    // Sets how much of a server's traffic is enough to judge it.
    void set_sample_bytes(std::uint64_t bytes) { m_rule.sample_bytes = bytes; }

    // Returns null when the server is not bypassed.
    const RE_bypassed_server* find(const RE_server& server) const;

    // Takes the measurement of one encoded message. Returns true when the server is bypassed from now on.
    bool measure(const RE_server& server, std::uint64_t in_bytes, std::uint64_t out_bytes, std::time_t now);
    // Counts a message, or the first message of a connection, to a bypassed server.
    void count_message(const RE_server& server, std::uint64_t bytes);
    void count_connection(const RE_server& server);
    // Forgets a server that is to be tried again, and returns it in `server`. Returns false when there is none.
    bool take_due(std::time_t now, RE_server& server);

private:
    struct measurement
    {
        std::uint64_t in_bytes = 0;
        std::uint64_t out_bytes = 0;
    };

    RE_bypass_rule m_rule;
    std::map<RE_server, measurement> m_measured;
    std::map<RE_server, RE_bypassed_server> m_bypassed;
};
