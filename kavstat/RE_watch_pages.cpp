#include "RE_watch_pages.h"

#include "RE_counter_names.h"
#include "RE_json_words.h"
#include "RE_metrics.h"
#include "RE_text.h"

#include <cstdio>
#include <memory>

namespace {

constexpr std::size_t spark_width = 30;

long long figure(const RE_snapshot& now, RE_stat_global_id id)
{
    return now.engine[static_cast<std::size_t>(id)];
}

// "label        value  sparkline"
std::string spark_row(const char* label, const std::string& value, const RE_history& history, std::size_t width,
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

void add_moving(std::vector<moving_counter>& moving, RE_counter_scope scope, const std::vector<double>& rates,
                const auto& figures)
{
    for (const RE_named_counter& counter : counters_of(scope)) {
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

RE_watch_table engine_table(const RE_watch_model& model)
{
    const auto moving = std::make_shared<std::vector<moving_counter>>();
    add_moving(*moving, RE_counter_scope::connection, model.connection_rates(), model.now().connections);
    add_moving(*moving, RE_counter_scope::engine, model.engine_rates(), model.now().engine);
    RE_watch_table table;
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
RE_watch_column number_column(const char* title, int width, const Rows& rows, const Value& value, const Show& show)
{
    return {title, width, false, [&rows, value, show](std::size_t row) { return std::string(show(value(rows[row]))); },
            [&rows, value](std::size_t row) { return static_cast<double>(value(rows[row])); }};
}

template <typename Rows, typename Text>
RE_watch_column text_column(const char* title, int width, const Rows& rows, const Text& text)
{
    return {title, width, true, [&rows, text](std::size_t row) { return std::string(text(rows[row])); }, nullptr};
}

std::string whole(long long value)
{
    return std::to_string(value);
}

RE_watch_table peer_table(const std::vector<RE_watch_peer>& peers, bool b_unicode)
{
    using peer = RE_watch_peer;
    RE_watch_table table;
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

RE_watch_table connection_table(const std::vector<RE_watch_conn>& conns)
{
    using conn = RE_watch_conn;
    const auto end = [](std::uint32_t ip, std::uint16_t port) { return ip_text(ip) + ":" + std::to_string(port); };
    RE_watch_table table;
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

RE_watch_table application_table(const std::vector<RE_watch_app>& apps)
{
    using app = RE_watch_app;
    constexpr double bytes = 1024;
    const auto total = [](RE_stat_app_id id) {
        return [id](const app& a) { return a.now.app.m_id_array[id] * bytes; };
    };
    RE_watch_table table;
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

const char* word_of(RE_watch_page page)
{
    switch (page) {
    case RE_watch_page::engine:
        return "engine";
    case RE_watch_page::peers:
        return "peers";
    case RE_watch_page::connections:
        return "connections";
    case RE_watch_page::applications:
        break;
    }
    return "applications";
}

std::vector<std::string> engine_summary(const RE_watch_model& model, std::size_t width, bool b_unicode)
{
    const RE_snapshot& now = model.now();
    const RE_traffic_rates& rates = model.rates();
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

RE_watch_table table_of(RE_watch_page page, const RE_watch_model& model, bool b_unicode)
{
    switch (page) {
    case RE_watch_page::engine:
        return engine_table(model);
    case RE_watch_page::peers:
        return peer_table(model.peers(), b_unicode);
    case RE_watch_page::connections:
        return connection_table(model.conns());
    case RE_watch_page::applications:
        break;
    }
    return application_table(model.apps());
}

std::size_t first_order_of(RE_watch_page page)
{
    switch (page) {
    case RE_watch_page::engine:
        return 1; // per second
    case RE_watch_page::peers:
        return 3; // encoded per second
    case RE_watch_page::connections:
        return 5; // rate
    case RE_watch_page::applications:
        break;
    }
    return 2; // encoded per second
}
