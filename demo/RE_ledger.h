// The engine's own account of its traffic, kept apart from the statistics: it is drawn up from what passes the two
// edges of the engine, the applications' side (LAN) and the wire (WAN), and from nothing that the encoders and decoders
// say about themselves. A test can hold the statistics against it.
#pragma once

#include "RE_application.h"
#include "RE_bypass_policy.h"
#include "RE_frame.h"
#include "RE_peer.h"

#include <array>
#include <deque>
#include <map>
#include <string>

// Which way a connection's traffic goes, as this engine sees it.
enum class RE_direction
{
    encode, // from an application here to the peer
    decode, // from the peer to an application here
};

// The account of one direction. A message is sent, or delivered, once; what was sent again after a NACK is counted with
// the answers.
struct RE_ledger_side
{
    long long messages = 0;
    long long lan_bytes = 0; // of the messages
    long long wan_bytes = 0; // of their payloads
    long long re_messages = 0;
    long long re_lan_bytes = 0;
    long long re_wan_bytes = 0;
    long long bypass_messages = 0;
    long long bypass_bytes = 0;
    long long lz_messages = 0;
    long long lz_lan_bytes = 0;
    long long lz_wan_bytes = 0;
    std::array<long long, 6> message_sizes{}; // 0-1K, 1K-5K, 5K-15K, 15K-25K, 25K-40K, above
    long long acks = 0;
    long long ack_bytes = 0;
    std::array<long long, nack_reason_count> nacks{};
    long long wire_bytes = 0; // frames with their headers, also those that were refused and those sent again
};

struct RE_ledger_account
{
    RE_ledger_side encode;
    RE_ledger_side decode;
    long long connections = 0;
    long long open_connections = 0;
};

class RE_ledger
{
public:
    // connection_limit: connections remembered one by one; beyond that, the one that closed first is dropped. Open
    // ones are always remembered.
    explicit RE_ledger(std::size_t connection_limit) : m_connection_limit(connection_limit) {}

    void open_connection(int conn_id, const RE_peer& peer, const RE_application& application,
                         const RE_stat_conn_header& ends, RE_direction direction);
    void close_connection(int conn_id);

    // A message crossed the edge to the applications, either way.
    void on_lan(int conn_id, std::size_t size);
    // A frame crossed the edge to the wire, either way.
    void on_frame(int conn_id, RE_byte_view frame);
    // An answer to the last frame, or to an earlier one of ours, crossed the edge to the wire.
    void on_answer(int conn_id, RE_byte_view bytes);

    void on_round_end() { ++m_rounds; }
    long long rounds() const { return m_rounds; }

    // Writes the account as JSON, the file as a whole or not at all. b_finished: the traffic went through as a whole.
    // Throws std::runtime_error.
    void write(const std::string& path, bool b_finished) const;

private:
    struct peer_account : RE_ledger_account
    {
        std::string mac_id;
    };
    struct application_key
    {
        std::uint16_t handler;
        std::uint16_t server_port;
        int peer_number;
        auto operator<=>(const application_key&) const = default;
    };
    struct connection_account : RE_ledger_account
    {
        RE_stat_conn_header ends{};
        int peer_number = 0;
        application_key application{};
        RE_direction direction = RE_direction::encode;
        RE_frame_header last_frame;
        bool b_went_around = false;
    };
    // What went around this engine because its server's traffic does not compress.
    struct around_account
    {
        long long messages = 0;
        long long bytes = 0;
        long long connections = 0;
    };
    void enter_around(connection_account& connection);
    template <typename Change>
    void for_each_account(connection_account& connection, Change change);

    std::size_t m_connection_limit;
    RE_ledger_account m_engine;
    std::map<int, peer_account> m_peers;
    std::map<application_key, RE_ledger_account> m_applications;
    std::map<int, connection_account> m_connections;
    std::map<RE_server, around_account> m_around;
    std::deque<int> m_closed; // in the order of closing
    long long m_rounds = 0;
};
