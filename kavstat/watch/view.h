// The live view without its screen: what keys do, and the lines that a screen of a given size shows.
#pragma once

#include "watch/pages.h"

#include <array>
#include <string>
#include <vector>

namespace kavstat {

// Keys that are no characters.
enum WatchKey : int
{
    WATCH_KEY_UP = 0x10000,
    WATCH_KEY_DOWN,
    WATCH_KEY_PAGE_UP,
    WATCH_KEY_PAGE_DOWN,
    WATCH_KEY_HOME,
    WATCH_KEY_END,
    WATCH_KEY_ENTER,
    WATCH_KEY_ESCAPE,
    WATCH_KEY_BACKSPACE,
};

enum class WatchStyle
{
    plain,
    title,  // the line that tells what all this is
    head,   // above a table's columns
    alarm,  // there is no engine
    prompt, // where a filter is typed
};

struct WatchLine
{
    std::string text;
    WatchStyle style = WatchStyle::plain;
};

class WatchView
{
public:
    // interval: seconds between two looks at the engine. b_unicode: sparklines may be drawn with blocks.
    WatchView(WatchPage page, double interval, bool b_unicode);

    // key: a character or an WatchKey.
    void press(int key);
    bool is_over() const { return m_b_over; }
    bool is_paused() const { return m_b_paused; }
    double interval() const { return m_interval; }
    WatchPage page() const { return m_page; }
    // Connections are many; they are read only while they are shown.
    bool needs_connections() const { return m_page == WatchPage::connections; }

    // The screen, `height` lines of up to `width` columns. Scrolls so far as there are rows. Any size will do.
    std::vector<WatchLine> screen(const WatchModel& model, std::size_t width, std::size_t height);
    // The whole page for paper, a pipe or a log: no keys, no scrolling, every row.
    std::vector<std::string> report(const WatchModel& model);

private:
    struct order
    {
        std::size_t column;
        bool b_reverse = false;
    };

    void press_in_filter(int key);
    void turn_to(std::size_t page);
    void next_order(const WatchTable& table);
    WatchLine title(const WatchModel& model) const;
    order& order_of_page() { return m_orders[static_cast<std::size_t>(m_page)]; }

    WatchPage m_page;
    double m_interval;
    bool m_b_unicode;
    bool m_b_over = false;
    bool m_b_paused = false;
    bool m_b_help = false;
    bool m_b_typing = false; // a filter
    std::string m_filter;
    std::array<order, watch_page_count> m_orders;
    std::size_t m_first_row = 0;
    std::size_t m_rows_in_sight = 1;
    std::size_t m_columns = 1; // of the page's table
};

} // namespace kavstat
