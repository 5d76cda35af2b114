#include "RE_bypass_policy.h"

namespace {

// The number of servers that the auto-bypass table can hold.
constexpr std::size_t most_bypassed_servers = 1024;

} // namespace

const RE_bypassed_server* RE_bypass_policy::find(const RE_server& server) const
{
    const auto found = m_bypassed.find(server);
    return found == m_bypassed.end() ? nullptr : &found->second;
}

bool RE_bypass_policy::measure(const RE_server& server, std::uint64_t in_bytes, std::uint64_t out_bytes,
                               std::time_t now)
{
    measurement& sample = m_measured[server];
    sample.in_bytes += in_bytes;
    sample.out_bytes += out_bytes;
    if (sample.in_bytes < m_rule.sample_bytes) {
        return false;
    }
    const bool b_poor = m_bypassed.size() < most_bypassed_servers &&
                        sample.out_bytes * 100 > sample.in_bytes * (100 - m_rule.least_reduction);
    sample = {};
    if (b_poor) {
        m_bypassed[server] = {now, now + m_rule.retry_after};
    }
    return b_poor;
}

void RE_bypass_policy::count_message(const RE_server& server, std::uint64_t bytes)
{
    m_bypassed.at(server).bytes += bytes;
}

void RE_bypass_policy::count_connection(const RE_server& server)
{
    ++m_bypassed.at(server).connections;
}

bool RE_bypass_policy::take_due(std::time_t now, RE_server& server)
{
    for (const auto& [candidate, entry] : m_bypassed) {
        if (entry.next_attempt <= now) {
            server = candidate;
            m_bypassed.erase(server);
            return true;
        }
    }
    return false;
}
