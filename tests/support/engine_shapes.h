// Engines with known figures in named shapes. small_engine.h has another one, with every line of its reports known.
#pragma once

#include "RE_stat_writer.h"

#include <string>
#include <vector>

// Set every counter of the engine, of a peer, of a connection or of an application to a value made from its id.
template <typename Value>
void set_engine_figures(RE_stat_writer& writer, const Value& value_of)
{
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        writer.set_global(RE_stat_global_id{id}, value_of(id));
    }
}
template <typename Value>
void set_peer_figures(RE_stat_writer& writer, int slot, const Value& value_of)
{
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        writer.set_peer_stat(slot, RE_stat_peer_id{id}, value_of(id));
    }
}
template <typename Value>
void add_conn_figures(RE_stat_writer& writer, int slot, const Value& value_of)
{
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        writer.add_conn_stat(slot, RE_stat_conn_id{id}, value_of(id));
    }
}
template <typename Value>
void add_app_figures(RE_stat_writer& writer, int slot, const Value& value_of)
{
    for (int id = 0; id < RE_STAT_APP_ID_MAX; ++id) {
        writer.add_app_stat(slot, RE_stat_app_id{id}, static_cast<std::uint32_t>(value_of(id)));
    }
}

// The sample engine starts at this moment. Everything else that it reports happens within the hour before `sample_now`.
constexpr std::time_t sample_start = 1700000000;
constexpr std::time_t sample_now = sample_start + 3600;

// The number of things of each kind.
struct engine_shape
{
    int peers = 2;
    int conns = 4;
    int apps = 3;
    int nacks = 3;
    int bypassed = 2;
    bool b_first_release = false; // counters that came after release 0.1.0 are 0
};
constexpr engine_shape empty_shape = {0, 0, 0, 0, 0};
constexpr engine_shape large_shape = {20, 200, 50, 100, 20};

// Creates a segment under the name in KAV_STAT_SEGMENT, fills it and publishes it. Returns the result of create().
int publish_sample(RE_stat_writer& writer, const engine_shape& shape);

// Creates, fills and publishes an engine for measurements, whose counters are all 0. Peers, connections and
// applications have the slots from 0 on, and connection or application n belongs to peer n modulo `peers`. Ends the
// program with a message when the segment cannot be created.
void publish_zeros(RE_stat_writer& writer, int peers, int conns, int apps, std::time_t start);

// Return the statistics of the same engine as bytes, as a saved file and as a live segment.
std::vector<unsigned char> saved_sample(const engine_shape& shape);
std::vector<unsigned char> live_sample(const engine_shape& shape);

// Gives KAV_STAT_SEGMENT a name that no other process uses, and returns it.
std::string use_own_segment();

// An engine in which every counter has a different value. Every unit can express the values exactly.
class every_counter
{
public:
    // Publishes under the name in KAV_STAT_SEGMENT. Throws when that fails.
    every_counter() { publish(sample_start); }

    RE_stat_writer& writer() { return m_writer; }
    void restart();

    // Return the expected values of the engine's, peers', connections' and applications' counters.
    static long long engine_value(int id);
    static long long peer_value(int peer, int id);
    static long long conn_value(int conn, int id);
    static std::uint32_t app_value(int app, int id);

    static constexpr int peers = 3;
    static constexpr int conns = 7; // connection n belongs to peer n modulo 3
    static constexpr int apps = 4;

private:
    void publish(std::time_t start);

    RE_stat_writer m_writer;
};
