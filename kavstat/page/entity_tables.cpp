#include "page/entity_tables.h"

#include "format/json_writer.h"
#include "format/text.h"
#include "model/change.h"
#include "model/record_fields.h"
#include "model/words.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <variant>

namespace kavstat {

namespace {

// A cell; nothing where it is not known.
using Cell = std::variant<std::monostate, long long, double, std::string>;

template <typename Row>
struct Column
{
    const char* key;
    const char* title;
    const char* unit; // how it is shown; "key" is not shown, but names the row
    Cell (*cell)(const Row& row);
};

// Rates per second of a row's traffic; nothing without an earlier moment.
struct RowRates
{
    std::optional<double> before;
    std::optional<double> after;

    Cell saved() const
    {
        const bool b_traffic = before && after && (*before > 0 || *after > 0);
        return b_traffic ? Cell(saved_percent(*before, *after)) : Cell();
    }
};

Cell cell_of(const std::optional<double>& value)
{
    return value ? Cell(*value) : Cell();
}

// Percent saved of all traffic since the start.
Cell saved_of(double before, double after)
{
    return before > 0 || after > 0 ? Cell(saved_percent(before, after)) : Cell();
}

// "low_compression" for people.
std::string spaced(std::string word)
{
    std::replace(word.begin(), word.end(), '_', ' ');
    return word;
}

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

constexpr Column<PeerRow> peer_columns[] = {
    {"key", "Key", "key", [](const PeerRow& p) { return Cell(entity_key(*p.now)); }},
    {"peer", "Peer", "number", [](const PeerRow& p) { return Cell(static_cast<long long>(p.now->number)); }},
    {"host_name", "Host", "text",
     [](const PeerRow& p) { return Cell(clean_text(text_in(p.now->header.m_peer_host_name))); }},
    {"ip", "Address", "text", [](const PeerRow& p) { return Cell(ip_text(p.now->header.m_peer_ip)); }},
    {"health", "Health", "health", [](const PeerRow& p) { return Cell(std::string(p.health)); }},
    {"connections", "Connections", "count",
     [](const PeerRow& p) { return Cell(static_cast<long long>(p.now->active_connections)); }},
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
         return Cell(static_cast<double>(p.figure(RE_STAT_PEER_ID_ACK_Q_AVG_RTT)) / microseconds_a_second);
     }},
    {"ack_queue", "Ack queue", "bytes", [](const PeerRow& p) { return Cell(p.figure(RE_STAT_PEER_ID_ACK_Q_SIZE)); }},
    {"delay_buffers", "Delay buffers", "bytes",
     [](const PeerRow& p) { return Cell(p.figure(RE_STAT_PEER_ID_DELAY_BUF_SIZE)); }},
    {"encode_in", "Encode in", "bytes",
     [](const PeerRow& p) { return Cell(p.total(RE_STAT_CONN_ID_ENCODE_IN_BYTES)); }},
    {"encode_out", "Encode out", "bytes",
     [](const PeerRow& p) { return Cell(p.total(RE_STAT_CONN_ID_ENCODE_OUT_BYTES)); }},
    {"decode_in", "Decode in", "bytes",
     [](const PeerRow& p) { return Cell(p.total(RE_STAT_CONN_ID_DECODE_IN_BYTES)); }},
    {"decode_out", "Decode out", "bytes",
     [](const PeerRow& p) { return Cell(p.total(RE_STAT_CONN_ID_DECODE_OUT_BYTES)); }},
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

constexpr Column<AppRow> app_columns[] = {
    {"key", "Key", "key", [](const AppRow& a) { return Cell(entity_key(*a.now)); }},
    {"application", "Application", "text",
     [](const AppRow& a) { return Cell(application_label(a.now->app.m_header)); }},
    {"peer", "Peer", "number", [](const AppRow& a) { return Cell(static_cast<long long>(a.now->peer_number)); }},
    {"host_name", "Host", "text", [](const AppRow& a) { return Cell(a.host_name); }},
    {"before_rate", "Before", "bytes_per_second", [](const AppRow& a) { return cell_of(a.rates().before); }},
    {"after_rate", "After", "bytes_per_second", [](const AppRow& a) { return cell_of(a.rates().after); }},
    {"saved", "Saved now", "percent", [](const AppRow& a) { return a.rates().saved(); }},
    {"saved_total", "Saved in all", "percent",
     [](const AppRow& a) {
         return saved_of(
             static_cast<double>(a.total(RE_STAT_APP_ID_ENCODE_IN_KBYTES) + a.total(RE_STAT_APP_ID_DECODE_OUT_KBYTES)),
             static_cast<double>(a.total(RE_STAT_APP_ID_ENCODE_OUT_KBYTES) + a.total(RE_STAT_APP_ID_DECODE_IN_KBYTES)));
     }},
    {"encode_in", "Encode in", "bytes", [](const AppRow& a) { return Cell(a.total(RE_STAT_APP_ID_ENCODE_IN_KBYTES)); }},
    {"encode_out", "Encode out", "bytes",
     [](const AppRow& a) { return Cell(a.total(RE_STAT_APP_ID_ENCODE_OUT_KBYTES)); }},
    {"decode_in", "Decode in", "bytes", [](const AppRow& a) { return Cell(a.total(RE_STAT_APP_ID_DECODE_IN_KBYTES)); }},
    {"decode_out", "Decode out", "bytes",
     [](const AppRow& a) { return Cell(a.total(RE_STAT_APP_ID_DECODE_OUT_KBYTES)); }},
};

struct ConnRow
{
    RE_stat_conn_header header{};
    int peer_number = -1;
    std::time_t open_time = 0;
    bool b_open = false;
    long long encode_in = 0;
    long long encode_out = 0;
    long long decode_in = 0;
    long long decode_out = 0;
    RowRates rates;
};

std::string end_of_connection(std::uint32_t ip, unsigned int port)
{
    return ip_text(ip) + ":" + std::to_string(port);
}

constexpr Column<ConnRow> conn_columns[] = {
    {"connection", "Connection", "number",
     [](const ConnRow& c) { return Cell(static_cast<long long>(c.header.m_conn_id)); }},
    {"peer", "Peer", "number", [](const ConnRow& c) { return Cell(static_cast<long long>(c.peer_number)); }},
    {"client", "Client", "text",
     [](const ConnRow& c) { return Cell(end_of_connection(c.header.m_client_ip, c.header.m_client_port)); }},
    {"server", "Server", "text",
     [](const ConnRow& c) { return Cell(end_of_connection(c.header.m_server_ip, c.header.m_server_port)); }},
    {"state", "State", "text", [](const ConnRow& c) { return Cell(std::string(c.b_open ? "open" : "closed")); }},
    {"open_time", "Opened", "time", [](const ConnRow& c) { return Cell(static_cast<long long>(c.open_time)); }},
    {"before_rate", "Before", "bytes_per_second", [](const ConnRow& c) { return cell_of(c.rates.before); }},
    {"after_rate", "After", "bytes_per_second", [](const ConnRow& c) { return cell_of(c.rates.after); }},
    {"saved", "Saved now", "percent", [](const ConnRow& c) { return c.rates.saved(); }},
    {"saved_total", "Saved in all", "percent",
     [](const ConnRow& c) {
         return saved_of(static_cast<double>(c.encode_in) + static_cast<double>(c.decode_out),
                         static_cast<double>(c.encode_out) + static_cast<double>(c.decode_in));
     }},
    {"encode_in", "Encode in", "bytes", [](const ConnRow& c) { return Cell(c.encode_in); }},
    {"encode_out", "Encode out", "bytes", [](const ConnRow& c) { return Cell(c.encode_out); }},
    {"decode_in", "Decode in", "bytes", [](const ConnRow& c) { return Cell(c.decode_in); }},
    {"decode_out", "Decode out", "bytes", [](const ConnRow& c) { return Cell(c.decode_out); }},
};

constexpr Column<RE_stat_nack_header> nack_columns[] = {
    {"time", "Time", "time", [](const RE_stat_nack_header& n) { return Cell(static_cast<long long>(n.m_time)); }},
    {"type", "Type", "text",
     [](const RE_stat_nack_header& n) {
         return Cell(std::string(n.m_type == RE_STAT_NACK_AT_RECEIVER ? "sent a NACK" : "sent again"));
     }},
    {"reason", "Reason", "text",
     [](const RE_stat_nack_header& n) { return Cell(spaced(word_for(nack_reason_words, n.m_reason))); }},
    {"peer", "Peer", "number", [](const RE_stat_nack_header& n) { return Cell(static_cast<long long>(n.m_peer_id)); }},
    {"connection", "Connection", "number",
     [](const RE_stat_nack_header& n) { return Cell(static_cast<long long>(n.m_conn_id)); }},
    {"message", "Message", "number",
     [](const RE_stat_nack_header& n) { return Cell(static_cast<long long>(n.m_msg_seq_no)); }},
};

constexpr Column<RE_bypass_entry> bypass_columns[] = {
    {"server", "Server", "text",
     [](const RE_bypass_entry& b) { return Cell(end_of_connection(b.server_ip, b.server_port)); }},
    {"reason", "Reason", "text",
     [](const RE_bypass_entry& b) { return Cell(spaced(word_for(bypass_reason_words, static_cast<int>(b.reason)))); }},
    {"since", "Since", "time", [](const RE_bypass_entry& b) { return Cell(static_cast<long long>(b.since)); }},
    {"next_attempt", "Next attempt", "time",
     [](const RE_bypass_entry& b) {
         return b.next_attempt != 0 ? Cell(static_cast<long long>(b.next_attempt)) : Cell();
     }},
    {"bytes", "Bypassed", "bytes", [](const RE_bypass_entry& b) { return Cell(static_cast<double>(b.bytes)); }},
    {"connections", "Connections", "count",
     [](const RE_bypass_entry& b) { return Cell(static_cast<double>(b.connections)); }},
};

struct SettingRow
{
    const char* key;
    const char* meaning;
    const char* unit;
    Cell value;
};

constexpr Column<SettingRow> setting_columns[] = {
    {"setting", "Setting", "text", [](const SettingRow& s) { return Cell(std::string(s.key)); }},
    {"value", "Value", "value", [](const SettingRow& s) { return s.value; }},
    {"unit", "Unit", "text", [](const SettingRow& s) { return Cell(std::string(s.unit)); }},
    {"meaning", "Meaning", "text", [](const SettingRow& s) { return Cell(std::string(s.meaning)); }},
};

// A field of a record as a cell.
struct CellOfField
{
    Cell operator()(bool b_value) const { return std::string(b_value ? "yes" : "no"); }
    Cell operator()(long long value) const { return value; }
    Cell operator()(std::uint64_t value) const { return static_cast<double>(value); }
    Cell operator()(Port port) const { return static_cast<double>(port.number); }
    Cell operator()(IpAddress address) const { return ip_text(address.ip); }
    Cell operator()(const RE_mac_id& mac) const { return mac.getString(); }
    Cell operator()(const RE_kav_peer_id& identity) const { return identity.getString(); }
    Cell operator()(const Word& word) const { return spaced(word_for(word.words, word.code)); }
    Cell operator()(std::string_view text) const { return clean_text(text); }
};

const char* word_of_unit(RE_stat_unit unit)
{
    static constexpr const char* words[] = {
#define RE_STAT_UNIT(word) #word,
#include "RE_stat_counters.def"
    };
    return words[static_cast<std::size_t>(unit)];
}

struct CellWriter
{
    void operator()(std::monostate) const { json.null(); }
    void operator()(long long value) const { json.number(value); }
    void operator()(double value) const { json.real(value); }
    void operator()(const std::string& value) const { json.text(value); }

