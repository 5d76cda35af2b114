#include "format/text.h"
#include "format/units.h"
#include "model/words.h"
#include "watch/pages/pages.h"

namespace kavstat {

namespace {

const std::vector<RE_bypass_entry>& entries_of(const WatchModel& model)
{
    static const std::vector<RE_bypass_entry> none;
    return model.bypass() ? *model.bypass() : none;
}

std::string server_text(const RE_bypass_entry& entry)
{
    return ip_text(entry.server_ip) + ":" + std::to_string(entry.server_port);
}

const char* reason_text(const RE_bypass_entry& entry)
{
    return word_for(bypass_reason_words, static_cast<std::uint32_t>(entry.reason));
}

} // namespace

WatchTable bypass_table(const WatchModel& model, const WatchFrame& /*frame*/)
{
    using Entry = RE_bypass_entry;
    const std::vector<RE_bypass_entry>& entries = entries_of(model);
    WatchTable table;
    table.rows = entries.size();
    table.columns = {
        ordered_text_column("server", "SERVER", 21, 0, entries, server_text,
                            [](const Entry& e) { return static_cast<double>(e.server_ip) * 65536 + e.server_port; }),
        text_column("reason", "REASON", 15, 1, entries, reason_text),
        number_column(
            "bytes", "BYPASSED", 9, 1, entries, [](const Entry& e) { return static_cast<double>(e.bytes); }, size_text),
        number_column(
            "connections", "CONNS", 8, 2, entries, [](const Entry& e) { return static_cast<double>(e.connections); },
            count_text),
        ordered_text_column(
            "since", "SINCE", 19, 3, entries, [](const Entry& e) { return date_and_time(e.since); },
            [](const Entry& e) { return e.since; }),
        ordered_text_column(
            "next_attempt", "NEXT ATTEMPT", 19, 4, entries,
            [](const Entry& e) { return e.next_attempt != 0 ? date_and_time(e.next_attempt) : "never"; },
            [](const Entry& e) { return e.next_attempt; }),
    };
    table.search = [&entries](std::size_t row) { return server_text(entries[row]) + " " + reason_text(entries[row]); };
    table.subject = [&entries](std::size_t row) {
        const Entry& entry = entries[row];
        return WatchSubject{SubjectKind::row, 0, entry.server_ip, entry.server_port};
    };
    return table;
}

std::vector<WatchLine> bypass_heading(const WatchModel& model, const WatchFrame& /*frame*/)
{
    if (!model.bypass()) {
        return {{"The engine has no auto-bypass table"}};
    }
    return {};
}

} // namespace kavstat
