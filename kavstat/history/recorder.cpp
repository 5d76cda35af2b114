#include "history/recorder.h"

#include "history/reader.h"
#include "history/rows.h"
#include "history/schema.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>

namespace kavstat {

namespace {

// A cursor holds these bits of a NACK's number.
constexpr std::uint64_t cursor_bits = 0x7fffffff;

// The most bytes that a row takes without its texts.
long long row_bytes(const HistoryTable& table)
{
    return static_cast<long long>(table.columns.size()) * 9 + 32;
}

template <typename Record>
std::size_t hash_of(const Record& record)
{
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(&record), sizeof record});
}

// Connections are compared by a hash, as an engine may have a million. Never 0.
std::size_t hash_of(const SnapshotConn& conn)
{
    std::size_t hash = hash_of(conn.figures);
    for (const std::size_t part : {hash_of(conn.header), hash_of(conn.transport), hash_of(conn.open_time),
                                   hash_of(conn.close_time), hash_of(conn.peer_number)}) {
        hash = hash * 31 + part;
    }
    return hash | 1U;
}

std::optional<RE_kav_peer_id> identity_in(const std::optional<RE_stat_config_param>& config)
{
    return config ? std::optional(RE_kav_peer_id(config->m_local_kav_peer_id)) : std::nullopt;
}

bool is_same_config(const std::optional<RE_stat_config_param>& left, const std::optional<RE_stat_config_param>& right)
{
    return left.has_value() == right.has_value() &&
           (!left ||
            std::memcmp(static_cast<const void*>(&*left), static_cast<const void*>(&*right), sizeof *left) == 0);
}

} // namespace

Recorder::Recorder(RecorderOptions options)
    : m_options(std::move(options)), m_space(m_database, m_options.keep, m_options.max_size, m_options.is_stopped)
{}