    JsonWriter& json;
};

// What a number is ordered by; nothing for texts and unknown cells.
std::optional<double> order_of(const Cell& cell)
{
    if (const auto* const whole = std::get_if<long long>(&cell)) {
        return static_cast<double>(*whole);
    }
    const auto* const real = std::get_if<double>(&cell);
    return real != nullptr ? std::optional(*real) : std::nullopt;
}

// Whether a row with cell `one` comes before one with `other`. What is not known comes last, whichever way round.
bool comes_before(const Cell& one, const Cell& other, bool b_reverse)
{
    const bool b_one = !std::holds_alternative<std::monostate>(one);
    const bool b_other = !std::holds_alternative<std::monostate>(other);
    if (!b_one || !b_other) {
        return b_one && !b_other;
    }
    const auto* const text = std::get_if<std::string>(&one);
    const auto* const other_text = std::get_if<std::string>(&other);
    if (text != nullptr && other_text != nullptr) {
        return b_reverse ? *other_text < *text : *text < *other_text;
    }
    const double number = order_of(one).value_or(0);
    const double other_number = order_of(other).value_or(0);
    return b_reverse ? number < other_number : number > other_number;
}

// The rows that a query asks for: of those that contain its text the first ones, in its order.
template <typename Row>
class Selection
{
public:
    Selection(std::span<const Column<Row>> columns, const TableQuery& query)
        : m_columns(columns), m_query(query), m_search(lower_case(query.search)),
          m_order(std::find_if(columns.begin(), columns.end(), [&](const Column<Row>& column) {
                      return column.key == query.sort;
                  })->cell)
    {}

