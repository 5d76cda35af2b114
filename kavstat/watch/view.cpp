#include "watch/view.h"

#include "format/text.h"
#include "format/units.h"
#include "health/report.h"
#include "model/source.h"
#include "watch/figures.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kavstat {

namespace {

constexpr double shortest_interval = 0.1;
constexpr double longest_interval = 3600;

constexpr const char* key_lines[] = {
    "1 to 8, Tab  a page, the next page",
    "Up Down      select a row, also j and k, Page Up, Page Down, Home, End",
    "Enter, Esc   open the selected peer, connection or application; go back",
    "Left Right   the columns that there was no room for",
    "s S r        order by the next or the previous column, marked by *; the other way round",
    "/            show only rows with a text in them; Enter keeps it, Esc drops it",
    "+ - p        look at the engine more or less often; hold the figures still",
    "? q          this help, which any key leaves; quit",
    "",
    "In front of a row: > selected, C critical, W warning, ! an error that is counted right now, + newly arrived.",
    "SAVED is since the start: e encoding, d decoding, without a letter both.",
    "In sparklines a bar stands where the engine was started anew.",
};

// These take the place of others while a recorded history is played.
constexpr const char* playback_key_lines[] = {
    "Left Right   the sample before, the next one",
    "Page Up Down ten samples back or on",
    "Space        play, a sample each interval; hold",
};

std::vector<WatchLine> help(bool b_playback)
{
    std::vector<WatchLine> lines{{"kavstat watch: keys", WatchStyle::title}, {}};
    for (const char* const line : key_lines) {
        lines.push_back({line});
    }
    for (const char* const line : playback_key_lines) {
        if (b_playback) {
            lines.push_back({line});
        }
    }
    return lines;
}

} // namespace

WatchView::WatchView(std::size_t page, double interval, bool b_unicode, std::optional<std::string> file)
    : m_pages(make_watch_pages()), m_page(page), m_interval(interval), m_b_unicode(b_unicode), m_file(std::move(file))
{}

void WatchView::press(int key)
{
    if (m_b_help) {
        m_b_help = false;
        return;
    }
    if (page().press(key)) {
        return;
    }
    if (key >= '1' && key < '1' + static_cast<int>(m_pages.size())) {
        m_page = static_cast<std::size_t>(key - '1');
        m_detail.reset();
        return;
    }
    switch (key) {
    case '\t':
        m_page = (m_page + 1) % m_pages.size();
        m_detail.reset();
        break;
    case WATCH_KEY_ENTER:
        if (page().selected().has_page()) {
            m_detail = make_subject_page(page().selected());
        }
        break;
    case WATCH_KEY_ESCAPE:
        m_detail.reset();
        break;
    case '+':
        m_interval = std::max(m_interval / 2, shortest_interval);
        break;
    case '-':
        m_interval = std::min(m_interval * 2, longest_interval);
        break;
    case 'p':
        m_b_paused = !m_b_paused;
        break;
    case '?':
    case 'h':
        m_b_help = true;
        break;
    case 'q':
    case 'Q':
        m_b_over = true;
        break;
    default:
        break;
    }
}

std::string WatchView::state_of(const WatchModel& model) const
{
    if (!model.is_up()) {
        return model.error() != 0 ? Source::reason_of(model.error()) : "waiting for the engine";
    }
    const std::time_t time = model.now().capture_time;
    if (!m_position.empty()) {
        return m_position;
    }
    return m_file ? date_and_time(time) + "  " + plain_text(*m_file) : time_of_day(time);
}

WatchLine WatchView::title(const WatchModel& model, std::size_t width) const
{
    char every[32];
    std::snprintf(every, sizeof every, "  every %gs", m_interval);
    const std::string state =
        " " + state_of(model) + (m_b_paused ? ", paused" : "") + (m_file ? "" : every) + "  ? help";
    std::string pages = "kavstat ";
    for (std::size_t at = 0; at < m_pages.size(); ++at) {
        const bool b_here = at == m_page;
        pages += std::string(" ") + std::to_string(at + 1) + (b_here ? "[" : " ") + m_pages[at]->name() +
                 (b_here ? "]" : " ");
    }
    if (pages.size() + state.size() > width) {
        pages = "kavstat " + std::to_string(m_page + 1) + "/" + std::to_string(m_pages.size()) + " [" +
                m_pages[m_page]->name() + "] ";
    }
    return {pages + state, model.is_up() ? WatchStyle::title : WatchStyle::critical};
}

std::vector<WatchLine> WatchView::screen(const WatchModel& model, std::size_t width, std::size_t height)
{
    std::vector<WatchLine> lines;
    if (m_b_help) {
        lines = help(!m_position.empty());
    } else {
        lines.push_back(title(model, width));
        if (!model.is_up()) {
            lines.push_back({});
            lines.push_back({"CRITICAL no figures: " + state_of(model), WatchStyle::critical});
            for (const Finding& finding : model.findings()) {
                for (const std::string& line : wrapped(finding.rule->remedy, std::max<std::size_t>(width, 1))) {
                    lines.push_back({line});
                }
            }
        } else if (height > 1) {
            const std::vector<WatchLine> rest = page().lines(model, {width, height - 1, m_b_unicode});
            lines.insert(lines.end(), rest.begin(), rest.end());
        }
    }
    lines.resize(std::min(lines.size(), height));
    for (WatchLine& line : lines) {
        line.text = cut_to_width(line.text, width);
    }
    return lines;
}

std::vector<std::string> WatchView::report(const WatchModel& model)
{
    std::vector<std::string> lines;
    if (!model.is_up()) {
        return {page().name() + ": no figures: " + state_of(model)};
    }
    lines.push_back(page().name() + " at " + state_of(model));
    for (const WatchLine& line : page().report(model, m_b_unicode)) {
        lines.push_back(line.text.substr(0, line.text.find_last_not_of(' ') + 1));
    }
    return lines;
}

void WatchView::write_json(const WatchModel& model, Output& output)
{
    nlohmann::ordered_json line;
    line["kavstat_watch"] = 1;
    line["page"] = page().name();
    if (!model.is_up()) {
        line["error"] = state_of(model);
        output.add(line.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace) + "\n");
        return;
    }
    line["capture_time"] = model.now().capture_time;
    line["engine_start_time"] = model.now().engine_start_time;
    for (const WatchFigure& figure : overview_figures(model)) {
        line["figures"][figure.key] = std::isfinite(figure.number) ? nlohmann::json(figure.number) : nlohmann::json();
    }
    std::string text = line.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    text.pop_back();
    text += ",\"health\":[";
    for (const Finding& finding : model.findings()) {
        text += (text.back() == '[' ? "" : ",") + json_of_finding(finding);
    }
    text += "]";
    // Rows are written one by one, because a document of all rows would need many times their size.
    output.add(text + ",\"rows\":[");
    page().write_rows(model, output);
    output.add("]}\n");
}

} // namespace kavstat