std::string Recorder::open(const std::string& path)
{
    // SQLite does not use this kind of lock. It ends with the process.
    m_lock = RE_descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640));
    if (!m_lock.is_open()) {
        return std::strerror(errno);
    }
    if (flock(m_lock.number(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? "another recorder is writing it" : std::strerror(errno);
    }
    if (!m_database.open(path, Database::Access::write)) {
        return m_database.error();
    }
    if (std::string reason = prepare_schema(m_database); !reason.empty()) {
        return reason;
    }
    return prepare_statements() && m_space.prepare() ? "" : m_database.error();
}

bool Recorder::prepare_statements()
{
    m_add_sample = m_database.prepare(history_table("sample").insertion());
    m_add_engine = m_database.prepare(history_table("engine_figures").insertion());
    m_add_nack = m_database.prepare(history_table("nack").insertion());
    m_add_conn = m_database.prepare(history_table("connection").insertion());
    return m_add_sample.is_ready() && m_add_engine.is_ready() && m_add_nack.is_ready() && m_add_conn.is_ready() &&
           m_peers.prepare(m_database) && m_apps.prepare(m_database) && m_bypass.prepare(m_database);
}

void Recorder::close()
{
    if (m_database.is_open()) {
        m_space.empty_log();
    }
    // Statements hold the database open.
    m_add_sample = {};
    m_add_engine = {};
    m_add_nack = {};
    m_add_conn = {};
    m_peers = EntryStore<SnapshotPeer>(HistoryKind::peer);
    m_apps = EntryStore<SnapshotApp>(HistoryKind::application);
    m_bypass = EntryStore<RE_bypass_entry>(HistoryKind::bypass);
    m_database.close();
    m_lock.close();
    m_b_known = false;
}

bool Recorder::is_in_place() const
{
    struct stat open = {};
    struct stat named = {};
    return m_lock.is_open() && fstat(m_lock.number(), &open) == 0 && stat(m_database.path().c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

bool Recorder::fail()
{
    m_error = m_database.error();
    m_b_known = false;
    return false;
}

// Reads the last sample from the database, as after a restart of the recorder.
bool Recorder::sync()
{
    HistoryReader reader(m_database);
    m_last = reader.last();
    if (!reader.error().empty()) {
        return fail();
    }
    m_last_id = std::max(m_last ? m_last->id : 0,
                         m_database.number("SELECT max(seq) FROM sqlite_sequence WHERE name = 'sample'").value_or(0));
    // No recorder reaches these numbers.
    if (m_last_id < 0 || m_last_id >= std::numeric_limits<long long>::max() - 1) {
        m_error = "the numbers of its samples are damaged";
        return false;
    }
    m_conns.clear();
    m_peers.know();
    m_apps.know();
    m_bypass.know();
    m_rows_since_base = 0;
    if (m_last) {
        const std::optional<RecordedMoment> moment = reader.restore(*m_last);
        if (!moment) {
            return fail();
        }
        m_start_time = moment->engine_start_time;
        m_config = moment->config;
        m_opened = moment->engine[RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS];
        m_peers.know(moment->peers);
        m_apps.know(moment->apps);
        m_bypass.know(moment->bypass);
        for (const HistoryKind kind : all_history_kinds) {
            m_rows_since_base += m_database
                                     .number("SELECT count(*) FROM " + figures_of(kind).name + " WHERE sample > " +
                                             std::to_string(m_last->base))
                                     .value_or(0);
        }
    }
    m_b_known = true;
    return true;
}

Recorder::Captured Recorder::capture(RE_image_reader& reader)
{
    Captured captured;
    captured.snapshot = take_snapshot(reader, m_options.clock());
    captured.app_slots = reader.get_max_app_slots();
    for (SnapshotPeer& peer : captured.snapshot.peers) {
        clean_header(peer.header);
    }
    if (const RE_stat_config_param* const config = reader.get_config_param()) {
        captured.config = *config;
    }
    if (std::optional<std::vector<RE_bypass_entry>> entries = read_bypass(reader)) {
        captured.bypass = std::move(*entries);
        captured.sample.b_bypass_table = true;
    }
    capture_nacks(reader, captured);
    return captured;
}

void Recorder::capture_nacks(RE_image_reader& reader, Captured& captured)
{
    const int first = reader.get_first_nack();
    const std::uint64_t end = reader.nacks_end();
    const auto number_of = [end](int cursor) {
        return end - ((end - static_cast<std::uint64_t>(cursor)) & cursor_bits);
    };
    const std::uint64_t oldest = first >= 0 ? number_of(first) : end;
    captured.sample.first_nack = static_cast<long long>(oldest);
    captured.sample.end_nack = static_cast<long long>(end);
    // All of them, as the engine may be another one; store_nacks() omits those that are stored.
    for (int cursor = first; cursor >= 0;) {
        RE_stat_nack_header nack{};
        cursor = reader.get_next_nack(cursor, nack);
        if (cursor >= 0) {
            captured.nacks.push_back(nack);
        }
    }
}

void Recorder::keep_last_nacks(Captured& captured, long long most)
{
    std::vector<RE_stat_nack_header>& nacks = captured.nacks;
    const auto count = static_cast<long long>(nacks.size());
    nacks.erase(nacks.begin(), nacks.begin() + (count - std::clamp(most, 0LL, count)));
}

// Whether the counters began at 0 again since the last sample.
bool Recorder::is_new_start(const Captured& captured, bool b_same) const
{
    if (!m_last || captured.snapshot.engine_start_time != m_start_time ||
        identity_in(captured.config) != identity_in(m_config)) {
        return true;
    }
    // Two starts within a second.
    return !b_same && (captured.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS] < m_opened ||
                       captured.sample.end_nack < m_last->end_nack);
}

RecordResult Recorder::record(RE_image_reader& reader, bool b_same, double seconds)
{
    m_error.clear();
    if (!m_b_known && !sync()) {
        return RecordResult::failed;
    }
    Captured captured = capture(reader);
    if (reader.is_cut()) {
        return RecordResult::cut;
    }
    const bool b_new_start = is_new_start(captured, b_same);
    if (m_seconds && !b_new_start) {
        captured.sample.elapsed = seconds - *m_seconds;
    }
    if (!b_new_start) {
        keep_last_nacks(captured, captured.sample.end_nack - m_last->end_nack); // the others are stored
    }
    m_error = make_room(reader, captured);
    if (!m_error.empty()) {
        m_b_known = false;
        return RecordResult::failed;
    }
    Transaction transaction(m_database);
    if (!transaction.is_begun() || !store(reader, captured, b_new_start)) {
        fail();
        return RecordResult::failed;
    }
    if (reader.is_cut()) {
        m_b_known = false;
        return RecordResult::cut;
    }
    if (!transaction.commit()) {
        fail();
        return RecordResult::failed;
    }
    m_last = captured.sample;
    m_last_id = captured.sample.id;
    m_start_time = captured.snapshot.engine_start_time;
    m_config = captured.config;
    m_opened = captured.snapshot.engine[RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS];
    m_seconds = seconds;
    return RecordResult::recorded;
}

// The last sample stays, but its base may be older than all that is left, which does no harm.
Recorder::Thinning Recorder::thin(const std::function<bool()>& is_over)
{
    const Thinning result = m_space.thin(m_options.clock(), is_over);
    if (result == Thinning::failed) {
        fail();
    }
    return result;
}

// Makes room for the largest size that the sample can have. Returns why that is impossible, or nothing.
std::string Recorder::make_room(RE_image_reader& reader, Captured& captured)
{
    m_most_conns = m_options.b_connections ? reader.get_max_conn_slots() : 0;
    const auto rows = [](std::size_t count) { return static_cast<long long>(count); };
    // For identities, as all of them may be new.
    constexpr long long peer_bytes = 640;
    constexpr long long entry_bytes = 128;
    long long bytes = row_bytes(history_table("engine_figures"));
    bytes += rows(captured.snapshot.peers.size()) * (row_bytes(history_table("peer_figures")) + peer_bytes);
    bytes += rows(captured.snapshot.apps.size()) * (row_bytes(history_table("application_figures")) + entry_bytes);
    bytes += rows(captured.bypass.size()) * (row_bytes(history_table("bypass_figures")) + entry_bytes);
    // Pages are not full, and the interior pages of the trees are written as well.
    constexpr long long other_pages = 32LL * 4096;
    bytes += bytes / 2 + other_pages;
    // NACKs for which there is no room are lost, from the oldest on.
    const long long nack_bytes = row_bytes(history_table("nack")) * 3 / 2;
    if (m_options.max_size != 0) {
        keep_last_nacks(captured, (m_space.most_room() - bytes) / nack_bytes);
    }
    bytes += rows(captured.nacks.size()) * nack_bytes;
    // Connections for which there is no room are left for the next sample.
    const long long conn_bytes = row_bytes(history_table("connection")) * 3 / 2;
    if (m_options.max_size != 0) {
        m_most_conns = std::clamp<long long>((m_space.most_room() - bytes) / conn_bytes, 0, m_most_conns);
    }
    bytes += m_most_conns * conn_bytes;
    m_space.leave_room_on_disk(bytes);
    switch (m_space.make_room(bytes)) {
    case HistorySpace::Room::there:
        return "";
    case HistorySpace::Room::none:
        return "a sample does not fit into the largest size allowed";
    case HistorySpace::Room::logs:
        return "imported logs leave no room for samples in the largest size allowed";
    case HistorySpace::Room::reader:
        return "another process reads the database, and its write-ahead log would exceed the largest size allowed";
    case HistorySpace::Room::stopped:
        return "stopped";
    default:
        return m_database.error();
    }
}

bool Recorder::store(RE_image_reader& reader, Captured& captured, bool b_new_start)
{
    HistorySample& sample = captured.sample;
    sample.id = m_last_id + 1;
    sample.time = captured.snapshot.capture_time;
    if (b_new_start) {
        m_peers.know();
        m_apps.know();
        m_bypass.know();
        m_conns.clear();
        if (!store_start(captured)) {
            return false;
        }
    } else {
        sample.engine_start = m_last->engine_start;
    }
    const Snapshot& snapshot = captured.snapshot;
    const std::size_t entries = snapshot.peers.size() + snapshot.apps.size() + captured.bypass.size();
    const std::size_t changes =
        m_peers.changes(snapshot.peers) + m_apps.changes(snapshot.apps) + m_bypass.changes(captured.bypass);
    // Entries without a change are left out, until twice as many rows as entries were written since the base. So a
    // moment is read from at most three times its rows, and complete samples add at most half to the file.
    const bool b_all = changes == entries || m_rows_since_base > 2 * static_cast<long long>(entries);
    sample.base = b_all ? sample.id : m_last->base;
    m_rows_since_base = b_all ? 0 : m_rows_since_base + static_cast<long long>(changes);
    return store_config(captured) && store_sample(sample) && store_engine(captured) &&
           m_peers.store(m_database, snapshot.peers, sample, b_all) &&
           m_apps.store(m_database, snapshot.apps, sample, b_all) &&
           m_bypass.store(m_database, captured.bypass, sample, b_all) && store_nacks(captured) &&
           (!m_options.b_connections || store_conns(reader, sample));
}

bool Recorder::store_start(Captured& captured)
{
    Statement statement = m_database.prepare(history_table("engine_start").insertion());
    statement.bind_null().bind(captured.snapshot.engine_start_time);
    const std::optional<RE_kav_peer_id> identity = identity_in(captured.config);
    identity ? statement.bind(identity->getString()) : statement.bind_null();
    statement.bind(captured.app_slots).bind(captured.sample.id);
    const bool b_ok = statement.run();
    captured.sample.engine_start = m_database.last_row();
    return b_ok;
}

bool Recorder::store_config(Captured& captured)
{
    if (!captured.config) {
        return true;
    }
    if (m_last && m_last->configuration && is_same_config(m_config, captured.config)) {
        captured.sample.configuration = m_last->configuration;
        return true;
    }
    Statement statement = m_database.prepare(history_table("configuration").insertion());
    statement.bind_null().bind(captured.sample.id);
    bind_fields(statement, config_fields, *captured.config);
    statement.bind_bytes(&*captured.config, sizeof *captured.config);
    const bool b_ok = statement.run();
    captured.sample.configuration = m_database.last_row();
    return b_ok;
}

bool Recorder::store_sample(const HistorySample& sample)
{
    return m_add_sample.bind(sample.id)
        .bind(sample.time)
        .bind(sample.engine_start)
        .bind(sample.elapsed)
        .bind(sample.configuration)
        .bind(sample.base)
        .bind(sample.first_nack)
        .bind(sample.end_nack)
        .bind(sample.b_bypass_table ? 1 : 0)
        .run();
}

bool Recorder::store_engine(const Captured& captured)
{
    const Snapshot& snapshot = captured.snapshot;
    m_add_engine.bind(captured.sample.id);
    bind_fields(m_add_engine, engine_fields, snapshot);
    bind_counters(m_add_engine, CounterScope::engine, std::span<const long long>(snapshot.engine));
    bind_counters(m_add_engine, CounterScope::connection, std::span<const long long>(snapshot.connections));
    return m_add_engine.run();
}

bool Recorder::store_nacks(const Captured& captured)
{
    const HistorySample& sample = captured.sample;
    const bool b_same_start = m_last && m_last->engine_start == sample.engine_start;
    const long long known = b_same_start ? m_last->end_nack : 0;
    // Entries that were overwritten while the log was read are missing at its beginning.
    auto number =
        static_cast<long long>(static_cast<std::uint64_t>(sample.end_nack) - std::uint64_t{captured.nacks.size()});
    for (const RE_stat_nack_header& nack : captured.nacks) {
        if (number >= known) {
            m_add_nack.bind(sample.engine_start).bind(number).bind(sample.id);
            bind_fields(m_add_nack, nack_fields, nack);
            if (!m_add_nack.run()) {
                return false;
            }
        }
        ++number;
    }
    return true;
}

bool Recorder::store_conns(RE_image_reader& reader, const HistorySample& sample)
{
    const auto slots = static_cast<std::size_t>(reader.get_max_conn_slots());
    m_conns.resize(std::max(m_conns.size(), slots));
    SnapshotConn conn;
    long long left = m_most_conns;
    for (std::size_t count = 0; count < slots && left > 0; ++count) {
        const std::size_t slot = m_next_conn++ % slots;
        conn = {};
        const bool b_there = read_connection(reader, static_cast<int>(slot), conn);
        const std::size_t hash = b_there ? hash_of(conn) : 0;
        const bool b_moved = hash != m_conns[slot];
        m_conns[slot] = hash;
        if (!b_there || !b_moved) {
            continue;
        }
        --left;
        m_add_conn.bind(sample.id);
        bind_connection(m_add_conn, conn);
        if (!m_add_conn.run()) {
            return false;
        }
    }
    return true;
}

} // namespace kavstat
