#include "RE_ledger.h"

namespace {

std::size_t size_bucket(std::size_t size)
{
    constexpr std::array<std::size_t, 5> last_sizes{1024, 5 * 1024, 15 * 1024, 25 * 1024, 40 * 1024};
    std::size_t bucket = 0;
    while (bucket < last_sizes.size() && size > last_sizes[bucket]) {
        ++bucket;
    }
    return bucket;
}

RE_ledger_side& side_of(RE_ledger_account& account, RE_direction direction)
{
    return direction == RE_direction::encode ? account.encode : account.decode;
}

void enter_message(RE_ledger_side& side, std::size_t size)
{
    ++side.messages;
    side.lan_bytes += static_cast<long long>(size);
    ++side.message_sizes[size_bucket(size)];
}

void enter_frame(RE_ledger_side& side, const RE_frame_header& frame)
{
    side.wan_bytes += frame.payload_size;
    if (frame.b_chunk_records) {
        ++side.re_messages;
        side.re_lan_bytes += frame.message_size;
        side.re_wan_bytes += frame.inflated_size;
    } else {
        ++side.bypass_messages;
        side.bypass_bytes += frame.message_size;
    }
    if (frame.b_deflated) {
        ++side.lz_messages;
        side.lz_lan_bytes += frame.inflated_size;
        side.lz_wan_bytes += frame.payload_size;
    }
}

} // namespace

template <typename Change>
void RE_ledger::for_each_account(connection_account& connection, Change change)
{
    change(static_cast<RE_ledger_account&>(connection));
    change(static_cast<RE_ledger_account&>(m_peers.at(connection.peer_number)));
    change(m_applications.at(connection.application));
    change(m_engine);
}

void RE_ledger::open_connection(int conn_id, const RE_peer& peer, const RE_application& application,
                                const RE_stat_conn_header& ends, RE_direction direction)
{
    if (m_connections.size() >= m_connection_limit && !m_closed.empty()) {
        m_connections.erase(m_closed.front());
        m_closed.pop_front();
    }
    connection_account& connection = m_connections[conn_id];
    connection.ends = ends;
    connection.peer_number = peer.number();
    connection.application = {application.handler, ends.m_server_port, peer.number()};
    connection.direction = direction;
    m_peers[peer.number()].mac_id = peer.header().m_peer_mac_id.getString();
    m_applications[connection.application];
    for_each_account(connection, [](RE_ledger_account& account) {
        ++account.connections;
        ++account.open_connections;
    });
}

void RE_ledger::close_connection(int conn_id)
{
    for_each_account(m_connections.at(conn_id), [](RE_ledger_account& account) { --account.open_connections; });
    m_closed.push_back(conn_id);
}

void RE_ledger::on_lan(int conn_id, std::size_t size)
{
    connection_account& connection = m_connections.at(conn_id);
    for_each_account(connection,
                     [&](RE_ledger_account& account) { enter_message(side_of(account, connection.direction), size); });
}

void RE_ledger::on_frame(int conn_id, RE_byte_view frame)
{
    connection_account& connection = m_connections.at(conn_id);
    connection.last_frame = read_frame_header(frame);
    // Sent messages are entered when they leave, received messages only after they could be decoded.
    const bool b_enter = connection.direction == RE_direction::encode && !connection.last_frame.b_retransmission;
    for_each_account(connection, [&](RE_ledger_account& account) {
        RE_ledger_side& side = side_of(account, connection.direction);
        side.wire_bytes += static_cast<long long>(frame.size());
        if (b_enter) {
            enter_frame(side, connection.last_frame);
        }
    });
    if (b_enter && connection.last_frame.bypass_cause == RE_bypass_cause::low_compression) {
        enter_around(connection);
    }
}

void RE_ledger::enter_around(connection_account& connection)
{
    around_account& around = m_around[{connection.ends.m_server_ip, connection.ends.m_server_port}];
    ++around.messages;
    around.bytes += connection.last_frame.message_size;
    around.connections += connection.b_went_around ? 0 : 1;
    connection.b_went_around = true;
}

void RE_ledger::on_answer(int conn_id, RE_byte_view bytes)
{
    connection_account& connection = m_connections.at(conn_id);
    const RE_answer answer = read_answer(bytes);
    const bool b_ack = answer.reason == RE_nack_reason::none;
    for_each_account(connection, [&](RE_ledger_account& account) {
        RE_ledger_side& side = side_of(account, connection.direction);
        if (!b_ack) {
            ++side.nacks[static_cast<std::size_t>(answer.reason)];
            return;
        }
        ++side.acks;
        side.ack_bytes += static_cast<long long>(bytes.size());
        if (connection.direction == RE_direction::decode) {
            enter_frame(side, connection.last_frame);
        }
    });
}
