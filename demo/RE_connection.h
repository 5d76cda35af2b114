// One connection: takes a file's messages through one direction between this engine and a peer, sees to it that what
// arrives is what was sent, and reports everything to the statistics and to the ledger.
#pragma once

#include "RE_ledger.h"
#include "RE_publisher.h"
#include "RE_traffic.h"

#include <deque>

// What all connections work with. Used, not owned.
struct RE_connection_surroundings
{
    RE_publisher& publisher;
    RE_ledger& ledger;
    RE_bypass_policy& own_bypass_policy; // over the servers whose traffic this engine encodes
};

class RE_connection
{
public:
    RE_connection(const RE_connection_surroundings& surroundings, RE_peer& peer, RE_direction direction,
                  RE_message_source source, int conn_id);
    RE_connection(const RE_connection&) = delete;
    RE_connection& operator=(const RE_connection&) = delete;

    // Sends the next message; returns its size, 0 when the file is through and all is acknowledged. Throws when a
    // message does not arrive as it was sent.
    std::size_t step();
    void close();

private:
    // A message that was sent and is not acknowledged.
    struct pending_message
    {
        RE_byte_buffer message;
        RE_byte_buffer frame;
        RE_frame_header header;
        std::int64_t sent_ns;
    };

    RE_path& path() { return m_direction == RE_direction::encode ? m_peer.outbound() : m_peer.inbound(); }
    RE_bypass_policy& sender_policy()
    {
        return m_direction == RE_direction::encode ? m_surroundings.own_bypass_policy : m_peer.bypass_policy();
    }
    RE_bypass_cause choose_bypass_cause();
    void send(RE_byte_buffer message);
    void measure_compression(const RE_encode_result& result);
    void receive_oldest();
    RE_answer deliver(const RE_byte_buffer& frame);
    void take_answer(pending_message& pending, const RE_answer& answer);
    void send_again(pending_message& pending);

    RE_connection_surroundings m_surroundings;
    RE_peer& m_peer;
    RE_direction m_direction;
    RE_message_source m_source;
    RE_server m_server;
    RE_published_conn m_published;
    std::uint32_t m_sequence = 0;
    long long m_lan_bytes = 0;
    bool m_b_around_counted = false;
    std::deque<pending_message> m_pending;
    RE_byte_buffer m_arrived;
};
