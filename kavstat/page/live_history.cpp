#include "page/live_history.h"

#include "RE_stat_error.h"
#include "format/text.h"

#include <algorithm>

namespace kavstat {

namespace {

// Kilobytes in all directions.
std::uint64_t data_of(const SnapshotApp& app)
{
    std::uint64_t sum = 0;
    for (const RE_stat_app_id id : {RE_STAT_APP_ID_ENCODE_IN_KBYTES, RE_STAT_APP_ID_DECODE_IN_KBYTES,
                                    RE_STAT_APP_ID_ENCODE_OUT_KBYTES, RE_STAT_APP_ID_DECODE_OUT_KBYTES}) {
        sum += app.app.m_id_array[id];
    }
    return sum;
}

} // namespace

std::string entity_key(const SnapshotPeer& peer)
{
    return peer.header.m_kav_peer_id.getString();
}

std::string entity_key(const SnapshotApp& app)
{
    const RE_stat_app_header& header = app.app.m_header;
    return header.m_kav_peer_id.getString() + "/" + application_label(header);
}

void LiveHistory::sample(clock::time_point at, std::chrono::system_clock::time_point now)
{
    if (at < m_next) {
        return;
    }
    m_next = at + m_limits.interval;
    // Looked for anew each time, so that an engine that was restarted is followed.
    auto source = std::make_unique<Source>();
    int error = source->open();
    if (error == 0) {
        source->reader().patience() = RE_patience::with_engine(RE_patience::second / 20);
        take(std::move(source), at, now);
        error = m_source->reader().is_cut() ? RE_STAT_ERR_CUT : 0;
    }
    if (error != 0) {
        lose(error, at);
    }
    drop_old();
}

void LiveHistory::follow_engine(clock::time_point at, std::chrono::system_clock::time_point now)
{
    Source source;
    const bool b_there = source.open() == 0;
    const bool b_same = m_source != nullptr ? b_there && source.is_same_engine(*m_source) : !b_there;
    if (!b_same) {
        m_next = at;
        sample(at, now);
    }
}

void LiveHistory::take(std::unique_ptr<Source> source, clock::time_point at, std::chrono::system_clock::time_point now)
{
    using std::chrono::duration_cast;
    const std::int64_t time = duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const bool b_same_engine = m_source != nullptr && source->is_same_engine(*m_source);
    m_before = std::move(m_now);
    m_health.forget_old(at); // so that there are never more than two snapshots
    m_now = std::make_shared<Snapshot>(take_snapshot(source->reader(), std::chrono::system_clock::to_time_t(now)));
    m_source = std::move(source);
    if (!b_same_engine || m_before->engine_start_time != m_now->engine_start_time) {
        m_before.reset();
    }
    m_seconds = m_before ? std::chrono::duration<double>(at - m_at).count() : 0;
    m_at = at;
    if (m_source->reader().is_cut()) {
        return;
    }
    judge(*m_source, at);
    // A clock that was set back would put this row among earlier ones.
    while (!m_samples.empty() && m_samples.back().time >= time) {
        m_samples.clear();
        m_series = {};
        m_first_sample = 0;
    }
    m_samples.push_back({time, m_now->engine_start_time});
    add_rows();
}

void LiveHistory::lose(int error, clock::time_point at)
{
    m_health.lose(at);
    const bool b_no_engine =
        error == RE_STAT_ERR_NO_ENGINE || error == RE_STAT_ERR_ENGINE_GONE || error == RE_STAT_ERR_NOT_PUBLISHED;
    m_report = unknown_health(m_health.rules(), Source::reason_of(error), Source().name(), b_no_engine);
    m_next_judgement = {};
    m_source.reset();
    m_before.reset();
    m_now.reset();
}

void LiveHistory::judge(Source& source, clock::time_point at)
{
    if (at < m_next_judgement) {
        return;
    }
    const clock::time_point start = clock::now();
    m_health.update(source.reader(), *m_now, at, m_now);
    m_report = health_report(m_health, *m_now, source.name());
    // Rules may have to look at every connection.
    m_next_judgement = at + 100 * (clock::now() - start);
}

void LiveHistory::add_rows()
{
    add_row(ChartScope::engine, "", *m_now);
    for (const SnapshotPeer& peer : m_now->peers) {
        add_row(ChartScope::peer, entity_key(peer), peer);
    }
    add_applications();
}

void LiveHistory::add_applications()
{
    std::vector<const SnapshotApp*> apps;
    apps.reserve(m_now->apps.size());
    for (const SnapshotApp& app : m_now->apps) {
        apps.push_back(&app);
    }
    if (apps.size() > m_limits.applications) {
        const auto end = apps.begin() + static_cast<std::ptrdiff_t>(m_limits.applications);
        std::nth_element(apps.begin(), end, apps.end(), [](const SnapshotApp* one, const SnapshotApp* other) {
            return data_of(*one) > data_of(*other);
        });
        apps.erase(end, apps.end());
    }
    for (const SnapshotApp* const app : apps) {
        add_row(ChartScope::application, entity_key(*app), *app);
    }
}

template <typename Entity>
void LiveHistory::add_row(ChartScope scope, const std::string& key, const Entity& entity)
{
    const long long sample = m_first_sample + static_cast<long long>(m_samples.size()) - 1;
    PackedRows& rows = series_of(scope)[key];
    // An image may hold two peers of one identity.
    if (rows.size() > 0 && rows.newest().front() == sample) {
        return;
    }
    m_row.assign(1, sample);
    add_values(entity, m_row);
    rows.add(m_row);
}

void LiveHistory::drop_oldest_sample()
{
    for (Series& series : m_series) {
        for (auto each = series.begin(); each != series.end();) {
            PackedRows& rows = each->second;
            if (rows.oldest().front() == m_first_sample) {
                rows.drop_oldest();
            }
            each = rows.size() == 0 ? series.erase(each) : std::next(each);
        }
    }
    m_samples.pop_front();
    ++m_first_sample;
}

void LiveHistory::drop_old()
{
    const auto most = static_cast<std::size_t>(m_limits.span / m_limits.interval) + 1;
    while (m_samples.size() > most || (m_samples.size() > 1 && bytes() > m_limits.bytes)) {
        drop_oldest_sample();
    }
}

std::size_t LiveHistory::bytes() const
{
    constexpr std::size_t bytes_of_node = sizeof(Series::value_type) - sizeof(PackedRows) + 2 * sizeof(void*);
    std::size_t sum = 0;
    for (const Snapshot* const snapshot : {m_before.get(), m_now.get()}) {
        if (snapshot != nullptr) {
            sum += sizeof *snapshot + snapshot->peers.capacity() * sizeof(SnapshotPeer) +
                   snapshot->apps.capacity() * sizeof(SnapshotApp);
        }
    }
    for (const Series& series : m_series) {
        for (const auto& [key, rows] : series) {
            sum += rows.bytes() + key.capacity() + bytes_of_node;
        }
    }
    return sum;
}

std::optional<ChartRows> LiveHistory::rows(ChartScope scope, const std::string& key) const
{
    const Series& series = m_series[static_cast<std::size_t>(scope)];
    const auto found = series.find(key);
    if (found == series.end()) {
        return std::nullopt;
    }
    ChartRows result{scope, key, {}};
    result.rows.reserve(found->second.size());
    found->second.for_each([&](const std::vector<long long>& row) {
        const Sample& sample = m_samples[static_cast<std::size_t>(row.front() - m_first_sample)];
        result.rows.push_back({sample.time, sample.engine_start_time, {row.begin() + 1, row.end()}});
    });
    return result;
}

TwoMoments LiveHistory::moments() const
{
    return {m_before.get(), m_now.get(), m_seconds};
}

} // namespace kavstat
