// The live view without its screen: which page is shown, what keys do, and the lines that a screen of a given size
// shows.
#pragma once

#include "watch/page.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

class WatchView
{
public:
    // page: the index of the page that is shown first. interval: seconds between two looks at the engine. b_unicode:
    // sparklines may be drawn with blocks. file: the saved statistics that are looked at, and not an engine.
    WatchView(std::size_t page, double interval, bool b_unicode, std::optional<std::string> file = std::nullopt);

    // key: a character or a WatchKey.
    void press(int key);
    // Whether a key is a part of a text, or ends the help, and none that does anything.
    bool is_taking_text() const { return m_b_help || page().is_typing(); }
    // Where a recorded history is played; the title shows it instead of the moment.
    void set_position(std::string position) { m_position = std::move(position); }
    bool is_over() const { return m_b_over; }
    bool is_paused() const { return m_b_paused; }
    double interval() const { return m_interval; }
    WatchPage& page() const { return m_detail != nullptr ? *m_detail : *m_pages[m_page]; }
    // Of the page that is shown; nothing else is read.
    const WatchNeeds& needs() const { return page().needs(); }

    // The screen, `height` lines of up to `width` columns. Scrolls so far as there are rows. Any size will do.
    std::vector<WatchLine> screen(const WatchModel& model, std::size_t width, std::size_t height);
    // The whole page for paper, a pipe or a log: no keys, no scrolling, every row.
    std::vector<std::string> report(const WatchModel& model);
    // The same as one line of JSON.
    void write_json(const WatchModel& model, Output& output);

private:
    WatchLine title(const WatchModel& model, std::size_t width) const;
    // What the title says of the engine or file.
    std::string state_of(const WatchModel& model) const;

    std::vector<std::unique_ptr<WatchPage>> m_pages;
    std::size_t m_page;
    std::unique_ptr<WatchPage> m_detail; // of what was opened; null when nothing is
    double m_interval;
    bool m_b_unicode;
    std::optional<std::string> m_file;
    std::string m_position; // of a playback; empty otherwise
    bool m_b_over = false;
    bool m_b_paused = false;
    bool m_b_help = false;
};

} // namespace kavstat
