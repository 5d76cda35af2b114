#include "RE_connection.h"

#include "RE_clock.h"

#include <numeric>

namespace {

// The sender waits for an acknowledgement while this many messages are on their way.
constexpr std::size_t most_pending_messages = 8;

// 192.0.2.0/24, one of the networks reserved for examples.
constexpr std::uint32_t client_network = 0xc0000200U;
constexpr std::uint16_t first_client_port = 49152;

RE_stat_conn_header ends_of(int conn_id, const RE_server& server)
{
    const auto number = static_cast<std::uint32_t>(conn_id);
    RE_stat_conn_header ends{};
    ends.m_conn_id = conn_id;
    ends.m_client_ip = client_network + 1 + number % 254;
    ends.m_client_port = static_cast<std::uint16_t>(first_client_port + number % (65536U - first_client_port));
    ends.m_server_ip = server.ip;
    ends.m_server_port = server.port;
    return ends;
}

void fill_with_noise(RE_byte_buffer& message, RE_random& random)
{
    for (std::uint8_t& byte : message) {
        byte = static_cast<std::uint8_t>(random.below(256));
    }
}

// Returns each cause in turn, except low compression, which requires a bypassed server.
RE_bypass_cause bypass_cause_in_turn(std::uint32_t number)
{
    constexpr auto first = static_cast<std::uint32_t>(RE_bypass_cause::remote_cache_not_ready);
    constexpr auto last = static_cast<std::uint32_t>(RE_bypass_cause::no_redundancy_elimination);
    return static_cast<RE_bypass_cause>(first + number % (last - first + 1));
}

} // namespace

RE_connection::RE_connection(const RE_connection_surroundings& surroundings, RE_peer& peer, RE_direction direction,
                             RE_message_source source, int conn_id)
    : m_surroundings(surroundings), m_peer(peer), m_direction(direction), m_source(std::move(source)),
      m_server(peer.server(m_source.application().handler, m_source.application().server_port)),
      m_noise(static_cast<std::uint64_t>(conn_id))
{
    const RE_stat_conn_header ends = ends_of(conn_id, m_server);
    const bool b_bypassed = sender_policy().find(m_server) != nullptr;
    m_surroundings.publisher.open_conn(m_published, peer, m_source.application(), ends, b_bypassed);
    m_surroundings.ledger.open_connection(conn_id, peer, m_source.application(), ends, direction);
}

RE_step RE_connection::step()
{
    if (!receive_until(m_b_at_end ? 0 : most_pending_messages - 1)) {
        return {};
    }
    RE_byte_buffer message;
    constexpr std::uint32_t tiny = 16;
    const bool b_tiny = m_surroundings.health.ills.has(RE_illness::tiny_messages);
    if (m_b_at_end || !m_source.next(message, b_tiny ? tiny : 0)) {
        m_b_at_end = true;
        return {0, receive_until(0)};
    }
    if (is_noise()) {
        fill_with_noise(message, m_noise);
    }
    const std::size_t size = message.size();
    send(std::move(message));
    receive_until(most_pending_messages - 1);
    return {size, false};
}

void RE_connection::receive()
{
    while (can_receive()) {
        receive_oldest();
    }
}

bool RE_connection::receive_until(std::size_t messages_left)
{
    while (m_pending.size() > messages_left && can_receive()) {
        receive_oldest();
    }
    const bool b_done = m_pending.size() <= messages_left;
    set_stop(b_done ? stop_cause::none : find_stop_cause());
    return b_done;
}

RE_connection::stop_cause RE_connection::find_stop_cause() const
{
    const RE_health& health = m_surroundings.health;
    if (health.ills.has(RE_illness::conn_stuck) && health.stuck_conn_id == m_published.conn_id) {
        return stop_cause::wire;
    }
    const bool b_silent = health.ills.has(RE_illness::ack_queue) && m_peer.number() == ill_peer_number;
    return b_silent && is_encoding() ? stop_cause::ack_queue : stop_cause::none;
}

bool RE_connection::can_receive() const
{
    return !m_pending.empty() && find_stop_cause() == stop_cause::none &&
           (!is_encoding() || monotonic_ns() - m_pending.front().sent_ns >= m_peer.distance_ns());
}

void RE_connection::set_stop(stop_cause cause)
{
    if (cause == m_stop) {
        return;
    }
    RE_publisher& publisher = m_surroundings.publisher;
    const std::int64_t now = monotonic_ns();
    if (m_stop == stop_cause::ack_queue) {
        publisher.on_ack_queue_start(m_published, now - m_stopped_ns);
    } else if (m_stop == stop_cause::wire) {
        publisher.on_wire_start(m_published, now - m_stopped_ns);
    }
    m_stop = cause;
    m_stopped_ns = now;
    if (cause == stop_cause::ack_queue) {
        publisher.on_ack_queue_stop(m_published);
    } else if (cause == stop_cause::wire) {
        const auto add_size = [](std::size_t sum, const pending_message& pending) {
            return sum + pending.frame.size();
        };
        publisher.on_wire_stop(m_published,
                               std::accumulate(m_pending.begin(), m_pending.end(), std::size_t{0}, add_size));
    }
}

bool RE_connection::is_noise() const
{
    const RE_illness_set& ills = m_surroundings.health.ills;
    return ills.has(RE_illness::incompressible) || ills.has(RE_illness::tiny_messages) ||
           (ills.has(RE_illness::auto_bypass) && is_encoding() && m_peer.number() == ill_peer_number);
}

