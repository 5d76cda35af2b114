// The pages of the live view. A page gives lines for a width and a height, and takes keys. Most are tables, made from a
// row of `table_pages` in pages/pages.cpp.
#pragma once

#include "format/output.h"
#include "watch/table.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kavstat {

// Keys that are no characters.
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

// What lines are made for.
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
    // At most as many lines as the frame is high; they may be wider. model: up.
    virtual std::vector<WatchLine> lines(const WatchModel& model, const WatchFrame& frame) = 0;
    // For paper, a pipe or a log: every row, nothing selected.
    virtual std::vector<WatchLine> report(const WatchModel& model, bool b_unicode) = 0;
    // Each row as a JSON object, joined by commas; nothing when the page has no rows.
    virtual void write_rows(const WatchModel& model, Output& output) = 0;
    // False when the key is none of the page's.
    virtual bool press(int key) = 0;
    // Whether keys are characters of a text.
    virtual bool is_typing() const = 0;
    // What Enter opens; none when it opens nothing.
    virtual WatchSubject selected() const = 0;
    // The keys that rows can be ordered by; none on a page without rows.
    virtual std::vector<std::string> order_keys() const { return {}; }
    // key: one of these.
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
        std::string order; // the key of the column that rows are ordered by at first
        std::function<WatchTable(const WatchModel&, const WatchFrame&)> table;
        // At most as many lines as the frame is high.
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
    // The rows in sight, after the selection has been put among them.
    std::vector<std::size_t> rows_in_sight(const WatchTable& table, RowOrder& order, std::size_t room);

    Content m_content;
    std::string m_order;
    bool m_b_reverse = false;
    RowFilter m_filter;
    bool m_b_typing = false;
    std::size_t m_first_column = 0;
    std::size_t m_first_row = 0;
    std::size_t m_place = 0; // of the selected row
    std::size_t m_room = 1;  // rows that were in sight at last
    WatchSubject m_selected; // what the selected row is about
    bool m_b_follow = false; // the selection goes where its row goes, because somebody put it there
    bool m_b_moved = false;  // since the rows were last made
    std::vector<std::string> m_keys;
};

// A row here is a page, in the order of the keys 1 to 9. The first is the one that the view starts with.
std::vector<std::unique_ptr<WatchPage>> make_watch_pages();
// The names of all, for --page.
std::vector<std::string> watch_page_names();
// The page of one thing.
std::unique_ptr<WatchPage> make_subject_page(const WatchSubject& subject);

} // namespace kavstat
