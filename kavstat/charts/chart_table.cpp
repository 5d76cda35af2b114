#include "charts/chart_table.h"

#include <algorithm>
#include <iterator>

namespace kavstat {

namespace {

constexpr ChartColumn of_engine(int id)
{
    return {ChartColumn::Kind::engine, id};
}
constexpr ChartColumn of_peer(int id)
{
    return {ChartColumn::Kind::peer, id};
}
constexpr ChartColumn of_connections(int id)
{
    return {ChartColumn::Kind::connections, id};
}
constexpr ChartColumn of_application(int id)
{
    return {ChartColumn::Kind::application, id};
}

constexpr double kilobyte_scale = 1024;
constexpr double megabyte_scale = 1024.0 * 1024.0;
constexpr double microsecond_scale = 1e-6;
constexpr ChartColumn open_connections{ChartColumn::Kind::active_connections, 0};

constexpr ChartColumn encode_in = of_connections(RE_STAT_CONN_ID_ENCODE_IN_BYTES);
constexpr ChartColumn encode_out = of_connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES);
constexpr ChartColumn decode_in = of_connections(RE_STAT_CONN_ID_DECODE_IN_BYTES);
constexpr ChartColumn decode_out = of_connections(RE_STAT_CONN_ID_DECODE_OUT_BYTES);
constexpr ChartColumn encode_time = of_connections(RE_STAT_CONN_ID_TOT_ENCODE_SPEED);
constexpr ChartColumn decode_time = of_connections(RE_STAT_CONN_ID_TOT_DECODE_SPEED);
constexpr ChartColumn encoded_messages = of_connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS);
constexpr ChartColumn decoded_messages = of_connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS);

constexpr ChartSeries traffic_lines[] = {
    {"Encoding, before", SeriesKind::rate, encode_in},
    {"Encoding, after", SeriesKind::rate, encode_out},
    {"Decoding, before", SeriesKind::rate, decode_out},
    {"Decoding, after", SeriesKind::rate, decode_in},
};

constexpr ChartSeries savings_lines[] = {
    {"Encoding", SeriesKind::saved, encode_out, encode_in},
    {"Decoding", SeriesKind::saved, decode_in, decode_out},
};

constexpr ChartColumn matched = of_engine(RE_STAT_GLOBAL_ID_TOT_MATCHED_ANCHOR_COUNT);
constexpr ChartSeries match_lines[] = {
    {"Hit", SeriesKind::rate, matched},
    {"Miss", SeriesKind::rest_rate, matched, of_engine(RE_STAT_GLOBAL_ID_TOT_ANCHOR)},
};

constexpr ChartSeries engine_latency[] = {
    {"Encoding", SeriesKind::mean, encode_time, encoded_messages, microsecond_scale},
    {"Decoding", SeriesKind::mean, decode_time, decoded_messages, microsecond_scale},
    {"Disk read", SeriesKind::level, of_engine(RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY), {}, microsecond_scale},
};
constexpr ChartSeries peer_latency[] = {
    {"Encoding", SeriesKind::mean, encode_time, encoded_messages, microsecond_scale},
    {"Decoding", SeriesKind::mean, decode_time, decoded_messages, microsecond_scale},
};

constexpr ChartSeries cache_fill[] = {
    {"In use",
     SeriesKind::fill,
     {of_engine(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE), of_engine(RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE)},
     of_engine(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE)},
};
constexpr ChartSeries cache_age[] = {
    {"Signatures", SeriesKind::age, of_engine(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE)},
    {"Data", SeriesKind::age, of_engine(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE)},
};
constexpr ChartSeries peer_cache[] = {
    {"Signatures", SeriesKind::level, of_peer(RE_STAT_PEER_ID_SIGBLOCK_DISK_SPACE), {}, megabyte_scale},
    {"Data", SeriesKind::level, of_peer(RE_STAT_PEER_ID_DATAUNIT_DISK_SPACE), {}, megabyte_scale},
};

