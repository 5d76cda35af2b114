#include "history/reader.h"

#include "history/rows.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include <unistd.h>

namespace kavstat {

namespace {

constexpr const char* sample_columns =
    "SELECT id, time, engine_start, elapsed, configuration, base, first_nack, end_nack, bypass_table FROM sample ";

// Damaged or hostile rows do not make differences of times and ids overflow.
constexpr long long latest_time = 1LL << 40;
constexpr double longest_elapsed = 1e9;

HistorySample sample_of(const Statement& row)
{
    HistorySample sample;
    sample.id = row.integer(0);
    sample.time = std::clamp(row.integer(1), -latest_time, latest_time);
    sample.engine_start = row.integer(2);
    if (const double elapsed = row.real(3); !row.is_null(3) && elapsed >= 0 && elapsed <= longest_elapsed) {
        sample.elapsed = elapsed;
    }
    sample.configuration = row.is_null(4) ? std::nullopt : std::optional(row.integer(4));
    sample.base = std::max(row.integer(5), 0LL);
    sample.first_nack = row.integer(6);
    sample.end_nack = row.integer(7);
    sample.b_bypass_table = row.integer(8) != 0;
    return sample;
}

// Damaged or hostile rows do not make an image larger than one can be.
bool is_possible(const SnapshotPeer& peer)
{
    return peer.slot >= 0 && static_cast<std::uint64_t>(peer.slot) < RE_image_max_peers;
}

bool is_possible(const SnapshotApp& app)
{
    return app.slot >= 0 && static_cast<std::uint64_t>(app.slot) < RE_image_max_apps;
}

bool is_possible(const RE_bypass_entry& /*entry*/)
{
    return true;
}

// Any integers may be in a file.
long long wrapping_sum(long long left, long long right)
{
    return static_cast<long long>(static_cast<unsigned long long>(left) + static_cast<unsigned long long>(right));
}

bool has_column(const HistoryTable& table, const std::string& name)
{
    return std::any_of(table.columns.begin(), table.columns.end(),
                       [&](const HistoryColumn& column) { return column.name == name; });
}

} // namespace

std::string open_history(Database& database, const std::string& path)
{
    // SQLite has one error text for all reasons.
    if (access(path.c_str(), R_OK) != 0) {
        return std::strerror(errno);
    }
    if (!database.open(path, Database::Access::read)) {
        return database.error();
    }
    return check_schema(database);
}

bool HistoryReader::fail(const Statement& statement)
{
    m_error = statement.is_failed() || !statement.is_ready() ? m_database.error() : "";
    return !m_error.empty();
}

std::optional<HistorySample> HistoryReader::one(const std::string& rest, long long parameter)
{
    Statement statement = m_database.prepare(sample_columns + rest);
    if (rest.find('?') != std::string::npos) {
        statement.bind(parameter);
    }
    const bool b_there = statement.next();
    fail(statement);
    return b_there ? std::optional(sample_of(statement)) : std::nullopt;
}

std::optional<HistorySample> HistoryReader::first()
{
    return one("ORDER BY id LIMIT 1");
}

std::optional<HistorySample> HistoryReader::last()
{
    return one("ORDER BY id DESC LIMIT 1");
}

std::optional<HistorySample> HistoryReader::at(std::time_t moment)
{
    return one("WHERE time <= ? ORDER BY id DESC LIMIT 1", moment);
}

std::optional<HistorySample> HistoryReader::before(const HistorySample& sample)
{
    return one("WHERE id < ? ORDER BY id DESC LIMIT 1", sample.id);
}

std::optional<HistorySample> HistoryReader::after(const HistorySample& sample)
{
    return one("WHERE id > ? ORDER BY id LIMIT 1", sample.id);
}

std::optional<HistorySample> HistoryReader::sample(long long id)
{
    return one("WHERE id = ?", id);
}

std::vector<HistorySample> HistoryReader::all(Statement& statement)
{
    std::vector<HistorySample> samples;
    while (statement.next()) {
        samples.push_back(sample_of(statement));
    }
    fail(statement);
    return samples;
}

std::vector<HistorySample> HistoryReader::samples(const HistorySpan& span)
{
    Statement statement = m_database.prepare(std::string(sample_columns) + "WHERE time >= ? AND time <= ? ORDER BY id");
    statement.bind(static_cast<long long>(span.from.value_or(std::numeric_limits<std::time_t>::min())));
    statement.bind(static_cast<long long>(span.to.value_or(std::numeric_limits<std::time_t>::max())));
    return all(statement);
}

bool HistoryReader::read_engine(RecordedMoment& moment)
{
    Statement start = m_database.prepare("SELECT start_time, application_slots FROM engine_start WHERE id = ?");
    start.bind(moment.sample.engine_start);
    if (start.next()) {
        moment.engine_start_time = std::clamp(start.integer(0), -latest_time, latest_time);
        moment.app_slots =
            static_cast<int>(std::clamp<long long>(start.integer(1), 0, static_cast<long long>(RE_image_max_apps)));
    }
    if (fail(start)) {
        return false;
    }
    Statement row = m_database.prepare("SELECT " + selection(m_database, history_table("engine_figures")) +
                                       " FROM engine_figures WHERE sample = ?");
    row.bind(moment.sample.id);
    if (row.next()) {
        int column = 1;
        moment.active_connections = static_cast<int>(row.integer(column++));
        read_counters(row, column, CounterScope::engine, std::span<long long>(moment.engine));
        read_counters(row, column, CounterScope::connection, std::span<long long>(moment.connections));
    }
    return !fail(row);
}

bool HistoryReader::read_config(RecordedMoment& moment)
{
    if (!moment.sample.configuration) {
        return true;
    }
    Statement row = m_database.prepare("SELECT record FROM configuration WHERE id = ?");
    row.bind(*moment.sample.configuration);
    if (row.next()) {
        const std::string_view record = row.bytes(0);
        moment.config.emplace();
        // A bool of any other value than 0 and 1 is none; the image's reader sees to that.
        std::memcpy(static_cast<void*>(&*moment.config), record.data(), std::min(record.size(), sizeof *moment.config));
    }
    return !fail(row);
}

template <typename Record>
bool HistoryReader::read_entries(HistoryKind kind, const HistorySample& sample, std::vector<Recorded<Record>>& entries)
{
    constexpr int own_columns = 4;
    const HistoryTable& identities = identities_of(kind);
    Statement row = m_database.prepare("SELECT " + selection(m_database, identities) + " FROM " + identities.name +
                                       " WHERE engine_start = ? AND first_sample <= ? AND (gone_sample IS NULL OR "
                                       "gone_sample > ?)");
    row.bind(sample.engine_start).bind(sample.id).bind(sample.id);
    std::unordered_map<long long, std::size_t> place_of_identity;
    while (row.next()) {
        Recorded<Record> entry;
        entry.identity = row.integer(0);
        read_identity(row, own_columns, entry.record);
        if (is_possible(entry.record)) {
            place_of_identity.emplace(entry.identity, entries.size());
            entries.push_back(std::move(entry));
        }
    }
    if (fail(row)) {
        return false;
    }
    // From the newest row on: what was left out of a sample had not changed.
    const HistoryTable& figures = figures_of(kind);
    Statement figure = m_database.prepare("SELECT " + selection(m_database, figures) + " FROM " + figures.name +
                                          " WHERE sample >= ? AND sample <= ? ORDER BY sample DESC");
    figure.bind(sample.base).bind(sample.id);
    std::vector<bool> b_seen(entries.size());
    std::size_t missing = entries.size();
    while (missing > 0 && figure.next()) {
        const auto found = place_of_identity.find(figure.integer(1));
        if (found != place_of_identity.end() && !b_seen[found->second]) {
            read_figures(figure, 2, entries[found->second].record);
            b_seen[found->second] = true;
            --missing;
        }
    }
    if (fail(figure)) {
        return false;
    }
    std::sort(entries.begin(), entries.end(), [](const Recorded<Record>& left, const Recorded<Record>& right) {
        return entry_place(left.record) < entry_place(right.record);
    });
    const auto end = std::unique(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
        return entry_place(left.record) == entry_place(right.record);
    });
    entries.erase(end, entries.end());
    return true;
}

