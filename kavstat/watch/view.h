// The live view without a terminal: the current page, the handling of keys, and the lines for a screen of a given
// size.
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
    // page: index of the first page. interval: seconds between two readings of the engine. b_unicode: sparklines are
    // drawn with block characters. file: name of the saved statistics; empty for a running engine.
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
    // The data that the current page needs. Only this is read.
    const WatchNeeds& needs() const { return page().needs(); }

    // Returns at most `height` lines of at most `width` columns, for any size. Does not scroll beyond the last row.
    std::vector<WatchLine> screen(const WatchModel& model, std::size_t width, std::size_t height);
    // Returns the whole page with all rows, for a pipe or a log.
    std::vector<std::string> report(const WatchModel& model);
    // Writes the page as one line of JSON.
    void write_json(const WatchModel& model, Output& output);

private:
    WatchLine title(const WatchModel& model, std::size_t width) const;
    // The description of the engine or file for the title.
    std::string state_of(const WatchModel& model) const;

    std::vector<std::unique_ptr<WatchPage>> m_pages;
    std::size_t m_page;
    std::unique_ptr<WatchPage> m_detail; // of the opened subject; null without one
    double m_interval;
    bool m_b_unicode;
    std::optional<std::string> m_file;
    std::string m_position; // of a playback; empty otherwise
    bool m_b_over = false;
    bool m_b_paused = false;
    bool m_b_help = false;
};

} // namespace kavstat