    void add(Row row)
    {
        if (!contains(row)) {
            return;
        }
        Ranked ranked{m_order(row), m_matching++, std::move(row)};
        if (m_rows.size() == m_query.top) {
            if (m_rows.empty() || !is_ahead(ranked, m_rows.front())) {
                return;
            }
            std::pop_heap(m_rows.begin(), m_rows.end(), ahead());
            m_rows.pop_back();
        }
        m_rows.push_back(std::move(ranked));
        std::push_heap(m_rows.begin(), m_rows.end(), ahead());
    }

    // total: of rows, also those that do not match.
    void write(JsonWriter& json, std::size_t total)
    {
        std::sort_heap(m_rows.begin(), m_rows.end(), ahead());
        json.member("total", static_cast<long long>(total));
        json.member("matching", static_cast<long long>(m_matching));
        json.key("columns");
        json.begin_array();
        for (const Column<Row>& column : m_columns) {
            json.begin_object();
            json.member_text("key", column.key);
            json.member_text("title", column.title);
            json.member_text("unit", column.unit);
            json.end_object();
        }
        json.end_array();
        json.key("rows");
        json.begin_array();
        for (const Ranked& ranked : m_rows) {
            json.begin_array();
            for (const Column<Row>& column : m_columns) {
                std::visit(CellWriter{json}, column.cell(ranked.row));
            }
            json.end_array();
        }
        json.end_array();
    }

private:
    struct Ranked
    {
        Cell order;
        std::size_t place; // among those that match, for rows that are equal otherwise
        Row row;
    };

