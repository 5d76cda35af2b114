// The tables of peers and applications, which are made from two moments.
#include "page/table_rows.h"

#include "model/change.h"

#include <map>
#include <unordered_map>

namespace kavstat {

namespace {

struct PeerRow
{
    const SnapshotPeer* now;
    const SnapshotPeer* before;
    double seconds;
    const char* health;

    long long total(RE_stat_conn_id id) const { return now->connections[static_cast<std::size_t>(id)]; }
    long long figure(RE_stat_peer_id id) const { return now->figures[static_cast<std::size_t>(id)]; }
    std::optional<double> rate(RE_stat_conn_id id) const
    {
        if (before == nullptr) {
            return std::nullopt;
        }
        const auto at = static_cast<std::size_t>(id);
        return rate_of(change_of(RE_stat_kind::total, before->connections[at], now->connections[at], false), seconds);
    }
    RowRates rates() const
    {
        if (before == nullptr) {
            return {};
        }
        return {*rate(RE_STAT_CONN_ID_ENCODE_IN_BYTES) + *rate(RE_STAT_CONN_ID_DECODE_OUT_BYTES),
                *rate(RE_STAT_CONN_ID_ENCODE_OUT_BYTES) + *rate(RE_STAT_CONN_ID_DECODE_IN_BYTES)};
    }
};

constexpr double microseconds_a_second = 1e6;

constexpr TableColumn<PeerRow> peer_columns[] = {
    {"key", "Key", "key", [](const PeerRow& p) { return TableCell(entity_key(*p.now)); }},
    {"peer", "Peer", "number", [](const PeerRow& p) { return TableCell(static_cast<long long>(p.now->number)); }},
    {"host_name", "Host", "text",
     [](const PeerRow& p) { return TableCell(clean_text(text_in(p.now->header.m_peer_host_name))); }},
    {"ip", "Address", "text", [](const PeerRow& p) { return TableCell(ip_text(p.now->header.m_peer_ip)); }},
    {"health", "Health", "health", [](const PeerRow& p) { return TableCell(std::string(p.health)); }},
    {"connections", "Connections", "count",
     [](const PeerRow& p) { return TableCell(static_cast<long long>(p.now->active_connections)); }},
    {"before_rate", "Before", "bytes_per_second", [](const PeerRow& p) { return cell_of(p.rates().before); }},
    {"after_rate", "After", "bytes_per_second", [](const PeerRow& p) { return cell_of(p.rates().after); }},
    {"saved", "Saved now", "percent", [](const PeerRow& p) { return p.rates().saved(); }},
    {"saved_total", "Saved in all", "percent",
     [](const PeerRow& p) {
         return saved_of(static_cast<double>(p.total(RE_STAT_CONN_ID_ENCODE_IN_BYTES)) +
                             static_cast<double>(p.total(RE_STAT_CONN_ID_DECODE_OUT_BYTES)),
                         static_cast<double>(p.total(RE_STAT_CONN_ID_ENCODE_OUT_BYTES)) +
                             static_cast<double>(p.total(RE_STAT_CONN_ID_DECODE_IN_BYTES)));
     }},
    {"nack_rate", "NACKs", "count_per_second",
     [](const PeerRow& p) { return cell_of(p.rate(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS)); }},
    {"retransmission_rate", "R-tx", "count_per_second",
     [](const PeerRow& p) { return cell_of(p.rate(RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS)); }},
    {"round_trip", "RTT", "seconds",
     [](const PeerRow& p) {
         return TableCell(static_cast<double>(p.figure(RE_STAT_PEER_ID_ACK_Q_AVG_RTT)) / microseconds_a_second);
     }},
    {"ack_queue", "Ack queue", "bytes",
     [](const PeerRow& p) { return TableCell(p.figure(RE_STAT_PEER_ID_ACK_Q_SIZE)); }},
    {"delay_buffers", "Delay buffers", "bytes",
     [](const PeerRow& p) { return TableCell(p.figure(RE_STAT_PEER_ID_DELAY_BUF_SIZE)); }},
    {"encode_in", "Encode in", "bytes",
     [](const PeerRow& p) { return TableCell(p.total(RE_STAT_CONN_ID_ENCODE_IN_BYTES)); }},
    {"encode_out", "Encode out", "bytes",
     [](const PeerRow& p) { return TableCell(p.total(RE_STAT_CONN_ID_ENCODE_OUT_BYTES)); }},
    {"decode_in", "Decode in", "bytes",
     [](const PeerRow& p) { return TableCell(p.total(RE_STAT_CONN_ID_DECODE_IN_BYTES)); }},
    {"decode_out", "Decode out", "bytes",
     [](const PeerRow& p) { return TableCell(p.total(RE_STAT_CONN_ID_DECODE_OUT_BYTES)); }},
};

struct AppRow
{
    const SnapshotApp* now;
    const SnapshotApp* before;
    double seconds;
    std::string host_name;