constexpr ChartColumn nacks_missed = of_connections(RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS);
constexpr ChartColumn nacks_collision = of_connections(RE_STAT_CONN_ID_NUM_COL_NACK_MSGS);
constexpr ChartColumn nacks_not_ready = of_connections(RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_NACK_MSGS);
constexpr ChartSeries nack_lines[] = {
    {"Chunk missed", SeriesKind::rate, nacks_missed},
    {"Checksum collision", SeriesKind::rate, nacks_collision},
    {"Cache not ready", SeriesKind::rate, nacks_not_ready},
    {"Other",
     SeriesKind::rest_rate,
     {nacks_missed, nacks_collision, nacks_not_ready},
     of_connections(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS)},
};

constexpr ChartColumn resent_missed = of_connections(RE_STAT_CONN_ID_NUM_MISS_RTX_MSGS);
constexpr ChartColumn resent_collision = of_connections(RE_STAT_CONN_ID_NUM_COL_RTX_MSGS);
constexpr ChartColumn resent_not_ready = of_connections(RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_RTX_MSGS);
constexpr ChartSeries resent_lines[] = {
    {"Chunk missed", SeriesKind::rate, resent_missed},
    {"Checksum collision", SeriesKind::rate, resent_collision},
    {"Cache not ready", SeriesKind::rate, resent_not_ready},
    {"Other",
     SeriesKind::rest_rate,
     {resent_missed, resent_collision, resent_not_ready},
     of_connections(RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS)},
};

// Causes that an operator treats alike share a line. What every message leaves over, its last chunk and headers, is no
// bypass that anybody can do something about.
constexpr ChartSeries bypass_lines[] = {
    {"Low memory", SeriesKind::rate, of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES)},
    {"Out of sync", SeriesKind::rate, of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_OUT_OF_SYNC_BYTES)},
    {"Peer not compatible",
     SeriesKind::rate,
     {of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE_BYTES),
      of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_INFO_INCORRECT_BYTES)}},
    {"Queues full",
     SeriesKind::rate,
     {of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_ACKQ_CAP_EXCEED_BYTES),
      of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_REMOTE_WAITQ_BYTES)}},
    {"Disk overloaded",
     SeriesKind::rate,
     {of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_OVERLD_BYTES),
      of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_OVERLD_BYTES)}},
    {"Disk errors",
     SeriesKind::rate,
     {of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_IO_ERR_BYTES),
      of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_IO_ERR_BYTES)}},
    {"Cache not ready",
     SeriesKind::rate,
     {of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_READY_BYTES),
      of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_CACHE_NOT_READY_BYTES)}},
    {"Low compression", SeriesKind::rate, of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_LOW_COMP_BYTES)},
    {"Compression off", SeriesKind::rate, of_connections(RE_STAT_CONN_ID_ENCODE_BYPASS_NON_KAV_COMP_TYPE_BYTES)},
};

constexpr ChartSeries connection_lines[] = {
    {"Open", SeriesKind::level, open_connections},
};

constexpr ChartSeries round_trip_lines[] = {
    {"As this engine measures it", SeriesKind::level, of_peer(RE_STAT_PEER_ID_ACK_Q_AVG_RTT), {}, microsecond_scale},
    {"As the peer measures it",
     SeriesKind::level,
     of_peer(RE_STAT_PEER_ID_REMOTE_ACK_Q_AVG_RTT),
     {},
     microsecond_scale},
};

constexpr ChartSeries buffer_lines[] = {
    {"Ack queue", SeriesKind::level, of_peer(RE_STAT_PEER_ID_ACK_Q_SIZE)},
    {"Delay buffers", SeriesKind::level, of_peer(RE_STAT_PEER_ID_DELAY_BUF_SIZE)},
    {"Agg-ft buffers", SeriesKind::level, of_peer(RE_STAT_PEER_ID_AGG_FT_BUF_SIZE)},
};

