#include "watch/view.h"

#include "model/source.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace kavstat {

namespace {

constexpr double shortest_interval = 0.1;
constexpr double longest_interval = 3600;
constexpr std::size_t longest_filter = 60;

constexpr const char* key_lines[] = {
    "1 2 3 4     engine, peers, connections, applications",
    "Tab         the next page",
    "s S         order by the next or the previous column, marked by *",
    "r           the other way round",
    "/           show only rows with a text in them; Enter keeps it, Esc drops it",
    "Up Down     scroll, also j and k, Page Up, Page Down, Home, End",
    "+ -         look at the engine more or less often",
    "p           hold the figures still",
    "?           this help; any key leaves it",
    "q           quit",
};

std::string time_of_day(std::time_t moment)
{
    char text[32];
    std::tm local{};
    if (localtime_r(&moment, &local) == nullptr || std::strftime(text, sizeof text, "%H:%M:%S", &local) == 0) {
        return "?";
    }
    return text;
}

// What the title says of the engine.
std::string state_of(const WatchModel& model)
{
    if (!model.is_up()) {
        return model.error() != 0 ? Source::reason_of(model.error()) : "waiting for the engine";
    }
    return time_of_day(model.now().capture_time);
}

std::vector<WatchLine> help()
{
    std::vector<WatchLine> lines{{"kavstat watch: keys", WatchStyle::title}, {}};
    for (const char* const line : key_lines) {
        lines.push_back({line});
    }
    return lines;
}

} // namespace

WatchView::WatchView(WatchPage page, double interval, bool b_unicode)
    : m_page(page), m_interval(interval),
      m_b_unicode(b_unicode), m_orders{order{first_order_of(WatchPage::engine)},
                                       order{first_order_of(WatchPage::peers)},
                                       order{first_order_of(WatchPage::connections)},
                                       order{first_order_of(WatchPage::applications)}}
{}

void WatchView::turn_to(std::size_t page)
{
    m_page = static_cast<WatchPage>(page % watch_page_count);
    m_first_row = 0;
}

void WatchView::press_in_filter(int key)
{
    if (key == WATCH_KEY_ENTER) {
        m_b_typing = false;
    } else if (key == WATCH_KEY_ESCAPE) {
        m_b_typing = false;
        m_filter.clear();
    } else if (key == WATCH_KEY_BACKSPACE) {
        if (!m_filter.empty()) {
            m_filter.pop_back();
        }
    } else if (key >= ' ' && key <= '~' && m_filter.size() < longest_filter) {
        m_filter += static_cast<char>(key);
    }
    m_first_row = 0;
}

void WatchView::press(int key)
{
    if (m_b_help) {
        m_b_help = false;
        return;
    }
    if (m_b_typing) {
        press_in_filter(key);
        return;
    }
    order& current = order_of_page();
    switch (key) {
    case '1':
    case '2':
    case '3':
    case '4':
        turn_to(static_cast<std::size_t>(key - '1'));
        break;
    case '\t':
        turn_to(static_cast<std::size_t>(m_page) + 1);
        break;
    case 's':
        current.column = (current.column + 1) % m_columns;
        break;
    case 'S':
        current.column = (current.column + m_columns - 1) % m_columns;
        break;
    case 'r':
        current.b_reverse = !current.b_reverse;
        break;
    case '/':
        m_b_typing = true;
        break;
    case WATCH_KEY_ESCAPE:
        m_filter.clear();
        break;
    case 'k':
    case WATCH_KEY_UP:
        m_first_row -= std::min<std::size_t>(m_first_row, 1);
        break;
    case 'j':
    case WATCH_KEY_DOWN:
        ++m_first_row;
        break;
    case WATCH_KEY_PAGE_UP:
        m_first_row -= std::min(m_first_row, m_rows_in_sight);
        break;
    case ' ':
    case WATCH_KEY_PAGE_DOWN:
        m_first_row += m_rows_in_sight;
        break;
    case WATCH_KEY_HOME:
        m_first_row = 0;
        break;
    case WATCH_KEY_END:
        m_first_row = static_cast<std::size_t>(-1);
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

WatchLine WatchView::title(const WatchModel& model) const
{
    std::string text = "kavstat  ";
    for (std::size_t page = 0; page < watch_page_count; ++page) {
        const std::string word = word_of(static_cast<WatchPage>(page));
        const bool b_here = static_cast<WatchPage>(page) == m_page;
        text += std::to_string(page + 1) + (b_here ? "[" + word + "] " : " " + word + "  ");
    }
    char every[32];
    std::snprintf(every, sizeof every, "%gs", m_interval);
    text += std::string(" ") + state_of(model) + (m_b_paused ? ", paused" : "") + "  every " + every + "  ? help";
    return {text, model.is_up() ? WatchStyle::title : WatchStyle::alarm};
}

std::vector<WatchLine> WatchView::screen(const WatchModel& model, std::size_t width, std::size_t height)
{
    std::vector<WatchLine> lines;
    if (m_b_help) {
        lines = help();
    } else {
        lines.push_back(title(model));
        if (m_b_typing || !m_filter.empty()) {
            lines.push_back({"filter: " + m_filter + (m_b_typing ? "_" : ""), WatchStyle::prompt});
        }
        if (!model.is_up()) {
            lines.push_back({});
            lines.push_back({"No figures: " + state_of(model) + ".", WatchStyle::plain});
        } else {
            // On a small screen the table is worth more than what stands above it.
            constexpr std::size_t least_rows = 6;
            const std::vector<std::string> summary = engine_summary(model, width, m_b_unicode);
            if (m_page == WatchPage::engine) {
                for (std::size_t at = 0; at < summary.size() && (at < 1 || height > summary.size() + least_rows);
                     ++at) {
                    lines.push_back({summary[at]});
                }
            }
            const WatchTable table = table_of(m_page, model, m_b_unicode);
            m_columns = table.columns.size();
            const order& by = order_of_page();
            const std::vector<std::size_t> rows = rows_in_order(table, by.column, by.b_reverse, m_filter);
            lines.push_back({table_head(table, by.column), WatchStyle::head});
            m_rows_in_sight = std::max<std::size_t>(height > lines.size() ? height - lines.size() : 0, 1);
            m_first_row = std::min(m_first_row, rows.size() > m_rows_in_sight ? rows.size() - m_rows_in_sight : 0);
            for (std::size_t at = m_first_row; at < rows.size() && lines.size() < height; ++at) {
                lines.push_back({table_line(table, rows[at])});
            }
            if (rows.empty()) {
                lines.push_back({m_page == WatchPage::engine && !model.has_rates() ? "(no rates yet)" : "(none)"});
            }
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
        lines.push_back(std::string(word_of(m_page)) + ": no figures: " + state_of(model));
        return lines;
    }
    lines.push_back(std::string(word_of(m_page)) + " at " + time_of_day(model.now().capture_time));
    if (m_page == WatchPage::engine) {
        constexpr std::size_t width = 92; // sixty values of history
        for (const std::string& line : engine_summary(model, width, m_b_unicode)) {
            lines.push_back(line);
        }
    }
    const WatchTable table = table_of(m_page, model, m_b_unicode);
    const order& by = order_of_page();
    lines.push_back(table_head(table, by.column));
    for (const std::size_t row : rows_in_order(table, by.column, by.b_reverse, m_filter)) {
        lines.push_back(table_line(table, row));
    }
    for (std::string& line : lines) {
        line.resize(line.find_last_not_of(' ') + 1);
    }
    return lines;
}

} // namespace kavstat
