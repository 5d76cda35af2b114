#include "page/table_rows.h"

#include "model/change.h"

#include <memory>

namespace kavstat {

namespace {

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

constexpr TableColumn<ConnRow> conn_columns[] = {
    {"connection", "Connection", "number",
     [](const ConnRow& c) { return TableCell(static_cast<long long>(c.header.m_conn_id)); }},
    {"peer", "Peer", "number", [](const ConnRow& c) { return TableCell(static_cast<long long>(c.peer_number)); }},
    {"client", "Client", "text",
     [](const ConnRow& c) { return TableCell(end_of_connection(c.header.m_client_ip, c.header.m_client_port)); }},
    {"server", "Server", "text",
     [](const ConnRow& c) { return TableCell(end_of_connection(c.header.m_server_ip, c.header.m_server_port)); }},
    {"state", "State", "text", [](const ConnRow& c) { return TableCell(std::string(c.b_open ? "open" : "closed")); }},
    {"open_time", "Opened", "time", [](const ConnRow& c) { return TableCell(static_cast<long long>(c.open_time)); }},
    {"before_rate", "Before", "bytes_per_second", [](const ConnRow& c) { return cell_of(c.rates.before); }},
    {"after_rate", "After", "bytes_per_second", [](const ConnRow& c) { return cell_of(c.rates.after); }},
    {"saved", "Saved now", "percent", [](const ConnRow& c) { return c.rates.saved(); }},
    {"saved_total", "Saved in all", "percent",
     [](const ConnRow& c) {
         return saved_of(static_cast<double>(c.encode_in) + static_cast<double>(c.decode_out),
                         static_cast<double>(c.encode_out) + static_cast<double>(c.decode_in));
     }},
    {"encode_in", "Encode in", "bytes", [](const ConnRow& c) { return TableCell(c.encode_in); }},
    {"encode_out", "Encode out", "bytes", [](const ConnRow& c) { return TableCell(c.encode_out); }},
    {"decode_in", "Decode in", "bytes", [](const ConnRow& c) { return TableCell(c.decode_in); }},
    {"decode_out", "Decode out", "bytes", [](const ConnRow& c) { return TableCell(c.decode_out); }},
};

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
    RowSelection<ConnRow> selection;
    JsonWriter json;
    std::size_t total = 0;
    int next = 0;
};

} // namespace

bool is_connection_column(const std::string& key)
{
    return has_column_in<ConnRow>(conn_columns, key);
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

} // namespace kavstat