bool HistoryReader::read_nacks(RecordedMoment& moment)
{
    const HistoryTable& table = history_table("nack");
    Statement row = m_database.prepare("SELECT " + selection(m_database, table) +
                                       " FROM nack WHERE engine_start = ? AND number >= ? AND number < ? "
                                       "ORDER BY number LIMIT " +
                                       std::to_string(RE_image_max_nacks));
    row.bind(moment.sample.engine_start).bind(moment.sample.first_nack).bind(moment.sample.end_nack);
    while (row.next()) {
        read_nack_row(row, 3, moment.nacks.emplace_back());
    }
    return !fail(row);
}

bool HistoryReader::read_conns(RecordedMoment& moment)
{
    const HistoryTable& table = history_table("connection");
    Statement row = m_database.prepare("SELECT " + selection(m_database, table) +
                                       " FROM connection WHERE sample = ? ORDER BY slot, open_time");
    row.bind(moment.sample.id);
    int last_slot = -1;
    while (row.next()) {
        SnapshotConn conn;
        read_connection_row(row, 1, conn);
        // Slots that are not in ascending order are not integers: a damaged or hostile file.
        if (conn.slot < last_slot || static_cast<std::uint64_t>(conn.slot) >= RE_image_max_conns) {
            continue;
        }
        // Several connections used the slot one after another. The sample ends with the last of them.
        if (conn.slot == last_slot) {
            moment.conns.pop_back();
        }
        last_slot = conn.slot;
        moment.conns.push_back(conn);
    }
    return !fail(row);
}

