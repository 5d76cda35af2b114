// The live view without its screen: what keys do, and the lines that a screen of a given size shows.
#pragma once

#include "RE_watch_pages.h"

#include <array>
#include <string>
#include <vector>

// Keys that are no characters.
enum RE_watch_key : int
{
    RE_KEY_UP = 0x10000,
    RE_KEY_DOWN,
    RE_KEY_PAGE_UP,
    RE_KEY_PAGE_DOWN,
    RE_KEY_HOME,
    RE_KEY_END,
    RE_KEY_ENTER,
    RE_KEY_ESCAPE,
    RE_KEY_BACKSPACE,
};

enum class RE_watch_style
{
    plain,
    title,  // the line that tells what all this is
    head,   // above a table's columns
    alarm,  // there is no engine
    prompt, // where a filter is typed
};

struct RE_watch_line
{
    std::string text;
    RE_watch_style style = RE_watch_style::plain;
};

class RE_watch_view
{
public:
    // interval: seconds between two looks at the engine. b_unicode: sparklines may be drawn with blocks.
    RE_watch_view(RE_watch_page page, double interval, bool b_unicode);

    // key: a character or an RE_watch_key.
    void press(int key);
    bool is_over() const { return m_b_over; }
    bool is_paused() const { return m_b_paused; }
    double interval() const { return m_interval; }
    RE_watch_page page() const { return m_page; }
    // Connections are many; they are read only while they are shown.
    bool needs_connections() const { return m_page == RE_watch_page::connections; }

    // The screen, `height` lines of up to `width` columns. Scrolls so far as there are rows. Any size will do.
    std::vector<RE_watch_line> screen(const RE_watch_model& model, std::size_t width, std::size_t height);
    // The whole page for paper, a pipe or a log: no keys, no scrolling, every row.
    std::vector<std::string> report(const RE_watch_model& model);

private:
    struct order
    {
        std::size_t column;
        bool b_reverse = false;
    };

    void press_in_filter(int key);
    void turn_to(std::size_t page);
    void next_order(const RE_watch_table& table);
    RE_watch_line title(const RE_watch_model& model) const;
    order& order_of_page() { return m_orders[static_cast<std::size_t>(m_page)]; }

    RE_watch_page m_page;
    double m_interval;
    bool m_b_unicode;
    bool m_b_over = false;
    bool m_b_paused = false;
    bool m_b_help = false;
    bool m_b_typing = false; // a filter
    std::string m_filter;
    std::array<order, RE_watch_page_count> m_orders;
    std::size_t m_first_row = 0;
    std::size_t m_rows_in_sight = 1;
    std::size_t m_columns = 1; // of the page's table
};
