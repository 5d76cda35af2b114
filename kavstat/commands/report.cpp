// kavstat report.
#include "page/report.h"
#include "charts/svg.h"
#include "commands/commands.h"
#include "commands/report_error.h"
#include "format/text.h"
#include "page/past_moment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

namespace kavstat {

namespace {

// Peers and applications whose charts a report has room for: those with most traffic.
constexpr std::size_t most_peers_with_charts = 20;
constexpr std::size_t most_apps_with_charts = 120;

// A file that appears under its name when it is whole.
class NewFile
{
public:
    explicit NewFile(const std::string& path) : m_path(path), m_temporary(path + ".XXXXXX")
    {
        m_descriptor = mkstemp(m_temporary.data());
    }
    ~NewFile()
    {
        if (m_descriptor >= 0) {
            close(m_descriptor);
            unlink(m_temporary.c_str());
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    int descriptor() const { return m_descriptor; }
    // False with errno set when it cannot be put in place.
    bool finish()
    {
        const mode_t mask = umask(0);
        umask(mask);
        constexpr mode_t everybody = 0666;
        if (fchmod(m_descriptor, everybody & ~mask) != 0 || rename(m_temporary.c_str(), m_path.c_str()) != 0) {
            return false;
        }
        close(m_descriptor);
        m_descriptor = -1;
        return true;
    }

private:
    std::string m_path;
    std::string m_temporary;
    int m_descriptor;
};

double traffic_of(const SnapshotPeer& peer)
{
    return static_cast<double>(peer.connections[RE_STAT_CONN_ID_ENCODE_IN_BYTES]) +
           static_cast<double>(peer.connections[RE_STAT_CONN_ID_DECODE_OUT_BYTES]);
}

bool is_history(const std::string& path)
{
    constexpr std::string_view mark = "SQLite format 3";
    std::ifstream file(path, std::ios::binary);
    std::string beginning(mark.size(), '\0');
    file.read(beginning.data(), static_cast<std::streamsize>(beginning.size()));
    return beginning == mark;
}

double traffic_of(const SnapshotApp& app)
{
    return static_cast<double>(app.app.m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES]) +
           static_cast<double>(app.app.m_id_array[RE_STAT_APP_ID_DECODE_OUT_KBYTES]);
}

// The keys of those with most traffic, at most so many.
template <typename Entity>
std::vector<std::string> keys_of_largest(const std::vector<Entity>& entities, std::size_t most)
{
    std::vector<const Entity*> largest;
    largest.reserve(entities.size());
    for (const Entity& entity : entities) {
        largest.push_back(&entity);
    }
    std::stable_sort(largest.begin(), largest.end(),
                     [](const Entity* one, const Entity* other) { return traffic_of(*one) > traffic_of(*other); });
    largest.resize(std::min(largest.size(), most));
    std::vector<std::string> keys;
    keys.reserve(largest.size());
    for (const Entity* const entity : largest) {
        keys.push_back(entity_key(*entity));
    }
    return keys;
}

// The peers and applications whose charts are in the report.
struct ChartKeys
{
    explicit ChartKeys(const Snapshot& now)
        : peers(keys_of_largest(now.peers, most_peers_with_charts)),
          apps(keys_of_largest(now.apps, most_apps_with_charts))
    {}

    std::vector<std::string> peers;
    std::vector<std::string> apps;
};

class ReportCommand
{
public:
    ReportCommand(const ReportOptions& options, RuleSet rules) : m_options(options), m_rules(std::move(rules)) {}

    int run()
    {
        if (!m_options.file) {
            return report_engine();
        }
        return is_history(*m_options.file) ? report_history() : report_file();
    }

private:
    int report_engine()
    {
        LiveHistoryLimits limits;
        limits.interval = std::chrono::milliseconds(1);
        LiveHistory live(m_rules, limits);
        const auto sample = [&] { live.sample(LiveHistory::clock::now(), std::chrono::system_clock::now()); };
        sample();
        if (live.reader() != nullptr) {
            std::this_thread::sleep_for(std::chrono::duration<double>(m_options.interval));
            sample();
        }
        if (live.reader() == nullptr) {
            report_error(live.health().unknown);
            return EXIT_NO_STATISTICS;
        }
        PageData data{live.health(), *live.reader(), live.moments(), {}};
        const ChartKeys keys(*data.moments.now);
        add_live(live, ChartScope::engine, {""}, data);
        add_live(live, ChartScope::peer, keys.peers, data);
        add_live(live, ChartScope::application, keys.apps, data);
        return write(data);
    }

    int report_file()
    {
        Source source(m_options.file);
        if (const int status = open_or_report(source)) {
            return status;
        }
        if (m_options.span.from || m_options.span.to) {
            report_error(*m_options.file + ": --from and --to need a database of \"kavstat record\"");
            return EXIT_USAGE;
        }
        const Snapshot now = take_snapshot(source.reader(), std::time(nullptr));
        const HealthReport health = health_of_moments(m_rules, {nullptr, &now, 0}, source.reader(), source.name());
        if (const int status = report_if_cut(source)) {
            return status;
        }
        return write({health, source.reader(), {nullptr, &now, 0}, {}});
    }