    static constexpr long long bytes_per_kilobyte = 1024;
    long long total(RE_stat_app_id id) const { return now->app.m_id_array[id] * bytes_per_kilobyte; }
    double rate(RE_stat_app_id id) const
    {
        return rate_of(change_of_32(RE_stat_kind::total, before->app.m_id_array[id], now->app.m_id_array[id], false),
                       seconds) *
               static_cast<double>(bytes_per_kilobyte);
    }
    RowRates rates() const
    {
        if (before == nullptr) {
            return {};
        }
        return {rate(RE_STAT_APP_ID_ENCODE_IN_KBYTES) + rate(RE_STAT_APP_ID_DECODE_OUT_KBYTES),
                rate(RE_STAT_APP_ID_ENCODE_OUT_KBYTES) + rate(RE_STAT_APP_ID_DECODE_IN_KBYTES)};
    }
};

constexpr TableColumn<AppRow> app_columns[] = {
    {"key", "Key", "key", [](const AppRow& a) { return TableCell(entity_key(*a.now)); }},
    {"application", "Application", "text",
     [](const AppRow& a) { return TableCell(application_label(a.now->app.m_header)); }},
    {"peer", "Peer", "number", [](const AppRow& a) { return TableCell(static_cast<long long>(a.now->peer_number)); }},
    {"host_name", "Host", "text", [](const AppRow& a) { return TableCell(a.host_name); }},
    {"before_rate", "Before", "bytes_per_second", [](const AppRow& a) { return cell_of(a.rates().before); }},
    {"after_rate", "After", "bytes_per_second", [](const AppRow& a) { return cell_of(a.rates().after); }},
    {"saved", "Saved now", "percent", [](const AppRow& a) { return a.rates().saved(); }},
    {"saved_total", "Saved in all", "percent",
     [](const AppRow& a) {
         return saved_of(
             static_cast<double>(a.total(RE_STAT_APP_ID_ENCODE_IN_KBYTES) + a.total(RE_STAT_APP_ID_DECODE_OUT_KBYTES)),
             static_cast<double>(a.total(RE_STAT_APP_ID_ENCODE_OUT_KBYTES) + a.total(RE_STAT_APP_ID_DECODE_IN_KBYTES)));
     }},
    {"encode_in", "Encode in", "bytes",
     [](const AppRow& a) { return TableCell(a.total(RE_STAT_APP_ID_ENCODE_IN_KBYTES)); }},
    {"encode_out", "Encode out", "bytes",
     [](const AppRow& a) { return TableCell(a.total(RE_STAT_APP_ID_ENCODE_OUT_KBYTES)); }},
    {"decode_in", "Decode in", "bytes",
     [](const AppRow& a) { return TableCell(a.total(RE_STAT_APP_ID_DECODE_IN_KBYTES)); }},
    {"decode_out", "Decode out", "bytes",
     [](const AppRow& a) { return TableCell(a.total(RE_STAT_APP_ID_DECODE_OUT_KBYTES)); }},
};

// The same thing at the moment before; null when it was not there.
template <typename Entity>
class Earlier
{
public:
    explicit Earlier(const std::vector<Entity>* before)
    {
        if (before != nullptr) {
            for (const Entity& entity : *before) {
                m_by_key.emplace(entity_key(entity), &entity);
            }
        }
    }
    const Entity* find(const Entity& entity) const
    {
        const auto found = m_by_key.find(entity_key(entity));
        return found != m_by_key.end() ? found->second : nullptr;
    }

private:
    std::unordered_map<std::string, const Entity*> m_by_key;
};

// Words for peers with findings, by slot. The most severe findings come first.
std::map<int, const char*> health_of_peers(const std::vector<Finding>& findings)
{
    std::map<int, const char*> words;
    for (const Finding& finding : findings) {
        if (finding.rule->scope == RuleScope::peer) {
            words.emplace(finding.peer_slot, word_of(finding.severity));
        }
    }
    return words;
}

} // namespace

bool is_peer_column(const std::string& key)
{
    return has_column_in<PeerRow>(peer_columns, key);
}

bool is_application_column(const std::string& key)
{
    return has_column_in<AppRow>(app_columns, key);
}

void write_peers(const TwoMoments& moments, const std::vector<Finding>& findings, const TableQuery& query,
                 Output& output)
{
    const Earlier<SnapshotPeer> earlier(moments.before != nullptr ? &moments.before->peers : nullptr);
    const std::map<int, const char*> words = health_of_peers(findings);
    RowSelection<PeerRow> selection(peer_columns, query);
    for (const SnapshotPeer& peer : moments.now->peers) {
        const auto word = words.find(peer.slot);
        selection.add({&peer, earlier.find(peer), moments.seconds, word != words.end() ? word->second : "ok"});
    }
    selection.write_table(output, TableOf::peers, *moments.now, moments.seconds, moments.now->peers.size());
}

void write_applications(const TwoMoments& moments, const TableQuery& query, Output& output)
{
    const Earlier<SnapshotApp> earlier(moments.before != nullptr ? &moments.before->apps : nullptr);
    std::unordered_map<int, std::string> hosts;
    for (const SnapshotPeer& peer : moments.now->peers) {
        hosts.emplace(peer.number, clean_text(text_in(peer.header.m_peer_host_name)));
    }
    RowSelection<AppRow> selection(app_columns, query);
    for (const SnapshotApp& app : moments.now->apps) {
        const auto host = hosts.find(app.peer_number);
        selection.add({&app, earlier.find(app), moments.seconds, host != hosts.end() ? host->second : ""});
    }
    selection.write_table(output, TableOf::applications, *moments.now, moments.seconds, moments.now->apps.size());
}

} // namespace kavstat
