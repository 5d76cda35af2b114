#include "history/rows.h"

#include "format/text.h"
#include "model/words.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace kavstat {

namespace {

int hex_digit(char letter)
{
    if (letter >= '0' && letter <= '9') {
        return letter - '0';
    }
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

// Reads the digits of the text, ignoring other characters. Missing digits are 0.
template <std::size_t Size>
void read_hex(std::string_view text, unsigned char (&bytes)[Size])
{
    std::fill(std::begin(bytes), std::end(bytes), static_cast<unsigned char>(0));
    std::size_t digits = 0;
    for (const char letter : text) {
        const int digit = hex_digit(letter);
        if (digit >= 0 && digits < 2 * Size) {
            unsigned char& byte = bytes[digits / 2];
            byte = static_cast<unsigned char>(static_cast<unsigned>(byte) << 4U | static_cast<unsigned>(digit));
            ++digits;
        }
    }
}

template <std::size_t Size>
std::string hex_text(const unsigned char (&bytes)[Size])
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}

std::uint32_t read_ip(std::string_view text)
{
    in_addr address{};
    return inet_pton(AF_INET, std::string(text).c_str(), &address) == 1 ? ntohl(address.s_addr) : 0;
}

template <std::size_t Size>
void set_text(char (&array)[Size], std::string_view text)
{
    std::memset(array, 0, Size);
    std::memcpy(array, text.data(), std::min(text.size(), Size - 1));
}

// As much of a valid text as fits, cut between two characters.
std::string_view cut_to(std::string_view text, std::size_t size)
{
    if (text.size() <= size) {
        return text;
    }
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) {
        --size;
    }
    return text.substr(0, size);
}

constexpr std::size_t app_figure_fields = 2;
constexpr std::size_t bypass_figure_fields = 3;

} // namespace

void FieldBinder::operator()(IpAddress address) const
{
    statement.bind(ip_text(address.ip));
}

void FieldBinder::operator()(const Word& word) const
{
    statement.bind(word_for(word.words, word.code));
}

void FieldBinder::operator()(std::string_view text) const
{
    statement.bind(clean_text(text));
}

void clean_header(RE_stat_peer_header& header)
{
    const std::string name = clean_text(text_in(header.m_peer_host_name));
    set_text(header.m_peer_host_name, cut_to(name, sizeof header.m_peer_host_name - 1));
    header.m_pad = 0;
}

void bind_identity(Statement& statement, const SnapshotPeer& peer)
{
    bind_fields(statement, peer_fields.first(peer_fields.size() - 1), peer);
    statement.bind(hex_text(peer.header.m_context_id.m_data));
}

void bind_figures(Statement& statement, const SnapshotPeer& peer)
{
    bind_fields(statement, peer_fields.last(1), peer);
    bind_counters(statement, CounterScope::peer, std::span<const long long>(peer.figures));
    bind_counters(statement, CounterScope::connection, std::span<const long long>(peer.connections));
}

// In the order of peer_fields.
void read_identity(const Statement& row, int column, SnapshotPeer& peer)
{
    peer.slot = static_cast<int>(row.integer(column++));
    peer.number = static_cast<int>(row.integer(column++));
    ++column; // "context", made from the context's id
    read_hex(row.text(column++), peer.header.m_peer_mac_id.m_data);
    read_hex(row.text(column++), peer.header.m_kav_peer_id.m_data);
    ++column; // "kav_peer_hash", likewise
    peer.header.m_peer_ip = read_ip(row.text(column++));
    set_text(peer.header.m_peer_host_name, row.text(column++));
    peer.header.m_b_outdated = row.integer(column++) != 0 ? 1 : 0;
    peer.header.m_b_update_from_active_conn = row.integer(column++) != 0 ? 1 : 0;
    read_hex(row.text(column), peer.header.m_context_id.m_data);
}

void read_figures(const Statement& row, int column, SnapshotPeer& peer)
{
    peer.active_connections = static_cast<int>(row.integer(column++));
    read_counters(row, column, CounterScope::peer, std::span<long long>(peer.figures));
    read_counters(row, column, CounterScope::connection, std::span<long long>(peer.connections));
}

void bind_identity(Statement& statement, const SnapshotApp& app)
{
    bind_fields(statement, app_fields.first(app_fields.size() - app_figure_fields), app);
}

void bind_figures(Statement& statement, const SnapshotApp& app)
{
    bind_fields(statement, app_fields.last(app_figure_fields), app);
    bind_counters(statement, CounterScope::application, std::span<const std::uint32_t>(app.app.m_id_array));
}

// In the order of app_fields.
void read_identity(const Statement& row, int column, SnapshotApp& app)
{
    app.slot = static_cast<int>(row.integer(column++));
    app.peer_number = static_cast<int>(row.integer(column++));
    RE_stat_app_header& header = app.app.m_header;
    read_hex(row.text(column++), header.m_kav_peer_id.m_data);
    header.m_server_port = static_cast<std::uint16_t>(row.integer(column++));
    header.m_b_src_port = row.integer(column++) != 0 ? 1 : 0;
    header.set_policy_engine_handler(static_cast<std::uint32_t>(row.integer(column)));
}

void read_figures(const Statement& row, int column, SnapshotApp& app)
{
    app.app.m_header.m_open_cnt = static_cast<std::uint64_t>(row.integer(column++)) & 0x7fffffU;
    app.app.m_header.m_close_cnt = static_cast<std::uint64_t>(row.integer(column++)) & 0xffffffU;
    read_counters(row, column, CounterScope::application, std::span<std::uint32_t>(app.app.m_id_array));
}

