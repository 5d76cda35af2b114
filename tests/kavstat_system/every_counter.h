// An engine whose every counter has a value of its own, in numbers that any form of them keeps exactly; and an engine
// made after a JSON document of it.
#pragma once

#include "RE_stat_writer.h"

#include <nlohmann/json.hpp>

class every_counter
{
public:
    // Publishes under the name in KAV_STAT_SEGMENT.
    every_counter();

    RE_stat_writer& writer() { return m_writer; }
    void restart();

    // The values, by hand: what the engine counts, and its peers, connections and applications.
    static long long engine_value(int id);
    static long long peer_value(int peer, int id);
    static long long conn_value(int conn, int id);
    static std::uint32_t app_value(int app, int id);

    static constexpr int peers = 3;
    static constexpr int conns = 7; // connection n is of peer n modulo 3
    static constexpr int apps = 4;

private:
    void publish();

    RE_stat_writer m_writer;
};

// Publishes what the document says through `writer`, which has been created.
void publish_document(const nlohmann::json& document, RE_stat_writer& writer);
