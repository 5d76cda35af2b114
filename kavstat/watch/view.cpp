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

// On 60 columns and 10 rows, the keys are visible.
constexpr const char* key_lines[] = {
    "1 to 8, Tab  show a page, the next page",
    "Up Down      select a row; also j, k, Home, End, Page keys",
    "Enter, Esc   open the selected row; go back",
    "Left Right   show columns that do not fit on the screen",
    "s S r        sort by the next or previous column *; reverse",
    "/            filter rows by text; Enter keeps it, Esc clears",
    "+ - p        refresh more or less often; pause",
    "? q          show this help, which any key closes; quit",
    "",
    "Before a row: > selected, C critical, W warning, ! an error counted right now,",
    "+ new. SAVED is since the start: e encoding, d decoding, no letter both.",
    "In sparklines, a bar marks a restart of the engine.",
};

// These take the place of others while a recorded history is played.
constexpr const char* playback_key_lines[] = {
    "Left Right   show the previous or next sample",
    "Page Up Down go ten samples back or forward",
    "Space        play, one sample per interval; pause",
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
    if (m_file) {
        return date_and_time(time) + "  " + plain_text(m_file->substr(m_file->find_last_of('/') + 1));
    }
    return time_of_day(time);
}

WatchLine WatchView::title(const WatchModel& model, std::size_t width) const
{
    char every[32];
    std::snprintf(every, sizeof every, "  every %gs", m_interval);
    const std::string state = " " + state_of(model) + (m_b_paused ? ", paused" : "") + (m_file ? "" : every);
    std::string pages = "kavstat ";
    for (std::size_t at = 0; at < m_pages.size(); ++at) {
        const bool b_here = at == m_page;
        pages += std::string(" ") + std::to_string(at + 1) + (b_here ? "[" : " ") + m_pages[at]->name() +
                 (b_here ? "]" : " ");
    }
    const std::string key = "  ? help"; // visible whatever the width
    if (pages.size() + state.size() + key.size() > width) {
        pages = "kavstat " + std::to_string(m_page + 1) + "/" + std::to_string(m_pages.size()) + " [" +
                m_pages[m_page]->name() + "] ";
    }
    return {cut_to_width(pages + state, width - std::min(width, key.size())) + key,
            model.is_up() ? WatchStyle::title : WatchStyle::critical};
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
