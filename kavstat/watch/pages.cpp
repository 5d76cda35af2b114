#include "watch/pages.h"

#include "documents/metrics.h"
#include "format/text.h"
#include "model/counter_names.h"
#include "model/words.h"

#include <cstdio>
#include <memory>

namespace kavstat {

namespace {

constexpr std::size_t spark_width = 30;

long long figure(const Snapshot& now, RE_stat_global_id id)
{
    return now.engine[static_cast<std::size_t>(id)];
}

// "label        value  sparkline"
std::string spark_row(const char* label, const std::string& value, const History& history, std::size_t width,
                      bool b_unicode)
{
    constexpr std::size_t before_spark = 32;
    char text[64];
    std::snprintf(text, sizeof text, "%-17s%12s  ", label, value.substr(0, 16).c_str());
    return text + spark_line(history.values(), width > before_spark ? width - before_spark : 0, b_unicode);
}

// A counter that moves.
struct moving_counter
{
    std::string name;
    const char* unit;
    double rate;
    long long total;
    const char* meaning;
};

void add_moving(std::vector<moving_counter>& moving, CounterScope scope, const std::vector<double>& rates,
                const auto& figures)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            const auto at = static_cast<std::size_t>(id);
            if (at < rates.size() && rates[at] > 0) {
                moving.push_back(
                    {counter.is_range() ? counter.key + "[" + std::to_string(id - counter.id()) + "]" : counter.key,
                     get_stat_unit_word(counter.info.unit), rates[at], figures[at], counter.info.meaning});
            }
        }
    }
}

WatchTable engine_table(const WatchModel& model)
{
    const auto moving = std::make_shared<std::vector<moving_counter>>();
    add_moving(*moving, CounterScope::connection, model.connection_rates(), model.now().connections);
    add_moving(*moving, CounterScope::engine, model.engine_rates(), model.now().engine);
    WatchTable table;
    table.rows = moving->size();
    const auto number = [moving](std::size_t row) { return (*moving)[row].rate; };
    table.columns = {
        {"COUNTER", 45, true, [moving](std::size_t row) { return (*moving)[row].name; }, nullptr},
        {"PER SECOND", 12, false, [moving](std::size_t row) { return short_count((*moving)[row].rate); }, number},
        {"TOTAL", 19, false, [moving](std::size_t row) { return std::to_string((*moving)[row].total); },
         [moving](std::size_t row) { return static_cast<double>((*moving)[row].total); }},
        {"UNIT", 12, true, [moving](std::size_t row) { return std::string((*moving)[row].unit); }, nullptr},
        {"MEANING", 8, true, [moving](std::size_t row) { return std::string((*moving)[row].meaning); }, nullptr},
    };
    return table;
}

// A column of numbers. value: what a row has; show: how that reads.
template <typename Rows, typename Value, typename Show>
WatchColumn number_column(const char* title, int width, const Rows& rows, const Value& value, const Show& show)
{
    return {title, width, false, [&rows, value, show](std::size_t row) { return std::string(show(value(rows[row]))); },
            [&rows, value](std::size_t row) { return static_cast<double>(value(rows[row])); }};
}

template <typename Rows, typename Text>
WatchColumn text_column(const char* title, int width, const Rows& rows, const Text& text)
{
    return {title, width, true, [&rows, text](std::size_t row) { return std::string(text(rows[row])); }, nullptr};
}

std::string whole(long long value)
{
    return std::to_string(value);
}

WatchTable peer_table(const std::vector<WatchPeer>& peers, bool b_unicode)
{
    using peer = WatchPeer;
    WatchTable table;
    table.rows = peers.size();
    table.columns = {
        number_column(
            "PEER", 7, peers, [](const peer& p) -> long long { return p.now.number; }, whole),
        text_column("HOST", 20, peers,
                    [](const peer& p) {
                        const std::string host = plain_text(text_in(p.now.header.m_peer_host_name));
                        return host.empty() ? p.now.header.m_peer_mac_id.getString() : host;
                    }),
        number_column(
            "CONNS", 6, peers, [](const peer& p) -> long long { return p.now.active_connections; }, whole),
        number_column(
            "ENC-IN", 11, peers, [](const peer& p) { return p.rates.encode_in; }, short_rate),
        number_column(
            "ENC-OUT", 11, peers, [](const peer& p) { return p.rates.encode_out; }, short_rate),
        number_column(
            "SAVED", 6, peers, [](const peer& p) { return saved_percent(p.rates.encode_in, p.rates.encode_out); },
            percent_text),
        number_column(
            "DEC-OUT", 11, peers, [](const peer& p) { return p.rates.decode_out; }, short_rate),
        number_column(
            "NACK/s", 7, peers, [](const peer& p) { return p.rates.nacks; }, short_count),
        number_column(
            "ACK-Q", 9, peers,
            [](const peer& p) { return static_cast<double>(p.now.figures[RE_STAT_PEER_ID_ACK_Q_SIZE]); }, short_size),
        text_column("TRAFFIC", static_cast<int>(spark_width), peers,
                    [b_unicode](const peer& p) { return spark_line(p.history.values(), spark_width, b_unicode); }),
    };
    return table;
}