std::optional<RecordedMoment> HistoryReader::restore(const HistorySample& sample)
{
    // One read transaction, as a recorder may write at the same time.
    const bool b_own = m_database.run("SAVEPOINT restore");
    std::optional<RecordedMoment> moment(std::in_place);
    moment->sample = sample;
    if (!read_engine(*moment) || !read_config(*moment) || !read_entries(HistoryKind::peer, sample, moment->peers) ||
        !read_entries(HistoryKind::application, sample, moment->apps) ||
        !read_entries(HistoryKind::bypass, sample, moment->bypass) || !read_nacks(*moment) || !read_conns(*moment)) {
        moment.reset();
    }
    if (b_own) {
        m_database.run("RELEASE restore");
    }
    return moment;
}

std::vector<HistorySample> HistoryReader::samples(const HistorySpan& span, std::size_t most)
{
    // A damaged file may have times whose difference would overflow.
    const long long from = std::max<long long>(span.from.value_or(-latest_time), -latest_time);
    const long long to = std::min<long long>(span.to.value_or(latest_time), latest_time);
    Statement count =
        m_database.prepare("SELECT count(*), min(time), max(time) FROM sample WHERE time BETWEEN ? AND ?");
    count.bind(from).bind(to);
    if (!count.next() || most == 0 || count.integer(0) <= static_cast<long long>(most)) {
        return fail(count) ? std::vector<HistorySample>() : samples(span);
    }
    // The last one of each part of the time, and those on both sides of a start of the engine.
    const long long first = count.integer(1);
    const auto length = static_cast<double>(count.integer(2)) - static_cast<double>(first);
    std::map<long long, HistorySample> chosen; // by id
    const auto choose = [&](Statement& statement) {
        for (const HistorySample& sample : all(statement)) {
            chosen.emplace(sample.id, sample);
        }
        statement.restart();
    };
    Statement last_of_part = m_database.prepare(std::string(sample_columns) +
                                                "WHERE time > ? AND time <= ? ORDER BY time DESC, id DESC LIMIT 1");
    long long before = first - 1;
    for (std::size_t part = 0; part < most; ++part) {
        const long long end = first + static_cast<long long>(length * static_cast<double>(part) /
                                                             static_cast<double>(std::max<std::size_t>(most, 2) - 1));
        last_of_part.bind(before).bind(end);
        choose(last_of_part);
        before = end;
    }
    Statement at_starts = m_database.prepare(
        std::string(sample_columns) +
        "WHERE time BETWEEN ? AND ? AND id IN (SELECT first_sample FROM engine_start UNION SELECT (SELECT max(id) FROM "
        "sample WHERE id < first_sample) FROM engine_start) ORDER BY id LIMIT ?");
    at_starts.bind(from).bind(to).bind(static_cast<long long>(most));
    choose(at_starts);
    std::vector<HistorySample> result;
    result.reserve(chosen.size());
    for (const auto& [id, sample] : chosen) {
        result.push_back(sample);
    }
    return result;
}

std::optional<std::string> HistoryReader::series_columns(const SeriesRequest& request)
{
    const HistoryTable& figures = history_table(request.table + "_figures");
    const std::vector<std::string> there = columns_in(m_database, figures.name);
    std::string columns;
    for (const std::string& name : request.columns) {
        const bool b_there = std::find(there.begin(), there.end(), name) != there.end();
        if (!b_there && !has_column(figures, name)) {
            m_error = "no such column: \"" + name + "\"";
            return std::nullopt;
        }
        columns += (columns.empty() ? "" : ", ") + (b_there ? "f." + sql_name(name) : "0");
    }
    return columns;
}

