#include "format/text.h"
#include "format/units.h"
#include "watch/pages/pages.h"

namespace kavstat {

WatchTable applications_table(const WatchModel& model, const WatchFrame& /*frame*/)
{
    using App = WatchApp;
    const std::vector<WatchApp>& apps = model.apps();
    const auto total = [](const App& a, RE_stat_app_id id) {
        constexpr double bytes_per_kilobyte = 1024;
        return a.now->app.m_id_array[id] * bytes_per_kilobyte;
    };
    const auto before = [total](const App& a) {
        return total(a, RE_STAT_APP_ID_ENCODE_IN_KBYTES) + total(a, RE_STAT_APP_ID_DECODE_OUT_KBYTES);
    };
    const auto after = [total](const App& a) {
        return total(a, RE_STAT_APP_ID_ENCODE_OUT_KBYTES) + total(a, RE_STAT_APP_ID_DECODE_IN_KBYTES);
    };
    const auto rate_column = [&](const char* key, const char* title, int importance, double (*rate)(const App&)) {
        return number_column(key, title, 11, importance, apps, rate, rate_text);
    };
    WatchTable table;
    table.rows = apps.size();
    table.columns = {
        ordered_text_column(
            "application", "APPLICATION", 18, 0, apps,
            [](const App& a) { return application_label(a.now->app.m_header); },
            [](const App& a) {
                const RE_stat_app_header& header = a.now->app.m_header;
                return static_cast<double>(header.m_server_port) * 2048 +
                       static_cast<double>(header.m_b_src_port) * 1024 + header.m_policy_engine_handler;
            }),
        number_column(
            "peer", "PEER", 6, 0, apps, [](const App& a) { return a.now->peer_number; }, whole_text),
        text_column("host", "HOST", 20, 4, apps, [&model](const App& a) { return model.host_of(a.now->peer_number); }),
        rate_column("before", "BEFORE", 1, [](const App& a) { return a.rates.before(); }),
        rate_column("after", "AFTER", 2, [](const App& a) { return a.rates.after(); }),
        ordered_text_column(
            "saved", "SAVED", 13, 1, apps,
            [total](const App& a) {
                return saved_text(total(a, RE_STAT_APP_ID_ENCODE_IN_KBYTES), total(a, RE_STAT_APP_ID_ENCODE_OUT_KBYTES),
                                  total(a, RE_STAT_APP_ID_DECODE_IN_KBYTES),
                                  total(a, RE_STAT_APP_ID_DECODE_OUT_KBYTES));
            },
            [before, after](const App& a) { return saved_percent(before(a), after(a)); }),
        number_column(
            "messages", "MSG/s", 8, 3, apps, [](const App& a) { return a.rates.messages; }, count_text),
        number_column("volume", "VOLUME", 9, 3, apps, before, size_text),
        number_column(
            "opened", "OPENED", 8, 4, apps,
            [](const App& a) { return static_cast<long long>(a.now->app.m_header.m_open_cnt); }, whole_text),
        rate_column("encode_in", "ENC-IN", 5, [](const App& a) { return a.rates.encode_in; }),
        rate_column("encode_out", "ENC-OUT", 5, [](const App& a) { return a.rates.encode_out; }),
        rate_column("decode_in", "DEC-IN", 5, [](const App& a) { return a.rates.decode_in; }),
        rate_column("decode_out", "DEC-OUT", 5, [](const App& a) { return a.rates.decode_out; }),
    };
    table.subject = [&apps](std::size_t row) { return subject_of(*apps[row].now); };
    // Findings are looked up only for visible rows.
    table.mark = [&model, subject = table.subject](std::size_t row) {
        return mark_of(model.worst_about(subject(row)));
    };
    table.search = [&apps](std::size_t row) {
        const WatchApp& app = apps[row];
        return application_label(app.now->app.m_header) + " peer " + std::to_string(app.now->peer_number);
    };
    return table;
}

} // namespace kavstat
