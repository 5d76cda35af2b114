#include "watch/figures.h"

#include "format/units.h"
#include "model/words.h"

#include <algorithm>
#include <cmath>

namespace kavstat {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();
constexpr double bytes_per_megabyte = 1024.0 * 1024.0;

// text_of: formats the rate and the total.
WatchFigure rate_figure(const char* key, const char* label, double rate, std::vector<float> history, double total,
                        bool b_rates, int importance, std::string (*text_of)(double) = size_text)
{
    WatchFigure figure;
    figure.key = key;
    figure.label = label;
    figure.number = b_rates ? rate : unknown;
    figure.text = b_rates ? text_of(rate) + "/s" : no_figure;
    figure.total = total >= 0 ? text_of(total) : "";
    figure.history = std::move(history);
    figure.importance = importance;
    return figure;
}

struct Volumes
{
    double before;
    double after;
};

WatchFigure saved_figure(const char* key, const char* label, const Volumes& rates, const std::vector<float>& before,
                         const std::vector<float>& after, const Volumes& totals, bool b_rates, int importance)
{
    WatchFigure figure;
    figure.key = key;
    figure.label = label;
    const bool b_traffic = b_rates && (rates.before > 0 || rates.after > 0);
    figure.number = b_traffic ? saved_percent(rates.before, rates.after) / 100 : unknown;
    figure.text = b_traffic ? percent_text(figure.number * 100) : no_figure;
    figure.total = totals.before >= 0 ? percent_text(saved_percent(totals.before, totals.after)) : "";
    figure.history = combined(before, after, saved_percent);
    figure.highest = 100;
    figure.importance = importance;
    return figure;
}

WatchFigure latency_figure(const char* key, const char* label, double milliseconds, const History& history,
                           int importance)
{
    WatchFigure figure;
    figure.key = key;
    figure.label = label;
    figure.number = milliseconds / 1000;
    figure.text = latency_text(milliseconds);
    figure.history = history.last();
    figure.importance = importance;
    return figure;
}

WatchFigure cache_figure(const WatchModel& model)
{
    const Snapshot& now = model.now();
    const auto engine = [&](RE_stat_global_id id) { return now.engine[static_cast<std::size_t>(id)]; };
    const auto megabytes = [&](RE_stat_global_id id) { return static_cast<double>(engine(id)) * bytes_per_megabyte; };
    WatchFigure figure;
    figure.key = "cache_used_ratio";
    const long long state = engine(RE_STAT_GLOBAL_ID_CACHE_STATE);
    if (state != RE_CACHE_ACTIVE) {
        figure.label = std::string("Cache ") + word_for(cache_state_words, state);
    } else {
        long long oldest = 0; // 0: none
        for (const RE_stat_global_id id :
             {RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE, RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE}) {
            oldest = oldest == 0 || (engine(id) != 0 && engine(id) < oldest) ? engine(id) : oldest;
        }
        const Change age = change_of(RE_stat_kind::current, oldest, now.capture_time, false);
        figure.label = oldest == 0 ? "Cache" : "Cache, oldest " + age_text(age.by);
    }
    figure.number = cache_percent(now) / 100;
    figure.text = percent_text(cache_percent(now));
    figure.total = size_text(megabytes(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE) +
                             megabytes(RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE)) +
                   " of " + size_text(megabytes(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE));
    figure.history = model.cache_history().last();
    figure.highest = 100;
    return figure;
}

} // namespace

std::vector<WatchFigure> traffic_figures(const TrafficRates& rates, const TrafficHistory& history, bool b_rates,
                                         const ConnectionFigures* totals)
{
    // total: -1 if unknown.
    const auto total = [&](RE_stat_conn_id id) {
        return totals != nullptr ? static_cast<double>((*totals)[static_cast<std::size_t>(id)]) : -1;
    };
    const double encode_in = total(RE_STAT_CONN_ID_ENCODE_IN_BYTES);
    const double encode_out = total(RE_STAT_CONN_ID_ENCODE_OUT_BYTES);
    const double decode_in = total(RE_STAT_CONN_ID_DECODE_IN_BYTES);
    const double decode_out = total(RE_STAT_CONN_ID_DECODE_OUT_BYTES);
    const std::vector<float> before = history.before();
    const std::vector<float> after = history.after();
    return {
        rate_figure("before_bytes_per_second", "Traffic before", rates.before(), before, encode_in + decode_out,
                    b_rates, 0),
        rate_figure("encode_in_bytes_per_second", "  encoding", rates.encode_in, history.encode_in.last(), encode_in,
                    b_rates, 2),
        rate_figure("decode_out_bytes_per_second", "  decoding", rates.decode_out, history.decode_out.last(),
                    decode_out, b_rates, 2),
        rate_figure("after_bytes_per_second", "Traffic after", rates.after(), after, encode_out + decode_in, b_rates,
                    0),
        rate_figure("encode_out_bytes_per_second", "  encoding", rates.encode_out, history.encode_out.last(),
                    encode_out, b_rates, 2),
        rate_figure("decode_in_bytes_per_second", "  decoding", rates.decode_in, history.decode_in.last(), decode_in,
                    b_rates, 2),
        saved_figure("saved_ratio", "Saved", {rates.before(), rates.after()}, before, after,
                     {encode_in + decode_out, encode_out + decode_in}, b_rates, 0),
        saved_figure("encode_saved_ratio", "  encoding", {rates.encode_in, rates.encode_out}, history.encode_in.last(),
                     history.encode_out.last(), {encode_in, encode_out}, b_rates, 2),
        saved_figure("decode_saved_ratio", "  decoding", {rates.decode_out, rates.decode_in}, history.decode_out.last(),
                     history.decode_in.last(), {decode_out, decode_in}, b_rates, 2),
        rate_figure("nacks_and_retransmissions_per_second", "NACKs and r-tx", rates.nacks + rates.retransmissions,
                    history.nacks.last(),
                    total(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS) + total(RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS), b_rates, 0,
                    count_text),
    };
}

