// The pages of the live view. A page makes lines for a width and a height, and handles keys. Most pages are tables,
// which are described by the rows of `table_pages` in pages/pages.cpp.
#pragma once

#include "format/output.h"
#include "watch/table.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kavstat {

// Keys that are not characters.
enum WatchKey : int
{
    WATCH_KEY_UP = 0x10000,
    WATCH_KEY_DOWN,
    WATCH_KEY_LEFT,
    WATCH_KEY_RIGHT,
    WATCH_KEY_PAGE_UP,
    WATCH_KEY_PAGE_DOWN,
    WATCH_KEY_HOME,
    WATCH_KEY_END,
    WATCH_KEY_ENTER,
    WATCH_KEY_ESCAPE,
    WATCH_KEY_BACKSPACE,
};

// The area for the lines of a page.
struct WatchFrame
{
    std::size_t width = 0;  // columns
    std::size_t height = 0; // lines
    bool b_unicode = false;
};

class WatchPage
{
public:
    virtual ~WatchPage() = default;

    virtual const std::string& name() const = 0;
    virtual const WatchNeeds& needs() const = 0;
    // Returns at most frame.height lines. Lines may be wider than the frame. model: is_up().
    virtual std::vector<WatchLine> lines(const WatchModel& model, const WatchFrame& frame) = 0;
    // Returns the page for a pipe or a log: all rows, without a selection.
    virtual std::vector<WatchLine> report(const WatchModel& model, bool b_unicode) = 0;
    // Writes each row as a JSON object, separated by commas; nothing if the page has no rows.
    virtual void write_rows(const WatchModel& model, Output& output) = 0;
    // Handles a key. Returns false if the page does not use it.
    virtual bool press(int key) = 0;
    // Whether keys are read as characters of a text.
    virtual bool is_typing() const = 0;
    // Returns the subject that Enter opens; an empty subject if there is none.
    virtual WatchSubject selected() const = 0;
    // Returns the keys by which rows can be ordered; empty for a page without rows.
    virtual std::vector<std::string> order_keys() const { return {}; }
    // key: one of the keys above.
    virtual void order_by(const std::string& /*key*/, bool /*b_reverse*/) {}
    virtual void filter_by(const std::string& /*text*/) {}
};

// A table with lines above it.
class TablePage : public WatchPage
{
public:
    struct Content
    {
        std::string name;
        WatchNeeds needs;
        std::string order; // key of the initial column for the order
        std::function<WatchTable(const WatchModel&, const WatchFrame&)> table;
        // Returns at most frame.height lines.
        std::function<std::vector<WatchLine>(const WatchModel&, const WatchFrame&)> heading;
    };
    explicit TablePage(Content content) : m_content(std::move(content)), m_order(m_content.order) {}

    const std::string& name() const override { return m_content.name; }
    const WatchNeeds& needs() const override { return m_content.needs; }
    std::vector<WatchLine> lines(const WatchModel& model, const WatchFrame& frame) override;
    std::vector<WatchLine> report(const WatchModel& model, bool b_unicode) override;
    void write_rows(const WatchModel& model, Output& output) override;
    bool press(int key) override;
    bool is_typing() const override { return m_b_typing; }
    WatchSubject selected() const override { return m_selected; }
    std::vector<std::string> order_keys() const override;
    void order_by(const std::string& key, bool b_reverse) override;
    void filter_by(const std::string& text) override { m_filter.set(text); }

private:
    void press_in_filter(int key);
    void next_order(bool b_forwards);
    void move(std::ptrdiff_t by);
    std::size_t ordered_column(const WatchTable& table) const;
    // Returns the visible rows. Scrolls so that the selection is one of them.
    std::vector<std::size_t> rows_in_sight(const WatchTable& table, RowOrder& order, std::size_t room);

    Content m_content;
    std::string m_order;
    bool m_b_reverse = false;
    RowFilter m_filter;
    bool m_b_typing = false;
    std::size_t m_first_column = 0;
    std::size_t m_first_row = 0;
    std::size_t m_place = 0; // of the selected row
    std::size_t m_room = 1;  // number of visible rows at the last call
    WatchSubject m_selected; // subject of the selected row
    bool m_b_follow = false; // the selection follows its row, because the user has moved it
    bool m_b_moved = false;  // by a key, since the rows were last made
    std::vector<std::string> m_keys;
};

// All pages, in the order of the keys 1 to 9. The view starts with the first one.
std::vector<std::unique_ptr<WatchPage>> make_watch_pages();
// The names of all pages, for --page.
std::vector<std::string> watch_page_names();
// Makes the page of one subject.
std::unique_ptr<WatchPage> make_subject_page(const WatchSubject& subject);

} // namespace kavstat
