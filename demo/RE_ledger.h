// The engine's own account of its traffic, independent of the statistics. It counts what passes the two edges of the
// engine, the applications' side (LAN) and the wire (WAN), and uses nothing that the encoders and decoders report. A
// test can compare the statistics with it.
#pragma once

#include "RE_application.h"
#include "RE_bypass_policy.h"
#include "RE_frame.h"
#include "RE_peer.h"

#include <array>
#include <deque>
#include <map>
#include <string>

// The direction of a connection's traffic, seen from this engine.
enum class RE_direction
{
    encode, // from an application here to the peer
    decode, // from the peer to an application here
};

// The account of one direction. A message is counted once, when it is sent or delivered. Retransmissions after a NACK
// are counted with the answers.
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
    long long wire_bytes = 0; // frames with their headers, including refused and retransmitted ones
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
    // connection_limit: how many connections have an account of their own. Above it, the connection that closed first
    // is dropped. Open connections always have one.
    explicit RE_ledger(std::size_t connection_limit) : m_connection_limit(connection_limit) {}

    void open_connection(int conn_id, const RE_peer& peer, const RE_application& application,
                         const RE_stat_conn_header& ends, RE_direction direction);
    void close_connection(int conn_id);

    // A message passed the edge to the applications, in either direction.
    void on_lan(int conn_id, std::size_t size);
    // A frame passed the edge to the wire, in either direction.
    void on_frame(int conn_id, RE_byte_view frame);
    // An answer to the last frame, or to an earlier frame of this engine, passed the edge to the wire.
    void on_answer(int conn_id, RE_byte_view bytes);

    void on_round_end() { ++m_rounds; }
    long long rounds() const { return m_rounds; }

    // Writes the account as JSON. The file is replaced completely or not at all. b_finished: all traffic was
    // transferred. Throws std::runtime_error.
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
    // Traffic that bypassed this engine because its server's traffic does not compress.
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