WatchTable connection_table(const std::vector<WatchConn>& conns)
{
    using conn = WatchConn;
    const auto end = [](std::uint32_t ip, std::uint16_t port) { return ip_text(ip) + ":" + std::to_string(port); };
    WatchTable table;
    table.rows = conns.size();
    table.columns = {
        number_column(
            "CONN", 10, conns, [](const conn& c) -> long long { return c.header.m_conn_id; }, whole),
        number_column(
            "PEER", 7, conns, [](const conn& c) -> long long { return c.peer_number; }, whole),
        text_column("CLIENT", 21, conns,
                    [end](const conn& c) { return end(c.header.m_client_ip, c.header.m_client_port); }),
        text_column("SERVER", 21, conns,
                    [end](const conn& c) { return end(c.header.m_server_ip, c.header.m_server_port); }),
        text_column("STATE", 6, conns, [](const conn& c) { return c.b_open ? "open" : "closed"; }),
        number_column(
            "RATE", 11, conns, [](const conn& c) { return c.rates.encode_in + c.rates.decode_out; }, short_rate),
        number_column(
            "ENC-IN", 9, conns, [](const conn& c) { return static_cast<double>(c.encode_in); }, short_size),
        number_column(
            "ENC-OUT", 9, conns, [](const conn& c) { return static_cast<double>(c.encode_out); }, short_size),
        number_column(
            "DEC-OUT", 9, conns, [](const conn& c) { return static_cast<double>(c.decode_out); }, short_size),
        number_column(
            "SAVED", 6, conns,
            [](const conn& c) {
                return saved_percent(static_cast<double>(c.encode_in), static_cast<double>(c.encode_out));
            },
            percent_text),
    };
    return table;
}

WatchTable application_table(const std::vector<WatchApp>& apps)
{
    using app = WatchApp;
    constexpr double bytes = 1024;
    const auto total = [](RE_stat_app_id id) {
        return [id](const app& a) { return a.now.app.m_id_array[id] * bytes; };
    };
    WatchTable table;
    table.rows = apps.size();
    table.columns = {
        text_column("APPLICATION", 22, apps, [](const app& a) { return application_label(a.now.app.m_header); }),
        number_column(
            "PEER", 7, apps, [](const app& a) -> long long { return a.now.peer_number; }, whole),
        number_column(
            "ENC-IN", 11, apps, [](const app& a) { return a.rates.encode_in; }, short_rate),
        number_column(
            "ENC-OUT", 11, apps, [](const app& a) { return a.rates.encode_out; }, short_rate),
        number_column(
            "DEC-OUT", 11, apps, [](const app& a) { return a.rates.decode_out; }, short_rate),
        number_column(
            "MSG/s", 8, apps, [](const app& a) { return a.rates.messages; }, short_count),
        number_column("ENCODED", 9, apps, total(RE_STAT_APP_ID_ENCODE_IN_KBYTES), short_size),
        number_column("DECODED", 9, apps, total(RE_STAT_APP_ID_DECODE_OUT_KBYTES), short_size),
        number_column(
            "OPENED", 8, apps, [](const app& a) { return static_cast<long long>(a.now.app.m_header.m_open_cnt); },
            whole),
        number_column(
            "SAVED", 6, apps,
            [total](const app& a) {
                return saved_percent(total(RE_STAT_APP_ID_ENCODE_IN_KBYTES)(a),
                                     total(RE_STAT_APP_ID_ENCODE_OUT_KBYTES)(a));
            },
            percent_text),
    };
    return table;
}

} // namespace

const char* word_of(WatchPage page)
{
    switch (page) {
    case WatchPage::engine:
        return "engine";
    case WatchPage::peers:
        return "peers";
    case WatchPage::connections:
        return "connections";
    case WatchPage::applications:
        break;
    }
    return "applications";
}

std::vector<std::string> engine_summary(const WatchModel& model, std::size_t width, bool b_unicode)
{
    const Snapshot& now = model.now();
    const TrafficRates& rates = model.rates();
    const double disk = 1024.0 * 1024.0;
    const double used = static_cast<double>(figure(now, RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE)) +
                        static_cast<double>(figure(now, RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE));
    std::vector<std::string> lines;
    lines.push_back(std::string("Cache ") + word_for(cache_state_words, figure(now, RE_STAT_GLOBAL_ID_CACHE_STATE)) +
                    ", " + short_size(used * disk) + " of " +
                    short_size(static_cast<double>(figure(now, RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE)) * disk) +
                    " in use; " + std::to_string(now.peers.size()) + " peers, " + std::to_string(now.apps.size()) +
                    " applications, " + std::to_string(figure(now, RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS)) +
                    " connections in all");
    lines.push_back(spark_row("Encode, before", short_rate(rates.encode_in), model.encode_history(), width, b_unicode));
    lines.push_back(spark_row("Saved", percent_text(saved_percent(rates.encode_in, rates.encode_out)),
                              model.saved_history(), width, b_unicode));
    lines.push_back(spark_row("Decode, after", short_rate(rates.decode_out), model.decode_history(), width, b_unicode));
    lines.push_back(
        spark_row("Nacks and r-tx", short_count(rates.nacks) + "/s", model.nack_history(), width, b_unicode));
    lines.push_back(spark_row("Connections open", std::to_string(now.active_connections), model.connection_history(),
                              width, b_unicode));
    lines.emplace_back();
    return lines;
}

WatchTable table_of(WatchPage page, const WatchModel& model, bool b_unicode)
{
    switch (page) {
    case WatchPage::engine:
        return engine_table(model);
    case WatchPage::peers:
        return peer_table(model.peers(), b_unicode);
    case WatchPage::connections:
        return connection_table(model.conns());
    case WatchPage::applications:
        break;
    }
    return application_table(model.apps());
}

std::size_t first_order_of(WatchPage page)
{
    switch (page) {
    case WatchPage::engine:
        return 1; // per second
    case WatchPage::peers:
        return 3; // encoded per second
    case WatchPage::connections:
        return 5; // rate
    case WatchPage::applications:
        break;
    }
    return 2; // encoded per second
}

} // namespace kavstat
