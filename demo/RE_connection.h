// One connection: transfers a file's messages in one direction between this engine and a peer, verifies that they
// arrive as they were sent, and reports everything to the statistics and to the ledger.
#pragma once

#include "RE_ledger.h"
#include "RE_publisher.h"
#include "RE_traffic.h"

#include <deque>

// The objects that all connections use. Not owned.
struct RE_connection_surroundings
{
    RE_publisher& publisher;
    RE_ledger& ledger;
    RE_bypass_policy& own_bypass_policy; // for servers whose traffic this engine encodes
    const RE_health& health;
};

// The result of a step. A connection that neither sent anything nor is complete waits for its peer.
struct RE_step
{
    std::size_t sent_bytes = 0;
    bool b_through = false;
};

class RE_connection
{
public:
    RE_connection(const RE_connection_surroundings& surroundings, RE_peer& peer, RE_direction direction,
                  RE_message_source source, int conn_id);
    RE_connection(const RE_connection&) = delete;
    RE_connection& operator=(const RE_connection&) = delete;

    // Sends the next message. At the end of the file, waits until all messages are acknowledged. Throws when a message
    // does not arrive as it was sent.
    RE_step step();
    // Takes the answers that have arrived.
    void receive();
    void close();

    bool is_encoding() const { return m_direction == RE_direction::encode; }
    bool is_stopped() const { return m_stop != stop_cause::none; }
    bool has_pending() const { return !m_pending.empty(); }
    const RE_peer& peer() const { return m_peer; }

private:
    // A message that was sent and is not acknowledged yet.
    struct pending_message
    {
        RE_byte_buffer message;
        RE_byte_buffer frame;
        RE_frame_header header;
        std::int64_t sent_ns;
    };

    // Why a connection has to wait.
    enum class stop_cause
    {
        none,
        ack_queue, // the peer does not acknowledge anything
        wire,      // the peer does not accept data
    };

    RE_path& path() { return m_direction == RE_direction::encode ? m_peer.outbound() : m_peer.inbound(); }
    RE_bypass_policy& sender_policy()
    {
        return m_direction == RE_direction::encode ? m_surroundings.own_bypass_policy : m_peer.bypass_policy();
    }
    RE_bypass_cause choose_bypass_cause();
    void send(RE_byte_buffer message);
    void measure_compression(const RE_encode_result& result);
    // Takes the oldest answers until at most this many messages wait for one. Returns false if it must wait for
    // answers.
    bool receive_until(std::size_t messages_left);
    stop_cause find_stop_cause() const;
    bool can_receive() const;
    bool is_noise() const;
    void set_stop(stop_cause cause);
    void receive_oldest();
    RE_answer deliver(const RE_byte_buffer& frame);
    void take_answer(pending_message& pending, const RE_answer& answer);
    void send_again(pending_message& pending);

    RE_connection_surroundings m_surroundings;
    RE_peer& m_peer;
    RE_direction m_direction;
    RE_message_source m_source;
    RE_server m_server;
    RE_random m_noise; // for traffic that is noise
    RE_published_conn m_published;
    bool m_b_at_end = false; // of the file
    std::uint32_t m_sequence = 0;
    long long m_lan_bytes = 0;
    bool m_b_around_counted = false;
    std::deque<pending_message> m_pending;
    RE_byte_buffer m_arrived;
    stop_cause m_stop = stop_cause::none;
    std::int64_t m_stopped_ns = 0; // when it stopped
};