void RE_connection::close()
{
    const bool b_ours = m_direction == RE_direction::encode;
    m_surroundings.publisher.close_conn(m_published, b_ours ? m_lan_bytes : 0, b_ours ? 0 : m_lan_bytes);
    m_surroundings.ledger.close_connection(m_published.conn_id);
}

RE_bypass_cause RE_connection::choose_bypass_cause()
{
    if (m_surroundings.health.ills.has(RE_illness::bypass) && is_encoding()) {
        return bypass_cause_in_turn(static_cast<std::uint32_t>(m_published.conn_id) + m_sequence);
    }
    return sender_policy().find(m_server) != nullptr ? RE_bypass_cause::low_compression : path().next_bypass_cause();
}

void RE_connection::send(RE_byte_buffer message)
{
    const bool b_ours = m_direction == RE_direction::encode;
    const int conn_id = m_published.conn_id;
    if (b_ours) {
        m_lan_bytes += static_cast<long long>(message.size());
        m_surroundings.publisher.on_lan_read(m_published, message.size());
        m_surroundings.ledger.on_lan(conn_id, message.size());
    }

    pending_message pending{std::move(message), {}, {}, 0};
    pending.header.conn_id = static_cast<std::uint32_t>(conn_id);
    pending.header.sequence = ++m_sequence;
    pending.header.bypass_cause = choose_bypass_cause();
    const RE_encode_result result = path().encoder().encode(pending.message, pending.header, pending.frame);
    measure_compression(result);

    if (b_ours) {
        m_surroundings.publisher.on_encoded(m_published, result);
        m_surroundings.publisher.on_frame_written(m_published, pending.frame.size());
        m_surroundings.ledger.on_frame(conn_id, pending.frame);
    }
    path().on_sent(result.in_bytes);
    pending.sent_ns = monotonic_ns();
    m_pending.push_back(std::move(pending));
}

void RE_connection::measure_compression(const RE_encode_result& result)
{
    RE_bypass_policy& policy = sender_policy();
    const bool b_ours = m_direction == RE_direction::encode;
    if (result.bypass_cause == RE_bypass_cause::low_compression) {
        policy.count_message(m_server, result.in_bytes);
        if (!m_b_around_counted) {
            m_b_around_counted = true;
            policy.count_connection(m_server);
        }
    } else if (!policy.measure(m_server, result.in_bytes, result.out_bytes, wall_seconds())) {
        return;
    } else if (b_ours) {
        m_surroundings.publisher.go_around(m_published);
    }
    if (b_ours) {
        m_surroundings.publisher.set_bypass(m_server, *policy.find(m_server));
    }
}

void RE_connection::receive_oldest()
{
    pending_message pending = std::move(m_pending.front());
    m_pending.pop_front();
    RE_answer answer = deliver(pending.frame);
    take_answer(pending, answer);
    if (answer.reason != RE_nack_reason::none) {
        send_again(pending);
        answer = deliver(pending.frame);
        take_answer(pending, answer);
    }
    if (answer.reason != RE_nack_reason::none || m_arrived != pending.message) {
        throw std::runtime_error("message " + std::to_string(pending.header.sequence) + " of connection " +
                                 std::to_string(m_published.conn_id) + " did not arrive as it was sent");
    }
    if (m_direction == RE_direction::decode) {
        m_lan_bytes += static_cast<long long>(m_arrived.size());
        m_surroundings.publisher.on_lan_written(m_published, m_arrived.size());
        m_surroundings.ledger.on_lan(m_published.conn_id, m_arrived.size());
    }
}

// Delivers a frame to the receiver and returns its answer.
RE_answer RE_connection::deliver(const RE_byte_buffer& frame)
{
    const bool b_ours = m_direction == RE_direction::encode;
    const int conn_id = m_published.conn_id;
    if (!b_ours) {
        m_surroundings.publisher.on_frame_read(m_published, frame.size());
        m_surroundings.ledger.on_frame(conn_id, frame);
    }
    RE_decode_result result;
    const RE_byte_buffer wire_answer = write_answer(path().decoder().decode(frame, m_arrived, result));
    RE_answer answer = read_answer(wire_answer);
    if (b_ours) {
        m_surroundings.publisher.on_answer_read(m_published, answer, wire_answer.size());
    } else {
        m_surroundings.publisher.on_decoded(m_published, result, answer.reason == RE_nack_reason::none);
        m_surroundings.publisher.on_answer_written(m_published, answer, wire_answer.size());
    }
    m_surroundings.ledger.on_answer(conn_id, wire_answer);
    return answer;
}

void RE_connection::take_answer(pending_message& pending, const RE_answer& answer)
{
    path().on_answer(answer, pending.header.message_size, monotonic_ns() - pending.sent_ns);
}

// Bypasses redundancy elimination this time, so that the message cannot fail again.
void RE_connection::send_again(pending_message& pending)
{
    pending.header.b_retransmission = true;
    path().encoder().encode(pending.message, pending.header, pending.frame);
    pending.sent_ns = monotonic_ns();
    if (m_direction == RE_direction::encode) {
        m_surroundings.publisher.on_frame_written(m_published, pending.frame.size());
        m_surroundings.ledger.on_frame(m_published.conn_id, pending.frame);
    }
}