constexpr ChartColumn app_encode_in = of_application(RE_STAT_APP_ID_ENCODE_IN_KBYTES);
constexpr ChartColumn app_encode_out = of_application(RE_STAT_APP_ID_ENCODE_OUT_KBYTES);
constexpr ChartColumn app_decode_in = of_application(RE_STAT_APP_ID_DECODE_IN_KBYTES);
constexpr ChartColumn app_decode_out = of_application(RE_STAT_APP_ID_DECODE_OUT_KBYTES);
constexpr ChartSeries app_traffic[] = {
    {"Encoding, before", SeriesKind::rate, app_encode_in, {}, kilobyte_scale},
    {"Encoding, after", SeriesKind::rate, app_encode_out, {}, kilobyte_scale},
    {"Decoding, before", SeriesKind::rate, app_decode_out, {}, kilobyte_scale},
    {"Decoding, after", SeriesKind::rate, app_decode_in, {}, kilobyte_scale},
};
constexpr ChartSeries app_savings[] = {
    {"Encoding", SeriesKind::saved, app_encode_out, app_encode_in},
    {"Decoding", SeriesKind::saved, app_decode_in, app_decode_out},
};
constexpr ChartSeries app_messages[] = {
    {"Encoded", SeriesKind::rate, of_application(RE_STAT_APP_ID_ENCODE_NUM_MSGS)},
    {"Decoded", SeriesKind::rate, of_application(RE_STAT_APP_ID_DECODE_NUM_MSGS)},
};

constexpr Chart engine_charts[] = {
    {"traffic", "Traffic", ChartUnit::bytes_per_second, traffic_lines},
    {"savings", "Savings", ChartUnit::percent, savings_lines},
    {"matches", "Cache hits and misses", ChartUnit::count_per_second, match_lines},
    {"latency", "Latency", ChartUnit::seconds, engine_latency},
    {"cache", "Cache fill", ChartUnit::percent, cache_fill},
    {"cache_age", "Age of the oldest data in the cache", ChartUnit::age, cache_age},
    {"nacks", "NACKs by reason", ChartUnit::count_per_second, nack_lines},
    {"retransmissions", "Retransmissions by reason", ChartUnit::count_per_second, resent_lines},
    {"bypass", "Bypass by cause", ChartUnit::bytes_per_second, bypass_lines},
    {"connections", "Connections", ChartUnit::count, connection_lines},
};
constexpr Chart peer_charts[] = {
    {"traffic", "Traffic", ChartUnit::bytes_per_second, traffic_lines},
    {"savings", "Savings", ChartUnit::percent, savings_lines},
    {"round_trip", "Round-trip time", ChartUnit::seconds, round_trip_lines},
    {"latency", "Latency", ChartUnit::seconds, peer_latency},
    {"buffers", "Buffers", ChartUnit::bytes, buffer_lines},
    {"cache", "Cache in use", ChartUnit::bytes, peer_cache},
    {"nacks", "NACKs by reason", ChartUnit::count_per_second, nack_lines},
    {"retransmissions", "Retransmissions by reason", ChartUnit::count_per_second, resent_lines},
    {"bypass", "Bypass by cause", ChartUnit::bytes_per_second, bypass_lines},
    {"connections", "Connections", ChartUnit::count, connection_lines},
};
constexpr Chart application_charts[] = {
    {"traffic", "Traffic", ChartUnit::bytes_per_second, app_traffic},
    {"savings", "Savings", ChartUnit::percent, app_savings},
    {"messages", "Messages", ChartUnit::count_per_second, app_messages},
};

constexpr const char* chart_scope_words[] = {"engine", "peer", "application"};

template <typename Word, std::size_t Size>
const char* word_at(const char* const (&words)[Size], Word place)
{
    return words[static_cast<std::size_t>(place)];
}

