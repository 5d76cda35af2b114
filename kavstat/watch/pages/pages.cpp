#include "watch/pages/pages.h"

namespace kavstat {

namespace {

struct TablePageRow
{
    const char* name;
    WatchNeeds needs;
    const char* order; // key of the initial column for the order
    WatchTable (*table)(const WatchModel&, const WatchFrame&);
    std::vector<WatchLine> (*heading)(const WatchModel&, const WatchFrame&); // null without a heading
};

const TablePageRow table_pages[] = {
    {"peers", {}, "before", peers_table, nullptr},
    {"connections", {.b_connections = true}, "rate", connections_table, connections_heading},
    {"applications", {}, "before", applications_table, nullptr},
    {"nacks", {.b_nacks = true}, "time", nacks_table, nullptr},
    {"bypass", {.b_bypass = true}, "bytes", bypass_table, bypass_heading},
    {"counters", {}, "area", counters_table, nullptr},
    {"configuration", {.b_config = true}, "key", config_table, nullptr},
};

} // namespace

std::vector<std::unique_ptr<WatchPage>> make_watch_pages()
{
    std::vector<std::unique_ptr<WatchPage>> pages;
    pages.push_back(make_overview_page());
    for (const TablePageRow& page : table_pages) {
        pages.push_back(std::make_unique<TablePage>(
            TablePage::Content{page.name, page.needs, page.order, page.table, page.heading}));
    }
    return pages;
}

std::vector<std::string> watch_page_names()
{
    std::vector<std::string> names;
    for (const std::unique_ptr<WatchPage>& page : make_watch_pages()) {
        names.push_back(page->name());
    }
    return names;
}

std::unique_ptr<WatchPage> make_subject_page(const WatchSubject& subject)
{
    TablePage::Content content;
    content.name = subject.kind == SubjectKind::peer         ? "peer"
                   : subject.kind == SubjectKind::connection ? "connection"
                                                             : "application";
    content.needs.subject = subject;
    content.order = "area";
    content.table = [subject](const WatchModel& model, const WatchFrame& frame) {
        return subject_table(model, subject, frame);
    };
    content.heading = [subject](const WatchModel& model, const WatchFrame& frame) {
        return subject_heading(model, subject, frame);
    };
    return std::make_unique<TablePage>(std::move(content));
}

} // namespace kavstat