void bind_identity(Statement& statement, const RE_bypass_entry& entry)
{
    bind_fields(statement, bypass_fields.first(bypass_fields.size() - bypass_figure_fields), entry);
}

void bind_figures(Statement& statement, const RE_bypass_entry& entry)
{
    bind_fields(statement, bypass_fields.last(bypass_figure_fields), entry);
}

// In the order of bypass_fields.
void read_identity(const Statement& row, int column, RE_bypass_entry& entry)
{
    entry.server_ip = read_ip(row.text(column++));
    entry.server_port = static_cast<std::uint16_t>(row.integer(column++));
    entry.reason = static_cast<RE_bypass_reason>(row.integer(column++));
    ++column; // "reason_word"
    entry.since = row.integer(column);
}

void read_figures(const Statement& row, int column, RE_bypass_entry& entry)
{
    entry.next_attempt = row.integer(column++);
    entry.bytes = static_cast<std::uint64_t>(row.integer(column++));
    entry.connections = static_cast<std::uint64_t>(row.integer(column));
}

std::uint64_t entry_place(const SnapshotPeer& peer)
{
    return static_cast<std::uint64_t>(peer.slot);
}

std::uint64_t entry_place(const SnapshotApp& app)
{
    return static_cast<std::uint64_t>(app.slot);
}

std::uint64_t entry_place(const RE_bypass_entry& entry)
{
    return std::uint64_t{entry.server_ip} << 16U | entry.server_port;
}

bool is_same_identity(const SnapshotPeer& left, const SnapshotPeer& right)
{
    return left.number == right.number && left.header.m_context_id == right.header.m_context_id &&
           left.header.m_peer_mac_id == right.header.m_peer_mac_id &&
           left.header.m_kav_peer_id == right.header.m_kav_peer_id && left.header.m_peer_ip == right.header.m_peer_ip &&
           text_in(left.header.m_peer_host_name) == text_in(right.header.m_peer_host_name) &&
           left.header.m_b_outdated == right.header.m_b_outdated &&
           left.header.m_b_update_from_active_conn == right.header.m_b_update_from_active_conn;
}

bool is_same_identity(const SnapshotApp& left, const SnapshotApp& right)
{
    return left.peer_number == right.peer_number && left.app.m_header == right.app.m_header;
}

bool is_same_identity(const RE_bypass_entry& left, const RE_bypass_entry& right)
{
    return left.reason == right.reason && left.since == right.since;
}

bool are_same_figures(const SnapshotPeer& left, const SnapshotPeer& right)
{
    return left.active_connections == right.active_connections && left.figures == right.figures &&
           left.connections == right.connections;
}

bool are_same_figures(const SnapshotApp& left, const SnapshotApp& right)
{
    return left.app.m_header.m_open_cnt == right.app.m_header.m_open_cnt &&
           left.app.m_header.m_close_cnt == right.app.m_header.m_close_cnt &&
           std::equal(std::begin(left.app.m_id_array), std::end(left.app.m_id_array), std::begin(right.app.m_id_array));
}

bool are_same_figures(const RE_bypass_entry& left, const RE_bypass_entry& right)
{
    return left.next_attempt == right.next_attempt && left.bytes == right.bytes &&
           left.connections == right.connections;
}

void bind_connection(Statement& statement, const SnapshotConn& conn)
{
    bind_fields(statement, connection_fields, conn);
    bind_fields(statement, transport_fields, conn.transport);
    statement.bind_bytes(&conn.transport, sizeof conn.transport);
    bind_counters(statement, CounterScope::connection, std::span<const long long>(conn.figures));
}

// In the order of connection_fields.
void read_connection_row(const Statement& row, int column, SnapshotConn& conn)
{
    conn.slot = static_cast<int>(row.integer(column++));
    conn.header.m_conn_id = static_cast<std::int32_t>(row.integer(column++));
    conn.peer_number = static_cast<int>(row.integer(column++));
    conn.header.m_client_ip = read_ip(row.text(column++));
    conn.header.m_client_port = static_cast<std::uint16_t>(row.integer(column++));
    conn.header.m_server_ip = read_ip(row.text(column++));
    conn.header.m_server_port = static_cast<std::uint16_t>(row.integer(column++));
    ++column; // "open", made from the times
    conn.open_time = row.integer(column++);
    conn.close_time = row.integer(column++);
    column += static_cast<int>(transport_fields.size());
    const std::string_view transport = row.bytes(column++);
    if (!transport.empty()) {
        std::memcpy(&conn.transport, transport.data(), std::min(transport.size(), sizeof conn.transport));
    }
    read_counters(row, column, CounterScope::connection, std::span<long long>(conn.figures));
}

// In the order of nack_fields.
void read_nack_row(const Statement& row, int column, RE_stat_nack_header& nack)
{
    nack.m_time = static_cast<std::int32_t>(row.integer(column++));
    nack.m_type = static_cast<std::int16_t>(row.integer(column++));
    ++column; // "type_word"
    nack.m_reason = static_cast<std::int16_t>(row.integer(column++));
    ++column; // "reason_word"
    nack.m_peer_id = static_cast<std::int32_t>(row.integer(column++));
    nack.m_conn_id = static_cast<std::int32_t>(row.integer(column++));
    nack.m_msg_seq_no = static_cast<std::int32_t>(row.integer(column));
}

} // namespace kavstat
