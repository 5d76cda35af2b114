#include "format/text.h"
#include "format/units.h"
#include "watch/pages/pages.h"

namespace kavstat {

namespace {

// Orders by address, then by port.
double end_order(std::uint32_t ip, std::uint16_t port)
{
    return static_cast<double>(ip) * 65536 + port;
}

double bytes_of(const WatchConn& conn, WatchConn::figure figure)
{
    return static_cast<double>(conn.bytes[figure]);
}

double before_of(const WatchConn& conn)
{
    return bytes_of(conn, WatchConn::encode_in) + bytes_of(conn, WatchConn::decode_out);
}

double after_of(const WatchConn& conn)
{
    return bytes_of(conn, WatchConn::encode_out) + bytes_of(conn, WatchConn::decode_in);
}

} // namespace

std::string end_text(std::uint32_t ip, std::uint16_t port)
{
    return ip_text(ip) + ":" + std::to_string(port);
}

WatchTable connections_table(const WatchModel& model, const WatchFrame& /*frame*/)
{
    using Conn = WatchConn;
    const std::vector<WatchConn>& conns = model.conns();
    const auto size_column = [&](const char* key, const char* title, int importance, double (*bytes)(const Conn&)) {
        return number_column(key, title, 9, importance, conns, bytes, size_text);
    };
    WatchTable table;
    table.rows = conns.size();
    table.columns = {
        number_column(
            "connection", "CONN", 10, 0, conns, [](const Conn& c) { return c.header.m_conn_id; }, whole_text),
        number_column(
            "peer", "PEER", 6, 2, conns, [](const Conn& c) { return c.peer_number; }, whole_text),
        ordered_text_column(
            "client", "CLIENT", 21, 3, conns,
            [](const Conn& c) { return end_text(c.header.m_client_ip, c.header.m_client_port); },
            [](const Conn& c) { return end_order(c.header.m_client_ip, c.header.m_client_port); }),
        ordered_text_column(
            "server", "SERVER", 21, 1, conns,
            [](const Conn& c) { return end_text(c.header.m_server_ip, c.header.m_server_port); },
            [](const Conn& c) { return end_order(c.header.m_server_ip, c.header.m_server_port); }),
        ordered_text_column(
            "state", "STATE", 6, 2, conns, [](const Conn& c) { return c.b_open ? "open" : "closed"; },
            [](const Conn& c) { return c.b_open ? 0 : 1; }),
        number_column(
            "rate", "RATE", 11, 1, conns, [](const Conn& c) { return c.rate_before(); }, rate_text),
        size_column("before", "BEFORE", 3, before_of),
        size_column("after", "AFTER", 3, after_of),
        ordered_text_column(
            "saved", "SAVED", 13, 1, conns,
            [](const Conn& c) {
                return saved_text(bytes_of(c, Conn::encode_in), bytes_of(c, Conn::encode_out),
                                  bytes_of(c, Conn::decode_in), bytes_of(c, Conn::decode_out));
            },
            [](const Conn& c) { return saved_percent(before_of(c), after_of(c)); }),
        size_column("encode_in", "ENC-IN", 4, [](const Conn& c) { return bytes_of(c, Conn::encode_in); }),
        size_column("encode_out", "ENC-OUT", 4, [](const Conn& c) { return bytes_of(c, Conn::encode_out); }),
        size_column("decode_in", "DEC-IN", 4, [](const Conn& c) { return bytes_of(c, Conn::decode_in); }),
        size_column("decode_out", "DEC-OUT", 4, [](const Conn& c) { return bytes_of(c, Conn::decode_out); }),
        number_column(
            "opened", "OPENED", 8, 4, conns, [](const Conn& c) { return static_cast<long long>(c.open_time); },
            [now = model.now().capture_time](long long opened) {
                return age_text(change_of(RE_stat_kind::current, opened, now, false).by);
            }),
        text_column("host", "HOST", 20, 5, conns, [&model](const Conn& c) { return model.host_of(c.peer_number); }),
    };
    table.subject = [&conns](std::size_t row) {
        const Conn& conn = conns[row];
        return WatchSubject{SubjectKind::connection, static_cast<int>(row), conn.header.m_conn_id, conn.open_time};
    };
    table.is_there = [&conns](std::size_t row) { return conns[row].b_there; };
    // Findings are looked up only for visible rows.
    table.mark = [&model, subject = table.subject](std::size_t row) {
        return mark_of(model.worst_about(subject(row)));
    };
    table.search = [&conns](std::size_t row) {
        const RE_stat_conn_header& header = conns[row].header;
        return std::to_string(header.m_conn_id) + " " + end_text(header.m_client_ip, header.m_client_port) + " " +
               end_text(header.m_server_ip, header.m_server_port) + " peer " + std::to_string(conns[row].peer_number);
    };
    table.b_search_is_lasting = true;
    return table;
}

std::vector<WatchLine> connections_heading(const WatchModel& model, const WatchFrame& /*frame*/)
{
    // Shown only if rates are over more than one reading.
    const std::size_t looks = model.looks_for_all_connections();
    if (looks <= 1) {
        return {};
    }
    return {{"Of " + std::to_string(model.conns().size()) + " places for connections each is read every " +
             std::to_string(looks) + " looks"}};
}

} // namespace kavstat
