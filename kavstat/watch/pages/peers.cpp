#include "format/text.h"
#include "format/units.h"
#include "watch/pages/pages.h"

namespace kavstat {

namespace {

// Returns the name of a peer for people.
std::string host_text(const SnapshotPeer& peer)
{
    const std::string host = plain_text(text_in(peer.header.m_peer_host_name));
    return host.empty() ? peer.header.m_peer_mac_id.getString() : host;
}

double connections_figure(const WatchPeer& peer, RE_stat_conn_id id)
{
    return static_cast<double>(peer.now->connections[static_cast<std::size_t>(id)]);
}

} // namespace

WatchTable peers_table(const WatchModel& model, const WatchFrame& frame)
{
    using Peer = WatchPeer;
    const std::vector<WatchPeer>& peers = model.peers();
    const auto total = connections_figure;
    const auto rate_column = [&](const char* key, const char* title, int importance, double (*rate)(const Peer&)) {
        return number_column(key, title, 11, importance, peers, rate, rate_text);
    };
    WatchTable table;
    table.rows = peers.size();
    table.columns = {
        number_column(
            "peer", "PEER", 6, 0, peers, [](const Peer& p) { return p.now->number; }, whole_text),
        text_column("host", "HOST", 20, 0, peers, [](const Peer& p) { return host_text(*p.now); }),
        number_column(
            "connections", "CONNS", 6, 3, peers, [](const Peer& p) { return p.now->active_connections; }, whole_text),
        rate_column("before", "BEFORE", 1, [](const Peer& p) { return p.rates.before(); }),
        rate_column("after", "AFTER", 2, [](const Peer& p) { return p.rates.after(); }),
        ordered_text_column(
            "saved", "SAVED", 13, 1, peers,
            [total](const Peer& p) {
                return saved_text(total(p, RE_STAT_CONN_ID_ENCODE_IN_BYTES), total(p, RE_STAT_CONN_ID_ENCODE_OUT_BYTES),
                                  total(p, RE_STAT_CONN_ID_DECODE_IN_BYTES),
                                  total(p, RE_STAT_CONN_ID_DECODE_OUT_BYTES));
            },
            [total](const Peer& p) {
                return saved_percent(
                    total(p, RE_STAT_CONN_ID_ENCODE_IN_BYTES) + total(p, RE_STAT_CONN_ID_DECODE_OUT_BYTES),
                    total(p, RE_STAT_CONN_ID_ENCODE_OUT_BYTES) + total(p, RE_STAT_CONN_ID_DECODE_IN_BYTES));
            }),
        number_column(
            "nacks", "NACK/s", 7, 3, peers, [](const Peer& p) { return p.rates.nacks + p.rates.retransmissions; },
            count_text),
        rate_column("encode_in", "ENC-IN", 6, [](const Peer& p) { return p.rates.encode_in; }),
        rate_column("encode_out", "ENC-OUT", 6, [](const Peer& p) { return p.rates.encode_out; }),
        rate_column("decode_in", "DEC-IN", 6, [](const Peer& p) { return p.rates.decode_in; }),
        rate_column("decode_out", "DEC-OUT", 6, [](const Peer& p) { return p.rates.decode_out; }),
        number_column(
            "round_trip", "RTT", 11, 5, peers,
            [](const Peer& p) { return static_cast<double>(p.now->figures[RE_STAT_PEER_ID_ACK_Q_AVG_RTT]) / 1000; },
            latency_text),
        number_column(
            "ack_queue", "ACK-Q", 9, 5, peers,
            [](const Peer& p) { return static_cast<double>(p.now->figures[RE_STAT_PEER_ID_ACK_Q_SIZE]); }, size_text),
        drawing_column("TRAFFIC", 12, 4, peers,
                       [b_unicode = frame.b_unicode](const Peer& p, std::size_t width) {
                           return spark_line(p.history.before(), width, b_unicode);
                       }),
    };
    table.subject = [&peers](std::size_t row) { return subject_of(*peers[row].now); };
    // Findings are looked up only for visible rows.
    table.mark = [&model, subject = table.subject](std::size_t row) {
        return mark_of(model.worst_about(subject(row)));
    };
    table.search = [&peers](std::size_t row) {
        return std::to_string(peers[row].now->number) + " " + host_text(*peers[row].now);
    };
    return table;
}

} // namespace kavstat