std::vector<WatchFigure> overview_figures(const WatchModel& model)
{
    const TrafficRates& rates = model.rates();
    const Snapshot& now = model.now();
    std::vector<WatchFigure> figures = traffic_figures(rates, model.history(), model.has_rates(), &now.connections);
    const double disk = static_cast<double>(now.engine[RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY]) / 1000;
    WatchFigure connections;
    connections.key = "active_connections";
    connections.label = "Connections open";
    connections.number = now.active_connections;
    connections.text = count_text(now.active_connections);
    connections.total = count_text(static_cast<double>(now.engine[RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS]));
    connections.history = model.connection_history().last();
    const std::vector<WatchFigure> latencies{
        latency_figure("encode_latency_seconds", "Encode latency", rates.encode_latency, model.encode_latency_history(),
                       0),
        latency_figure("decode_latency_seconds", "Decode latency", rates.decode_latency, model.decode_latency_history(),
                       1),
        latency_figure("disk_read_latency_seconds", "Disk read latency", disk, model.disk_latency_history(), 1),
        cache_figure(model),
    };
    figures.insert(figures.end() - 1, latencies.begin(), latencies.end()); // before NACKs
    figures.push_back(connections);
    return figures;
}

std::vector<WatchLine> figure_lines(const std::vector<WatchFigure>& figures, std::size_t width, std::size_t most,
                                    bool b_unicode)
{
    constexpr std::size_t label_width = 22;
    constexpr std::size_t text_width = 12;
    constexpr std::size_t total_width = 22;
    constexpr std::size_t width_for_totals = 100;
    // Figures of the same importance are shown together or not at all, because they are compared with each other.
    int importance = 0;
    const auto up_to = [&](int limit) {
        return static_cast<std::size_t>(std::count_if(
            figures.begin(), figures.end(), [&](const WatchFigure& figure) { return figure.importance <= limit; }));
    };
    constexpr int least_important = 2;
    while (importance < least_important && up_to(importance + 1) <= most) {
        ++importance;
    }
    // Without sparklines, as for a saved file, there is room for totals on narrow screens as well.
    const bool b_totals =
        width >= width_for_totals ||
        std::all_of(figures.begin(), figures.end(), [](const WatchFigure& figure) { return figure.history.empty(); });
    std::vector<WatchLine> lines;
    for (const WatchFigure& figure : figures) {
        if (figure.importance > importance || lines.size() == most) {
            continue;
        }
        std::string line = padded(figure.label, label_width) + ' ' + padded(figure.text, text_width, false) + "  ";
        if (b_totals) {
            line += padded(figure.total, total_width, false) + "  ";
        }
        const std::size_t used = width_of(line);
        line += spark_line(figure.history, width > used ? width - used : 0, b_unicode, figure.highest);
        lines.push_back({line, figure.style});
    }
    return lines;
}

WatchLine finding_line(const Finding& finding)
{
    const bool b_critical = finding.severity == Severity::critical;
    const std::string since = text_of(finding.since);
    return {std::string(b_critical ? "CRITICAL " : "WARNING ") + finding.subject() + ": " + finding.figure_text() +
                (since.empty() ? "" : ", " + since),
            b_critical ? WatchStyle::critical : WatchStyle::warning};
}

std::vector<WatchLine> wrapped_line(const WatchLine& line, std::size_t width, std::size_t indent)
{
    if (width_of(line.text) <= width || width <= indent) {
        return {line};
    }
    const std::string first = wrapped(line.text, width).front();
    std::vector<WatchLine> lines{{first, line.style}};
    const std::size_t rest = std::min(line.text.find_first_not_of(' ', first.size()), line.text.size());
    for (const std::string& text : wrapped(line.text.substr(rest), width - indent)) {
        lines.push_back({std::string(indent, ' ') + text, line.style});
    }
    return lines;
}

} // namespace kavstat