std::optional<std::vector<HistoryReader::Entry>> HistoryReader::entries_of(const SeriesRequest& request)
{
    std::string sql = "SELECT id, engine_start, first_sample, gone_sample FROM " + request.table + "_identity WHERE 1";
    for (const auto& [name, value] : request.where) {
        if (!has_column(history_table(request.table + "_identity"), name)) {
            m_error = "no such column: \"" + name + "\"";
            return std::nullopt;
        }
        sql += " AND CAST(" + sql_name(name) + " AS TEXT) = ?";
    }
    Statement row = m_database.prepare(sql);
    for (const auto& [name, value] : request.where) {
        row.bind(value);
    }
    std::vector<Entry> entries;
    while (row.next()) {
        const long long gone = row.is_null(3) ? std::numeric_limits<long long>::max() : row.integer(3);
        entries.push_back({row.integer(0), row.integer(1), row.integer(2), gone, 0, {}});
    }
    return fail(row) ? std::nullopt : std::optional(std::move(entries));
}

std::optional<Series> HistoryReader::series(const SeriesRequest& request)
{
    m_error.clear();
    const bool b_engine = request.table == "engine";
    if (!b_engine && request.table != "peer" && request.table != "application") {
        m_error = "no such table: \"" + request.table + "\"";
        return std::nullopt;
    }
    const std::optional<std::string> columns = series_columns(request);
    // One read transaction, as a recorder may write at the same time.
    const bool b_own = columns && m_database.run("SAVEPOINT series");
    std::optional<Series> result;
    if (columns) {
        Series series;
        series.samples = samples(request.span, request.most_samples);
        series.values.resize(request.columns.size());
        const bool b_read = m_error.empty() && (b_engine ? read_engine_series(*columns, series)
                                                         : read_entry_series(request, *columns, series));
        result = b_read ? std::optional(std::move(series)) : std::nullopt;
    }
    if (b_own) {
        m_database.run("RELEASE series");
    }
    return result;
}

bool HistoryReader::read_engine_series(const std::string& columns, Series& series)
{
    Statement row = m_database.prepare("SELECT " + columns + " FROM engine_figures f WHERE sample = ?");
    for (const HistorySample& sample : series.samples) {
        row.bind(sample.id);
        const bool b_row = row.next();
        for (std::size_t at = 0; at < series.values.size(); ++at) {
            series.values[at].push_back(b_row ? row.integer(static_cast<int>(at)) : 0);
        }
        if (fail(row)) {
            return false;
        }
        row.restart();
    }
    return true;
}

bool HistoryReader::read_entry_series(const SeriesRequest& request, const std::string& columns, Series& series)
{
    std::optional<std::vector<Entry>> entries = entries_of(request);
    if (!entries) {
        return false;
    }
    // A lookup for each sample and entry, from the newest on: there are many more rows of others between.
    Statement row = m_database.prepare("SELECT " + columns + " FROM sample s CROSS JOIN " + request.table +
                                       "_figures f ON f.sample = s.id AND f.identity = ? WHERE s.id > ? AND s.id <= ? "
                                       "ORDER BY s.id DESC LIMIT 1");
    for (const HistorySample& sample : series.samples) {
        std::vector<long long> sums(request.columns.size());
        for (Entry& entry : *entries) {
            if (entry.engine_start != sample.engine_start || entry.first_sample > sample.id ||
                entry.gone_sample <= sample.id) {
                continue;
            }
            // Without a row since the last sample that was looked at, the entry has not changed.
            row.bind(entry.identity).bind(std::max(entry.sample, sample.base - 1)).bind(sample.id);
            if (row.next()) {
                entry.values.resize(sums.size());
                for (std::size_t at = 0; at < sums.size(); ++at) {
                    entry.values[at] = row.integer(static_cast<int>(at));
                }
            }
            if (fail(row)) {
                return false;
            }
            row.restart();
            entry.sample = sample.id;
            for (std::size_t at = 0; at < entry.values.size(); ++at) {
                sums[at] = wrapping_sum(sums[at], entry.values[at]);
            }
        }
        for (std::size_t at = 0; at < sums.size(); ++at) {
            series.values[at].push_back(sums[at]);
        }
    }
    return true;
}

} // namespace kavstat