std::vector<ChartColumn> columns_in(std::span<const Chart> charts)
{
    std::vector<ChartColumn> columns;
    for (const Chart& chart : charts) {
        for (const ChartSeries& series : chart.series) {
            for (const ChartColumns* const sum : {&series.part, &series.whole}) {
                for (const ChartColumn& column : sum->columns()) {
                    if (std::find(columns.begin(), columns.end(), column) == columns.end()) {
                        columns.push_back(column);
                    }
                }
            }
        }
    }
    return columns;
}

CounterScope counter_scope_of(ChartColumn::Kind kind)
{
    switch (kind) {
    case ChartColumn::Kind::peer:
        return CounterScope::peer;
    case ChartColumn::Kind::connections:
        return CounterScope::connection;
    case ChartColumn::Kind::application:
        return CounterScope::application;
    default:
        return CounterScope::engine;
    }
}

} // namespace

const char* word_of(ChartScope scope)
{
    return word_at(chart_scope_words, scope);
}

std::optional<ChartScope> chart_scope_of(std::string_view word)
{
    const auto* const found = std::find(std::begin(chart_scope_words), std::end(chart_scope_words), word);
    return found != std::end(chart_scope_words)
               ? std::optional(static_cast<ChartScope>(found - std::begin(chart_scope_words)))
               : std::nullopt;
}

const char* word_of(SeriesKind kind)
{
    static constexpr const char* words[] = {"level", "rate", "rest_rate", "mean", "saved", "fill", "age"};
    return word_at(words, kind);
}

const char* word_of(ChartUnit unit)
{
    static constexpr const char* words[] = {"bytes",   "bytes_per_second", "count", "count_per_second",
                                            "percent", "seconds",          "age"};
    return word_at(words, unit);
}

std::string ChartColumn::key() const
{
    if (kind == Kind::active_connections) {
        return "active_connections";
    }
    const std::vector<NamedCounter>& counters = counters_of(counter_scope_of(kind));
    const auto found =
        std::find_if(counters.begin(), counters.end(), [&](const NamedCounter& each) { return each.id() == id; });
    return found->key;
}

std::span<const Chart> charts_of(ChartScope scope)
{
    switch (scope) {
    case ChartScope::peer:
        return peer_charts;
    case ChartScope::application:
        return application_charts;
    case ChartScope::engine:
        break;
    }
    return engine_charts;
}

const Chart* find_chart(ChartScope scope, std::string_view name)
{
    const std::span<const Chart> charts = charts_of(scope);
    const auto found = std::find_if(charts.begin(), charts.end(), [&](const Chart& each) { return each.name == name; });
    return found != charts.end() ? &*found : nullptr;
}

const std::vector<ChartColumn>& chart_columns_of(ChartScope scope)
{
    static const std::array columns{columns_in(engine_charts), columns_in(peer_charts), columns_in(application_charts)};
    return columns[static_cast<std::size_t>(scope)];
}

void add_values(const Snapshot& snapshot, std::vector<long long>& values)
{
    for (const ChartColumn& column : chart_columns_of(ChartScope::engine)) {
        const auto id = static_cast<std::size_t>(column.id);
        switch (column.kind) {
        case ChartColumn::Kind::connections:
            values.push_back(snapshot.connections[id]);
            break;
        case ChartColumn::Kind::active_connections:
            values.push_back(snapshot.active_connections);
            break;
        default:
            values.push_back(snapshot.engine[id]);
        }
    }
}

void add_values(const SnapshotPeer& peer, std::vector<long long>& values)
{
    for (const ChartColumn& column : chart_columns_of(ChartScope::peer)) {
        const auto id = static_cast<std::size_t>(column.id);
        switch (column.kind) {
        case ChartColumn::Kind::connections:
            values.push_back(peer.connections[id]);
            break;
        case ChartColumn::Kind::active_connections:
            values.push_back(peer.active_connections);
            break;
        default:
            values.push_back(peer.figures[id]);
        }
    }
}

void add_values(const SnapshotApp& app, std::vector<long long>& values)
{
    for (const ChartColumn& column : chart_columns_of(ChartScope::application)) {
        values.push_back(app.app.m_id_array[column.id]);
    }
}

} // namespace kavstat