    bool is_ahead(const Ranked& one, const Ranked& other) const
    {
        if (comes_before(one.order, other.order, m_query.b_reverse)) {
            return true;
        }
        return !comes_before(other.order, one.order, m_query.b_reverse) && one.place < other.place;
    }
    auto ahead() const
    {
        return [this](const Ranked& one, const Ranked& other) { return is_ahead(one, other); };
    }

    bool contains(const Row& row) const
    {
        return m_search.empty() || std::any_of(m_columns.begin(), m_columns.end(), [&](const Column<Row>& column) {
                   const std::string_view unit = column.unit;
                   const bool b_text = unit == "text" || unit == "number" || unit == "key";
                   return b_text && text_of_cell(column.cell(row)).find(m_search) != std::string::npos;
               });
    }

    static std::string text_of_cell(const Cell& cell)
    {
        if (const auto* const number = std::get_if<long long>(&cell)) {
            return std::to_string(*number);
        }
        const auto* const text = std::get_if<std::string>(&cell);
        return text != nullptr ? lower_case(*text) : "";
    }

    std::span<const Column<Row>> m_columns;
    TableQuery m_query;
    std::string m_search;
    Cell (*m_order)(const Row&);
    std::size_t m_matching = 0;
    std::vector<Ranked> m_rows; // a heap, the last row in front
};

void write_table_head(JsonWriter& json, TableOf table, const Snapshot& now, double seconds)
{
    json.begin_object();
    json.member("kavstat_table", table_json_version);
    json.member_text("of", word_of(table));
    json.member("engine_start_time", static_cast<long long>(now.engine_start_time));
    json.member("capture_time", static_cast<long long>(now.capture_time));
    json.key("seconds");
    if (seconds > 0) {
        json.real(seconds);
    } else {
        json.null();
    }
}

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

// Distinguishes connections that have the same slot one after the other.
std::uint32_t identity_of(const ConnRow& row)
{
    return static_cast<std::uint32_t>(row.header.m_conn_id) * 2654435761U ^ static_cast<std::uint32_t>(row.open_time);
}

bool read_row(RE_stat_reader& reader, int slot, ConnRow& row)
{
    std::time_t close_time = 0;
    if (!reader.is_conn_valid(slot) || reader.read_conn_header(slot, row.header) < 0 ||
        reader.read_conn_time(slot, row.open_time, close_time) < 0 ||
        reader.read_conn_peer_id(slot, row.peer_number) < 0 ||
        reader.read_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, row.encode_in) < 0 ||
        reader.read_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, row.encode_out) < 0 ||
        reader.read_conn_stat(slot, RE_STAT_CONN_ID_DECODE_IN_BYTES, row.decode_in) < 0 ||
        reader.read_conn_stat(slot, RE_STAT_CONN_ID_DECODE_OUT_BYTES, row.decode_out) < 0) {
        return false;
    }
    row.b_open = close_time <= 0;
    return true;
}

