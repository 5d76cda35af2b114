// Maintains the engine's statistics: turns the reports of encoders, decoders and connections into counters.
#pragma once

#include "RE_concurrency.h"
#include "RE_decoder.h"
#include "RE_encoder.h"
#include "RE_illness.h"
#include "RE_ledger.h"
#include "RE_peer.h"
#include "RE_stat_writer.h"

#include <limits>
#include <map>
#include <memory>
#include <tuple>

// Adds up times that are measured in nanoseconds and counted in microseconds, without losing any time by rounding.
class RE_microseconds
{
public:
    // Returns by how many whole microseconds the sum grows.
    long long add_ns(std::int64_t nanoseconds);

private:
    std::int64_t m_total_ns = 0;
};

struct RE_published_app;

// A connection as the publisher stores it.
struct RE_published_conn
{
    int slot = -1;
    int conn_id = 0;
    int peer_number = 0;
    SO_stat_conn_header so_header{};
    RE_published_app* app = nullptr;
    RE_microseconds encode, encode_lz, encode_zlib;
    RE_microseconds decode, decode_disk, decode_lz, decode_zlib;
};

class RE_publisher
{
public:
    // Creates the segment and publishes it. Throws std::runtime_error on failure.
    RE_publisher(const RE_stat_limits& limits, unsigned int segment_mode, const RE_stat_config_param& config);
    ~RE_publisher();

    // Adds all peers, in the order of their numbers. Called once. Throws when there is no room.
    void add_peers(const std::vector<std::unique_ptr<RE_peer>>& peers);

    // A connection is not published when there is no room for it. This is logged once.
    void open_conn(RE_published_conn& conn, const RE_peer& peer, const RE_application& application,
                   const RE_stat_conn_header& ends, bool b_bypassed);
    // local_bytes, remote_bytes: what the applications here and at the peer sent over the connection.
    void close_conn(RE_published_conn& conn, long long local_bytes, long long remote_bytes);
    // The connection stops because the ack queue is full for it, or because its peer does not accept data.
    void on_ack_queue_stop(const RE_published_conn& conn);
    void on_wire_stop(const RE_published_conn& conn, std::size_t waiting_bytes);
    // The connection continues after such a stop.
    void on_ack_queue_start(const RE_published_conn& conn, std::int64_t stopped_ns);
    void on_wire_start(const RE_published_conn& conn, std::int64_t stopped_ns);
    // From now on the connection's traffic bypasses the engine.
    void go_around(RE_published_conn& conn);

    // A message was read from, or written to, the application.
    void on_lan_read(const RE_published_conn& conn, std::size_t size);
    void on_lan_written(const RE_published_conn& conn, std::size_t size);
    // A frame, or an answer, was written to, or read from, the wire.
    void on_frame_written(const RE_published_conn& conn, std::size_t size);
    void on_frame_read(const RE_published_conn& conn, std::size_t size);
    void on_answer_written(const RE_published_conn& conn, const RE_answer& answer, std::size_t size);
    void on_answer_read(const RE_published_conn& conn, const RE_answer& answer, std::size_t size);
    // A message was encoded for the first time.
    void on_encoded(RE_published_conn& conn, const RE_encode_result& result);
    // A frame was decoded, or could not be decoded.
    void on_decoded(RE_published_conn& conn, const RE_decode_result& result, bool b_decoded);

    void set_bypass(const RE_server& server, const RE_bypassed_server& entry);
    void clear_bypass(const RE_server& server);

    // Publishes again if the segment has been removed. A failure is logged, and the next call tries again.
    void stay_in_place();
    // Updates all values that are states and not counts. waiting_conns: connections with unacknowledged data.
    void refresh(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills, int waiting_conns);
    // Sets the figures of illnesses that no part of the engine can have. Called after refresh() if illnesses are
    // planned.
    void stage(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills);
    // Appends the growth of the applications' counters since the last call. Throws std::system_error.
    void append_app_log(const std::string& path);

private:
    // The sums for a peer's throughput and bypass ratio.
    struct peer_work
    {
        RE_recent_average<256> bypassed_percent; // of the encoded messages
        long long decoded_bytes = 0;             // by redundancy elimination
        std::int64_t decoding_ns = 0;
        long long passed_bytes = 0; // without redundancy elimination
        std::int64_t passing_ns = 0;
    };

    void add(const RE_published_conn& conn, RE_stat_conn_id id, long long delta);
    void add_app(const RE_published_conn& conn, RE_stat_app_id id, std::uint64_t amount);
    void count_open(int peer_slot, std::time_t now, int delta);
    void log_nack(const RE_published_conn& conn, const RE_answer& answer, RE_stat_nack_type type);
    void refresh_peer(int slot, const RE_peer& peer);
    void refresh_global(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills);
    void refresh_reserve();
    void stage_bypass(std::uint32_t servers, RE_bypass_reason reason, std::uint16_t first_port);

    RE_stat_writer m_writer;
    bool m_b_room_missed = false;
    std::vector<RE_concurrency> m_concurrency; // by peer slot
    std::vector<peer_work> m_peer_work;        // by peer slot
    long long m_stopped_conns = 0;             // by the ack queue
    long long m_lowest_reserve = std::numeric_limits<long long>::max();
    RE_illness_set m_staged;
    bool m_b_no_room_for_apps = false;
    std::map<std::tuple<std::uint16_t, std::uint16_t, int>, std::unique_ptr<RE_published_app>> m_apps;
};