    int report_history()
    {
        RecordedRows recorded;
        std::string reason = recorded.open(*m_options.file);
        const std::optional<HistorySample> last = last_sample(recorded, m_options.span);
        const auto past = last ? read_past_moment(recorded, *last, m_rules, *m_options.file, reason) : std::nullopt;
        if (!past) {
            const std::string error = recorded.reader().error();
            reason = !reason.empty() ? reason : !error.empty() ? error : "nothing was recorded at that time";
            report_error(*m_options.file + ": " + reason);
            return EXIT_NO_STATISTICS;
        }
        PageData data{past->health, *past->reader, past->moments(), {}};
        const ChartKeys keys(past->now);
        const std::size_t points = points_in_report(keys.peers.size() + 1);
        add_recorded(recorded, ChartScope::engine, "", points, data);
        for (const std::string& key : keys.peers) {
            add_recorded(recorded, ChartScope::peer, key, points, data);
        }
        // A picture is never of an application.
        for (const std::string& key : m_options.chart.empty() ? keys.apps : std::vector<std::string>()) {
            add_recorded(recorded, ChartScope::application, key, points_of_app_in_report(keys.apps.size()), data);
        }
        return write(data);
    }

    static std::optional<HistorySample> last_sample(RecordedRows& recorded, const HistorySpan& span)
    {
        const auto last = span.to ? recorded.reader().at(*span.to) : recorded.reader().last();
        return last && (!span.from || last->time >= *span.from) ? last : std::nullopt;
    }

    static void add_live(const LiveHistory& live, ChartScope scope, const std::vector<std::string>& keys,
                         PageData& data)
    {
        for (const std::string& key : keys) {
            if (auto rows = live.rows(scope, key)) {
                data.histories.push_back(std::move(*rows));
            }
        }
    }

    void add_recorded(RecordedRows& recorded, ChartScope scope, const std::string& key, std::size_t points,
                      PageData& data) const
    {
        std::string reason;
        if (auto rows = recorded.rows(scope, key, m_options.span, points, reason)) {
            thin(rows->rows, points);
            data.histories.push_back(std::move(*rows));
        }
    }

    int write(const PageData& data)
    {
        if (!m_options.output) {
            return write_to(data, STDOUT_FILENO);
        }
        NewFile file(*m_options.output);
        if (file.descriptor() < 0) {
            report_error(*m_options.output + ": " + std::strerror(errno));
            return EXIT_OUTPUT;
        }
        if (const int status = write_to(data, file.descriptor())) {
            return status;
        }
        if (!file.finish()) {
            report_error(*m_options.output + ": " + std::strerror(errno));
            return EXIT_OUTPUT;
        }
        return EXIT_OK;
    }

    int write_to(const PageData& data, int descriptor)
    {
        DescriptorSink sink(descriptor);
        Output output(sink);
        if (m_options.chart.empty()) {
            write_page_report(data, output);
        } else if (const int status = write_picture(data, output)) {
            return status;
        }
        return finish_output(output, sink);
    }

    int write_picture(const PageData& data, Output& output)
    {
        std::string key;
        std::string subject;
        if (m_options.peer) {
            const std::vector<SnapshotPeer>& peers = data.moments.now->peers;
            const auto peer = std::find_if(peers.begin(), peers.end(),
                                           [&](const SnapshotPeer& each) { return each.number == *m_options.peer; });
            if (peer == peers.end()) {
                report_error("there is no peer " + std::to_string(*m_options.peer));
                return EXIT_ERROR;
            }
            key = entity_key(*peer);
            subject =
                "peer " + std::to_string(peer->number) + " " + std::string(text_in(peer->header.m_peer_host_name));
        }
        const ChartScope scope = m_options.peer ? ChartScope::peer : ChartScope::engine;
        const Chart* const chart = find_chart(scope, m_options.chart);
        if (chart == nullptr) {
            report_error("\"" + m_options.chart + "\" is a chart of a peer: give --peer NUMBER");
            return EXIT_USAGE;
        }
        const auto rows = std::find_if(data.histories.begin(), data.histories.end(),
                                       [&](const ChartRows& each) { return each.scope == scope && each.key == key; });
        write_svg(*chart, rows != data.histories.end() ? *rows : ChartRows{scope, key, {}}, subject, output);
        return EXIT_OK;
    }

    const ReportOptions& m_options;
    RuleSet m_rules;
};

} // namespace

int run_report(const ReportOptions& options)
{
    std::optional<RuleSet> rules = read_rules_or_report(options.rules);
    if (!rules) {
        return EXIT_USAGE;
    }
    return ReportCommand(options, std::move(*rules)).run();
}

} // namespace kavstat