// Sums of counters that may be any: they wrap.
long long wrapped_sum(long long one, long long other)
{
    return static_cast<long long>(static_cast<unsigned long long>(one) + static_cast<unsigned long long>(other));
}

std::optional<double> known(float rate)
{
    return rate >= 0 ? std::optional(static_cast<double>(rate)) : std::nullopt;
}

// A table of connections that is being made.
struct ConnectionsInWork
{
    ConnectionsInWork(RE_image_reader& its_reader, ConnectionRates& its_rates, const TableQuery& query, Output& output)
        : reader(its_reader), rates(its_rates), selection(conn_columns, query), json(output)
    {}

    void read_slot(int slot)
    {
        ConnRow row;
        if (!read_row(reader, slot, row)) {
            return;
        }
        ++total;
        const ConnectionRates::Rates found =
            rates.update(static_cast<std::size_t>(slot), identity_of(row),
                         {wrapped_sum(row.encode_in, row.decode_out), wrapped_sum(row.encode_out, row.decode_in)},
                         ConnectionRates::clock::now());
        row.rates = {known(found.before), known(found.after)};
        selection.add(row);
    }

    RE_image_reader& reader;
    ConnectionRates& rates;
    Selection<ConnRow> selection;
    JsonWriter json;
    std::size_t total = 0;
    int next = 0;
};

// A table of NACKs that is being made.
struct NacksInWork
{
    NacksInWork(const TableQuery& query, Output& output) : selection(nack_columns, query), json(output) {}

    Selection<RE_stat_nack_header> selection;
    JsonWriter json;
    std::size_t total = 0;
    int cursor = 0;
    bool b_begun = false;
};

template <typename Row>
bool has_column_in(std::span<const Column<Row>> columns, const std::string& key)
{
    return std::any_of(columns.begin(), columns.end(), [&](const Column<Row>& column) { return column.key == key; });
}

} // namespace

const char* word_of(TableOf table)
{
    static constexpr const char* words[] = {"peers", "applications", "connections", "nacks", "bypass", "configuration"};
    return words[static_cast<std::size_t>(table)];
}

const char* usual_sort(TableOf table)
{
    static constexpr const char* keys[] = {"before_rate", "before_rate", "before_rate", "time", "since", "setting"};
    return keys[static_cast<std::size_t>(table)];
}

bool has_column(TableOf table, const std::string& key)
{
    switch (table) {
    case TableOf::peers:
        return has_column_in<PeerRow>(peer_columns, key);
    case TableOf::applications:
        return has_column_in<AppRow>(app_columns, key);
    case TableOf::connections:
        return has_column_in<ConnRow>(conn_columns, key);
    case TableOf::nacks:
        return has_column_in<RE_stat_nack_header>(nack_columns, key);
    case TableOf::bypass:
        return has_column_in<RE_bypass_entry>(bypass_columns, key);
    case TableOf::configuration:
        break;
    }
    return has_column_in<SettingRow>(setting_columns, key);
}

void write_peers(const TwoMoments& moments, const std::vector<Finding>& findings, const TableQuery& query,
                 Output& output)
{
    const Earlier<SnapshotPeer> earlier(moments.before != nullptr ? &moments.before->peers : nullptr);
    const std::map<int, const char*> words = health_of_peers(findings);
    Selection<PeerRow> selection(peer_columns, query);
    for (const SnapshotPeer& peer : moments.now->peers) {
        const auto word = words.find(peer.slot);
        selection.add({&peer, earlier.find(peer), moments.seconds, word != words.end() ? word->second : "ok"});
    }
    JsonWriter json(output);
    write_table_head(json, TableOf::peers, *moments.now, moments.seconds);
    selection.write(json, moments.now->peers.size());
    json.end_object();
}

void write_applications(const TwoMoments& moments, const TableQuery& query, Output& output)
{
    const Earlier<SnapshotApp> earlier(moments.before != nullptr ? &moments.before->apps : nullptr);
    std::unordered_map<int, std::string> hosts;
    for (const SnapshotPeer& peer : moments.now->peers) {
        hosts.emplace(peer.number, clean_text(text_in(peer.header.m_peer_host_name)));
    }
    Selection<AppRow> selection(app_columns, query);
    for (const SnapshotApp& app : moments.now->apps) {
        const auto host = hosts.find(app.peer_number);
        selection.add({&app, earlier.find(app), moments.seconds, host != hosts.end() ? host->second : ""});
    }
    JsonWriter json(output);
    write_table_head(json, TableOf::applications, *moments.now, moments.seconds);
    selection.write(json, moments.now->apps.size());
    json.end_object();
}

