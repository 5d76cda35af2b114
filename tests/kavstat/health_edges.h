// Engines at the threshold of every health rule.
#pragma once

#include "health/report.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

// A healthy engine with one peer and one application at two moments, ten seconds apart. Each figure can be changed.
class two_moments
{
public:
    static constexpr std::time_t start = 1700000000;
    static constexpr std::time_t day = 86400;

    two_moments();

    void engine(RE_stat_global_id id, long long at_before, long long at_now)
    {
        before.engine[static_cast<std::size_t>(id)] = at_before;
        now.engine[static_cast<std::size_t>(id)] = at_now;
    }
    void engine(RE_stat_global_id id, long long value) { engine(id, value, value); }
    void peer(RE_stat_peer_id id, long long at_before, long long at_now)
    {
        before.peers[0].figures[static_cast<std::size_t>(id)] = at_before;
        now.peers[0].figures[static_cast<std::size_t>(id)] = at_now;
    }
    void peer(RE_stat_peer_id id, long long value) { peer(id, value, value); }
    // Sets the sums of the engine and of the peer, which are equal with one peer.
    void connections(RE_stat_conn_id id, long long at_before, long long at_now)
    {
        before.connections[static_cast<std::size_t>(id)] = before.peers[0].connections[static_cast<std::size_t>(id)] =
            at_before;
        now.connections[static_cast<std::size_t>(id)] = now.peers[0].connections[static_cast<std::size_t>(id)] = at_now;
    }
    void application(RE_stat_app_id id, std::uint32_t at_before, std::uint32_t at_now)
    {
        before.apps[0].app.m_id_array[id] = at_before;
        now.apps[0].app.m_id_array[id] = at_now;
    }
    void outdated() { before.peers[0].header.m_b_outdated = now.peers[0].header.m_b_outdated = 1; }
    void disconnected()
    {
        before.peers[0].header.m_b_update_from_active_conn = now.peers[0].header.m_b_update_from_active_conn = 0;
    }
    void nobody_connected()
    {
        before.active_connections = now.active_connections = 0;
        before.peers[0].active_connections = now.peers[0].active_connections = 0;
    }

    std::vector<kavstat::Finding> findings(const kavstat::RuleSet& rules = {}) const
    {
        return kavstat::findings(rules, {&before, &now, seconds, extras});
    }
    // Returns the names of the broken rules.
    std::vector<std::string> broken(const kavstat::RuleSet& rules = {}) const
    {
        std::vector<std::string> names;
        for (const kavstat::Finding& finding : findings(rules)) {
            names.emplace_back(finding.rule->name);
        }
        return names;
    }
    std::string text(bool b_all = false, const kavstat::RuleSet& rules = {}) const
    {
        kavstat::StringSink sink;
        kavstat::Output output(sink);
        kavstat::write_health_text(kavstat::health_report(rules, {&before, &now, seconds, extras}, "test"), b_all,
                                   output);
        output.flush();
        return sink.text();
    }

    kavstat::Snapshot before;
    kavstat::Snapshot now;
    double seconds = 10;
    kavstat::HealthExtras extras;
};

// Figures at the healthy side of a rule's threshold, and just beyond it.
struct edge
{
    const char* rule;
    std::function<void(two_moments&)> healthy;
    std::function<void(two_moments&)> ill;
};

// Contains at least one edge for each rule that depends on a snapshot.
const std::vector<edge>& edges();