ConnectionRates::Rates ConnectionRates::update(std::size_t slot, std::uint32_t identity, const Volumes& volumes,
                                               clock::time_point at)
{
    m_used = at;
    if (slot >= m_earlier.size()) {
        m_earlier.resize(slot + 1);
    }
    Earlier& earlier = m_earlier[slot];
    if (!earlier.b_there || earlier.identity != identity) {
        earlier = {identity, true, at, volumes, {-1, -1}};
        return earlier.rates;
    }
    if (at - earlier.at < least_time) {
        return earlier.rates;
    }
    const double seconds = std::chrono::duration<double>(at - earlier.at).count();
    const auto rate = [&](long long then, long long now) {
        return static_cast<float>(rate_of(change_of(RE_stat_kind::total, then, now, false), seconds));
    };
    earlier.rates = {rate(earlier.volumes.before, volumes.before), rate(earlier.volumes.after, volumes.after)};
    earlier.at = at;
    earlier.volumes = volumes;
    return earlier.rates;
}

void ConnectionRates::forget_unless_used(clock::time_point at)
{
    constexpr std::chrono::seconds kept(60);
    if (!m_earlier.empty() && at - m_used > kept) {
        m_earlier = {};
    }
}

Document connections_document(RE_image_reader& reader, const Snapshot& snapshot, ConnectionRates& rates,
                              const TableQuery& query, Output& output)
{
    // Other clients are served between two parts.
    constexpr int slots_at_once = 4096;
    const auto work = std::make_shared<ConnectionsInWork>(reader, rates, query, output);
    Document document;
    document.add_once([work, &snapshot] { write_table_head(work->json, TableOf::connections, snapshot, 0); });
    document.add([work, &output] {
        const int slots = work->reader.get_max_conn_slots();
        const int end = std::min(work->next + slots_at_once, slots);
        while (work->next < end) {
            work->read_slot(work->next++);
        }
        output.add('\n');
        output.flush();
        return work->next < slots;
    });
    document.add_once([work, &output] {
        work->selection.write(work->json, work->total);
        work->json.end_object();
        if (work->reader.is_cut()) {
            output.give_up();
        }
    });
    return document;
}

Document nacks_document(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output)
{
    constexpr int nacks_at_once = 4096;
    const auto work = std::make_shared<NacksInWork>(query, output);
    Document document;
    document.add_once([work, &snapshot] { write_table_head(work->json, TableOf::nacks, snapshot, 0); });
    document.add([work, &reader, &output] {
        if (!work->b_begun) {
            work->b_begun = true;
            work->cursor = reader.get_first_nack();
        }
        RE_stat_nack_header nack{};
        for (int count = 0; count < nacks_at_once && work->cursor >= 0; ++count) {
            work->cursor = reader.get_next_nack(work->cursor, nack);
            if (work->cursor >= 0) {
                ++work->total;
                work->selection.add(nack);
            }
        }
        output.add('\n');
        output.flush();
        return work->cursor >= 0;
    });
    document.add_once([work, &reader, &output] {
        work->selection.write(work->json, work->total);
        work->json.end_object();
        if (reader.is_cut()) {
            output.give_up();
        }
    });
    return document;
}

void write_bypass(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output)
{
    const auto entries = read_bypass(reader).value_or(std::vector<RE_bypass_entry>());
    Selection<RE_bypass_entry> selection(bypass_columns, query);
    for (const RE_bypass_entry& entry : entries) {
        selection.add(entry);
    }
    JsonWriter json(output);
    write_table_head(json, TableOf::bypass, snapshot, 0);
    selection.write(json, entries.size());
    json.end_object();
}

void write_configuration(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output)
{
    const RE_stat_config_param* const config = reader.get_config_param();
    Selection<SettingRow> selection(setting_columns, query);
    const Fields<RE_stat_config_param> fields = config != nullptr ? config_fields : Fields<RE_stat_config_param>();
    for (const Field<RE_stat_config_param>& field : fields) {
        const char* const unit = field.unit ? word_of_unit(*field.unit) : "";
        selection.add({field.key, field.meaning, unit, std::visit(CellOfField(), field.value(*config))});
    }
    JsonWriter json(output);
    write_table_head(json, TableOf::configuration, snapshot, 0);
    selection.write(json, fields.size());
    json.end_object();
}

} // namespace kavstat
