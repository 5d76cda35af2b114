// The page of kavstat serve: what is kept for its charts, its tables, and what the server answers for it.
#include "charts/chart_rows.h"
#include "charts/svg.h"
#include "history/recorder.h"
#include "kavstat_fixture.h"
#include "page/entity_tables.h"
#include "page/live_history.h"
#include "page/packed_rows.h"
#include "page/page_files.h"
#include "page/report.h"
#include "serve/http_server.h"
#include "support/files.h"
#include "support/http_client.h"

#include <cmath>
#include <deque>
#include <fstream>
#include <limits>

using namespace kavstat;

namespace {

using Row = std::vector<long long>;

std::vector<Row> rows_in(const PackedRows& packed)
{
    std::vector<Row> rows;
    packed.for_each([&](const Row& row) { rows.push_back(row); });
    return rows;
}

// Rows of the engine that are 5 seconds apart, with the same value in each column.
ChartRows rows_with(std::initializer_list<long long> values, ChartScope scope = ChartScope::engine)
{
    ChartRows rows{scope, "", {}};
    std::int64_t time = 1'700'000'000'000;
    for (const long long value : values) {
        rows.rows.push_back({time, 1, std::vector<std::optional<long long>>(chart_columns_of(scope).size(), value)});
        time += 5000;
    }
    return rows;
}

void set(ChartRows& rows, std::size_t row, ChartColumn column, long long value)
{
    const std::vector<ChartColumn>& columns = chart_columns_of(rows.scope);
    const auto found = std::find(columns.begin(), columns.end(), column);
    rows.rows[row].values[static_cast<std::size_t>(found - columns.begin())] = value;
}

const ChartSeries& line(ChartScope scope, const char* chart, std::size_t place)
{
    return find_chart(scope, chart)->series[place];
}

using Values = std::vector<std::optional<double>>;
constexpr std::nullopt_t none = std::nullopt;

class page_test : public kavstat_test
{
protected:
    using clock = LiveHistory::clock;

    // Sends 1000 bytes in and 250 out, for each of `times`.
    void encode(int connection, int times = 1)
    {
        engine.add_conn_stat(connection, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000 * times);
        engine.add_conn_stat(connection, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 250 * times);
    }
    // A peer named "host-N" with one connection. Returns the connection.
    int add_peer(std::uint32_t number)
    {
        RE_stat_peer_header header = peer_header_of(number);
        std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "host-%u", number);
        const int peer = engine.add_peer(static_cast<int>(number), header);
        return engine.open_conn(peer, conn_header_of(number), so_header_of(number), 5);
    }
    void sample(LiveHistory& live, int seconds)
    {
        live.sample(start_point + std::chrono::seconds(seconds),
                    std::chrono::system_clock::from_time_t(now) + std::chrono::seconds(seconds));
    }
    void serve(const HttpOptions& options = {})
    {
        std::string reason;
        ASSERT_TRUE(server.start(*parse_listen_address("127.0.0.1:0"), {}, options, reason)) << reason;
    }
    // Records a sample that was taken so many seconds after `now`.
    static void record(Recorder& recorder, std::time_t& moment, int seconds)
    {
        moment = now + seconds;
        Source source;
        ASSERT_EQ(source.open(), 0);
        ASSERT_EQ(recorder.record(source.reader(), true, seconds), RecordResult::recorded) << recorder.error();
    }
    // The document of a path; waits for the first sample.
    nlohmann::json document(const std::string& path)
    {
        for (int tries = 0; tries < 100; ++tries) {
            const http_answer answer = get(server.port(), path);
            if (answer.status != 503) {
                EXPECT_EQ(answer.status, 200) << path << answer.body;
                return nlohmann::json::parse(answer.body);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        ADD_FAILURE() << path;
        return {};
    }
    // The cells of a column.
    static nlohmann::json column(const nlohmann::json& table, const std::string& key)
    {
        nlohmann::json cells = nlohmann::json::array();
        for (std::size_t at = 0; at < table["columns"].size(); ++at) {
            if (table["columns"][at]["key"] == key) {
                for (const nlohmann::json& row : table["rows"]) {
                    cells.push_back(row[at]);
                }
            }
        }
        return cells;
    }

    const clock::time_point start_point = clock::now();
    HttpServer server;
};

} // namespace

TEST(packed_rows, keep_every_number)
{
    constexpr long long lowest = std::numeric_limits<long long>::min();
    constexpr long long highest = std::numeric_limits<long long>::max();
    const std::vector<Row> rows{{0, lowest, 5}, {1, highest, -5}, {highest, lowest, 64}, {lowest, 0, 64}, {-1, 1, 65}};
    PackedRows packed;
    for (const Row& row : rows) {
        packed.add(row);
    }
    EXPECT_EQ(rows_in(packed), rows);
    packed.drop_oldest();
    packed.drop_oldest();
    EXPECT_EQ(rows_in(packed), std::vector<Row>(rows.begin() + 2, rows.end()));
    packed.add(rows[0]);
    EXPECT_EQ(packed.newest(), rows[0]);
    for (int count = 0; count < 4; ++count) {
        packed.drop_oldest();
    }
    EXPECT_EQ(packed.size(), 0U);
    packed.add(rows[1]);
    EXPECT_EQ(rows_in(packed), std::vector<Row>{rows[1]});
}

TEST(packed_rows, take_bytes_only_for_figures_that_move)
{
    PackedRows packed;
    Row row(150, 1LL << 40U);
    const std::size_t before = (packed.add(row), packed.bytes());
    std::vector<Row> rows{row};
    for (int count = 0; count < 100; ++count) {
        packed.add(row);
        rows.push_back(row);
    }
    EXPECT_EQ(packed.bytes() - before, 100U * 3U); // one for each 64 figures
    row[3] += 63;
    row[149] -= 65;
    packed.add(row);
    rows.push_back(row);
    EXPECT_EQ(packed.bytes() - before, 100U * 3U + (1 + 1) + 1 + (4 + 2)); // the 22nd bit of the last 64
    EXPECT_EQ(rows_in(packed), rows);
}

// Long enough that the memory of dropped rows is used again many times.
TEST(packed_rows, stay_right_while_old_ones_are_dropped)
{
    PackedRows packed;
    std::deque<Row> rows;
    for (long long number = 0; number < 2000; ++number) {
        rows.push_back({number, number * number % 1000, number / 7, number % 5 == 0 ? -number * 1000000 : 0});
        packed.add(rows.back());
        if (rows.size() > 20) {
            rows.pop_front();
            packed.drop_oldest();
        }
        ASSERT_EQ(rows_in(packed), std::vector<Row>(rows.begin(), rows.end()));
    }
}

TEST(chart_values, are_what_counters_grew_by)
{
    ChartRows rows = rows_with({1000, 6000, 6000, 500});
    EXPECT_EQ(values_of(line(ChartScope::engine, "traffic", 0), rows), (Values{none, 1000, 0, none}));
    rows.rows[2].engine_start_time = 2;
    EXPECT_EQ(values_of(line(ChartScope::engine, "traffic", 0), rows), (Values{none, 1000, none, none}));
    rows = rows_with({0, 5, 10, 15});
    rows.rows[3].time += 3'600'000;
    EXPECT_EQ(values_of(line(ChartScope::engine, "traffic", 0), rows), (Values{none, 1, 1, none}));
    rows.rows[1].values.assign(rows.rows[1].values.size(), none);
    EXPECT_EQ(values_of(line(ChartScope::engine, "traffic", 0), rows), (Values{none, none, none, none}));
}

TEST(chart_values, of_32_bits_wrap)
{
    const ChartRows rows = rows_with({4'294'967'290, 4, 3}, ChartScope::application);
    EXPECT_EQ(values_of(line(ChartScope::application, "traffic", 0), rows), (Values{none, 10 * 1024 / 5.0, none}));
}

TEST(chart_values, of_savings_latency_fill_and_age)
{
    ChartRows rows = rows_with({0, 0});
    set(rows, 1, {ChartColumn::Kind::connections, RE_STAT_CONN_ID_ENCODE_IN_BYTES}, 1000);
    set(rows, 1, {ChartColumn::Kind::connections, RE_STAT_CONN_ID_ENCODE_OUT_BYTES}, 250);
    EXPECT_EQ(values_of(line(ChartScope::engine, "savings", 0), rows), (Values{none, 75}));
    EXPECT_EQ(values_of(line(ChartScope::engine, "savings", 1), rows), (Values{none, none}));

    set(rows, 1, {ChartColumn::Kind::connections, RE_STAT_CONN_ID_TOT_ENCODE_SPEED}, 3'000'000);
    set(rows, 1, {ChartColumn::Kind::connections, RE_STAT_CONN_ID_ENCODE_NUM_MSGS}, 2);
    EXPECT_EQ(values_of(line(ChartScope::engine, "latency", 0), rows), (Values{none, 1.5}));

    set(rows, 1, {ChartColumn::Kind::engine, RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE}, 10);
    set(rows, 1, {ChartColumn::Kind::engine, RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE}, 20);
    set(rows, 1, {ChartColumn::Kind::engine, RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE}, 120);
    EXPECT_EQ(values_of(line(ChartScope::engine, "cache", 0), rows), (Values{none, 25}));

    set(rows, 1, {ChartColumn::Kind::engine, RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE}, 1'700'000'001);
    EXPECT_EQ(values_of(line(ChartScope::engine, "cache_age", 1), rows), (Values{none, 4}));

    set(rows, 1, {ChartColumn::Kind::engine, RE_STAT_GLOBAL_ID_TOT_ANCHOR}, 50);
    set(rows, 1, {ChartColumn::Kind::engine, RE_STAT_GLOBAL_ID_TOT_MATCHED_ANCHOR_COUNT}, 20);
    EXPECT_EQ(values_of(line(ChartScope::engine, "matches", 1), rows), (Values{none, 6}));
}

TEST(chart_rows, are_thinned_but_for_starts_of_the_engine)
{
    ChartRows rows = rows_with({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    for (std::size_t row = 7; row < 10; ++row) {
        rows.rows[row].engine_start_time = 2;
    }
    thin(rows.rows, 2);
    std::vector<long long> kept;
    for (const ChartRow& row : rows.rows) {
        kept.push_back(*row.values[0]);
    }
    EXPECT_EQ(kept, (std::vector<long long>{0, 4, 6, 7, 9}));
}

TEST(chart_table, has_columns_with_a_name_each)
{
    for (const ChartScope scope : {ChartScope::engine, ChartScope::peer, ChartScope::application}) {
        std::set<std::string> keys;
        for (const ChartColumn& column : chart_columns_of(scope)) {
            EXPECT_TRUE(keys.insert(column.key()).second) << column.key();
        }
        EXPECT_EQ(chart_scope_of(word_of(scope)), scope);
    }
    EXPECT_EQ(chart_columns_of(ChartScope::engine).front().key(), "encode_in_bytes");
    EXPECT_EQ(chart_scope_of("connection"), std::nullopt);
}

TEST_F(page_test, live_history_keeps_what_charts_need)
{
    start();
    const int connection = add_peer(1);
    LiveHistory live;
    sample(live, 0);
    encode(connection);
    sample(live, 1); // too early
    sample(live, 5);
    const std::optional<ChartRows> rows = live.rows(ChartScope::engine, "");
    ASSERT_TRUE(rows);
    EXPECT_EQ(rows->rows.size(), 2U);
    EXPECT_EQ(rows->rows[1].time, (now + 5) * 1000);
    EXPECT_EQ(values_of(line(ChartScope::engine, "traffic", 0), *rows), (Values{none, 200}));
    const std::string key = RE_kav_peer_id(peer_header_of(1).m_kav_peer_id).getString();
    EXPECT_EQ(values_of(line(ChartScope::peer, "traffic", 1), *live.rows(ChartScope::peer, key)), (Values{none, 50}));
    EXPECT_EQ(live.rows(ChartScope::peer, "none"), std::nullopt);
    EXPECT_EQ(live.moments().seconds, 5);
    EXPECT_EQ(live.health().peers, 1);
    EXPECT_EQ(live.health().seconds, 5);
}

TEST_F(page_test, live_history_is_bounded)
{
    start();
    add_peer(1);
    LiveHistoryLimits limits;
    limits.span = std::chrono::seconds(15);
    LiveHistory live({}, limits);
    for (int seconds = 0; seconds <= 40; seconds += 5) {
        sample(live, seconds);
    }
    EXPECT_EQ(live.rows(ChartScope::engine, "")->rows.size(), 4U);
    EXPECT_EQ(live.rows(ChartScope::engine, "")->rows.front().time, (now + 25) * 1000);

    // Of memory, too: with room for three samples there are three at most.
    LiveHistory three({}, limits);
    for (int seconds = 0; seconds <= 10; seconds += 5) {
        sample(three, seconds);
    }
    limits.bytes = three.bytes();
    LiveHistory small({}, limits);
    for (int seconds = 0; seconds <= 40; seconds += 5) {
        sample(small, seconds);
        EXPECT_LE(small.bytes(), limits.bytes);
    }
    const std::size_t kept = small.rows(ChartScope::engine, "")->rows.size();
    EXPECT_GE(kept, 2U);
    EXPECT_LE(kept, 3U);
}

TEST_F(page_test, live_history_keeps_the_largest_applications)
{
    start();
    for (const std::uint32_t number : {1U, 2U, 3U}) {
        engine.add_app_stat(engine.find_or_add_app(app_key_of(number)), RE_STAT_APP_ID_ENCODE_IN_KBYTES, number);
    }
    LiveHistoryLimits limits;
    limits.applications = 2;
    LiveHistory live({}, limits);
    sample(live, 0);
    const auto is_kept = [&](std::uint32_t number) {
        SnapshotApp app;
        app.app.m_header = app_key_of(number);
        return live.rows(ChartScope::application, entity_key(app)).has_value();
    };
    EXPECT_FALSE(is_kept(1));
    EXPECT_TRUE(is_kept(2));
    EXPECT_TRUE(is_kept(3));
}

TEST_F(page_test, live_history_survives_the_engine)
{
    start();
    add_peer(1);
    LiveHistory live;
    sample(live, 0);
    const auto follow = [&](int seconds) {
        live.follow_engine(start_point + std::chrono::seconds(seconds), std::chrono::system_clock::from_time_t(now));
    };
    follow(1);
    EXPECT_NE(live.moments().now, nullptr);
    engine.close();
    follow(2); // earlier than the next sample would be
    EXPECT_EQ(live.moments().now, nullptr);
    EXPECT_EQ(live.health().unknown, "no engine is running");
    EXPECT_EQ(live.rows(ChartScope::engine, "")->rows.size(), 1U);
    ASSERT_EQ(engine.create(few, 1'700'000'500), 0);
    engine.publish();
    sample(live, 10);
    EXPECT_EQ(live.moments().before, nullptr);
    const std::vector<ChartRow> rows = live.rows(ChartScope::engine, "")->rows;
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[1].engine_start_time, 1'700'000'500);
    sample(live, 15);
    EXPECT_NE(live.moments().before, nullptr);
}

TEST_F(page_test, live_history_begins_anew_when_the_clock_goes_back)
{
    start();
    LiveHistory live;
    sample(live, 0);
    live.sample(start_point + std::chrono::seconds(5), std::chrono::system_clock::from_time_t(now - 60));
    ASSERT_EQ(live.rows(ChartScope::engine, "")->rows.size(), 1U);
    EXPECT_EQ(live.rows(ChartScope::engine, "")->rows[0].time, (now - 60) * 1000);
}

TEST(connection_rates, are_of_one_connection)
{
    ConnectionRates rates;
    const ConnectionRates::clock::time_point begin;
    const auto at = [&](int milliseconds) { return begin + std::chrono::milliseconds(milliseconds); };
    EXPECT_LT(rates.update(2, 7, {1000, 100}, at(0)).before, 0);
    EXPECT_EQ(rates.update(2, 7, {3000, 500}, at(2000)).before, 1000);
    EXPECT_EQ(rates.update(2, 7, {9000, 900}, at(2500)).before, 1000); // too early for another one
    EXPECT_EQ(rates.update(2, 7, {7000, 900}, at(4000)).after, 200);
    EXPECT_LT(rates.update(2, 8, {8000, 900}, at(6000)).before, 0); // another connection in the slot
    rates.forget_unless_used(at(100'000));
    EXPECT_LT(rates.update(2, 8, {9000, 900}, at(101'000)).before, 0);
}

TEST_F(page_test, tables_are_ordered_searched_and_cut)
{
    start();
    encode(add_peer(1), 1);
    encode(add_peer(2), 3);
    encode(add_peer(3), 2);
    serve();
    const nlohmann::json all = document("/api/v1/peers?sort=encode_in");
    EXPECT_EQ(all["total"], 3);
    EXPECT_EQ(column(all, "peer"), nlohmann::json({2, 3, 1}));
    EXPECT_EQ(column(all, "encode_in"), nlohmann::json({3000, 2000, 1000}));
    EXPECT_EQ(column(all, "saved_total"), nlohmann::json({75.0, 75.0, 75.0}));
    EXPECT_EQ(all["sort"], "encode_in");
    EXPECT_EQ(all["reverse"], false);
    const nlohmann::json least = document("/api/v1/peers?sort=encode_in&reverse=1&top=2");
    EXPECT_EQ(column(least, "peer"), nlohmann::json({1, 3}));
    EXPECT_EQ(least["reverse"], true);
    EXPECT_EQ(document("/api/v1/peers")["sort"], "before_rate");
    EXPECT_EQ(column(document("/api/v1/peers?sort=host_name"), "host_name"),
              nlohmann::json({"host-1", "host-2", "host-3"}));
    const nlohmann::json found = document("/api/v1/peers?search=HOST-2");
    EXPECT_EQ(found["total"], 3);
    EXPECT_EQ(found["matching"], 1);
    EXPECT_EQ(column(found, "peer"), nlohmann::json({2}));

    const nlohmann::json connections = document("/api/v1/connections?sort=encode_in&top=1");
    EXPECT_EQ(connections["total"], 3);
    EXPECT_EQ(column(connections, "peer"), nlohmann::json({2}));
    EXPECT_EQ(column(connections, "before_rate"), nlohmann::json::array({nullptr}));
}

TEST_F(page_test, every_table_has_its_rows)
{
    start();
    fill();
    serve();
    EXPECT_EQ(document("/api/v1/peers")["total"], document("/api/v1/statistics?scope=peers")["peers"].size());
    EXPECT_EQ(document("/api/v1/applications")["total"], document("/api/v1/statistics?scope=apps")["apps"].size());
    EXPECT_EQ(document("/api/v1/connections")["total"],
              document("/api/v1/statistics?scope=connections")["connections"].size());
    const nlohmann::json statistics = document("/api/v1/statistics?scope=nacks,config,bypass");
    EXPECT_EQ(document("/api/v1/nacks")["total"], statistics["nacks"].size());
    EXPECT_EQ(document("/api/v1/configuration")["total"], statistics["config"].size());
    EXPECT_GT(statistics["nacks"].size(), 0U);
}

TEST_F(page_test, settings_are_ordered_numbers_before_texts)
{
    start();
    fill();
    serve();
    std::vector<nlohmann::json> values = column(document("/api/v1/configuration?sort=value"), "value");
    const auto is_before = [](const nlohmann::json& one, const nlohmann::json& other) {
        if (one.is_string() != other.is_string()) {
            return other.is_string();
        }
        return one.is_string() ? one < other : other < one;
    };
    EXPECT_TRUE(values.front().is_number());
    EXPECT_TRUE(values.back().is_string());
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end(), is_before)) << nlohmann::json(values);
    const nlohmann::json reverse = column(document("/api/v1/configuration?sort=value&reverse=1"), "value");
    values.assign(reverse.rbegin(), reverse.rend());
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end(), is_before)) << reverse;
}

TEST_F(page_test, documents_of_the_page_are_those_of_the_command_line)
{
    start();
    encode(add_peer(1));
    serve();
    const nlohmann::json health = document("/api/v1/health");
    EXPECT_EQ(health["kavstat_health"], 1);
    EXPECT_EQ(health["looked_at"]["peers"], 1);
    const nlohmann::json history = document("/api/v1/history?scope=engine");
    EXPECT_EQ(history["columns"][2], "encode_in_bytes");
    ASSERT_EQ(history["rows"].size(), 1U);
    EXPECT_EQ(history["rows"][0][2], 1000);
    EXPECT_EQ(document("/api/v1/history?scope=engine&to=1000")["rows"].size(), 0U);
    EXPECT_EQ(document("/api/v1/charts")["engine"][0]["name"], "traffic");
    EXPECT_EQ(document("/api/v1/charts")["live_seconds"], 900);
}

TEST_F(page_test, parameters_are_checked)
{
    start();
    serve();
    document("/api/v1/peers");
    for (const char* const path :
         {"/api/v1/history?scope=no", "/api/v1/history?scope=peer", "/api/v1/history?scope=engine&key=x",
          "/api/v1/history?points=1", "/api/v1/history?points=5001", "/api/v1/history?points=x",
          "/api/v1/history?from=-1", "/api/v1/history?from=10&to=9", "/api/v1/history?to=999999999999999999999",
          "/api/v1/history?point=5", "/api/v1/peers?top=0", "/api/v1/peers?top=5001", "/api/v1/peers?sort=",
          "/api/v1/peers?sort=client", "/api/v1/peers?reverse=2", "/api/v1/connections?sort=host_name",
          "/api/v1/nacks?x", "/api/v1/health?x=1", "/api/v1/charts?scope=engine"}) {
        const http_answer answer = get(server.port(), path);
        EXPECT_EQ(answer.status, 400) << path;
        EXPECT_TRUE(nlohmann::json::parse(answer.body).contains("error")) << path;
    }
    EXPECT_EQ(get(server.port(), "/api/v1/history?scope=peer&key=none").status, 200);
}

TEST_F(page_test, without_an_engine_there_are_no_tables)
{
    serve();
    for (const char* const path : {"/api/v1/connections", "/api/v1/nacks", "/api/v1/bypass", "/api/v1/configuration"}) {
        const http_answer answer = get(server.port(), path);
        EXPECT_EQ(answer.status, 503) << path;
        EXPECT_EQ(nlohmann::json::parse(answer.body)["error"], "no engine is running");
    }
    const nlohmann::json health = document("/api/v1/health");
    EXPECT_EQ(health["status"], "unknown");
    EXPECT_EQ(document("/api/v1/history")["rows"].size(), 0U);
}

TEST_F(page_test, tables_of_an_engine_that_has_just_stopped_are_refused)
{
    start();
    add_peer(1);
    serve();
    EXPECT_EQ(document("/api/v1/peers")["total"], 1);
    engine.close();
    for (const char* const path : {"/api/v1/peers", "/api/v1/applications"}) {
        const http_answer answer = get(server.port(), path);
        EXPECT_EQ(answer.status, 503) << path;
        EXPECT_EQ(nlohmann::json::parse(answer.body)["error"], "no engine is running");
    }
}

TEST_F(page_test, tables_of_the_past_are_those_of_the_last_sample_until_then)
{
    start();
    const int connection = add_peer(1);
    std::time_t moment = 0;
    RecorderOptions recording;
    recording.clock = [&moment] { return moment; };
    Recorder recorder(recording);
    ASSERT_EQ(recorder.open(folder.file("history.db")), "");
    encode(connection);
    record(recorder, moment, 0);
    encode(connection, 20);
    record(recorder, moment, 10);
    encode(add_peer(2));
    record(recorder, moment, 20);
    recorder.close();
    engine.close();

    HttpOptions options;
    options.history = folder.file("history.db");
    serve(options);
    const auto at = [](const char* table, int seconds) {
        return std::string("/api/v1/") + table + "?sort=encode_in&at=" + std::to_string(now + seconds);
    };
    const nlohmann::json first = document(at("peers", 9));
    EXPECT_EQ(first["capture_time"], now);
    EXPECT_EQ(column(first, "encode_in"), nlohmann::json({1000}));
    EXPECT_EQ(column(first, "before_rate"), nlohmann::json::array({nullptr}));
    const nlohmann::json second = document(at("peers", 10));
    EXPECT_EQ(second["capture_time"], now + 10);
    EXPECT_EQ(second["seconds"], 10);
    EXPECT_EQ(column(second, "encode_in"), nlohmann::json({21000}));
    EXPECT_EQ(column(second, "before_rate"), nlohmann::json({2000}));
    EXPECT_EQ(column(document(at("peers", 1000)), "peer"), nlohmann::json({1, 2}));
    EXPECT_EQ(document(at("applications", 1000))["total"], 0);

    EXPECT_EQ(get(server.port(), at("peers", -1)).status, 404);
    EXPECT_EQ(get(server.port(), "/api/v1/peers?at=x").status, 400);
    EXPECT_EQ(get(server.port(), "/api/v1/connections?at=1700000900").status, 400);
    EXPECT_EQ(get(server.port(), "/api/v1/peers").status, 503);
    std::ofstream(folder.file("history.db"), std::ios::trunc) << "no history";
    EXPECT_EQ(get(server.port(), at("peers", 10)).status, 503);
}

TEST_F(page_test, tables_of_the_past_need_a_history)
{
    start();
    serve();
    const http_answer answer = get(server.port(), "/api/v1/peers?at=1700000900");
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(nlohmann::json::parse(answer.body)["error"], "at: the server has no recorded history");
}

TEST_F(page_test, health_follows_the_settings_of_rules)
{
    start();
    engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_TEMP_FAILED);
    HttpOptions options;
    for (RuleSetting& setting : options.rules.settings) {
        setting.b_enabled = setting.rule->name == std::string("cache_temporarily_failed");
        setting.severity = Severity::critical;
    }
    serve(options);
    document("/api/v1/peers");
    const nlohmann::json health = document("/api/v1/health");
    EXPECT_EQ(health["looked_at"]["rules"], 1);
    ASSERT_EQ(health["findings"].size(), 1U);
    EXPECT_EQ(health["findings"][0]["rule"], "cache_temporarily_failed");
    EXPECT_EQ(health["status"], "critical");
}

TEST_F(page_test, the_page_is_served_with_a_strict_policy)
{
    serve();
    for (const char* const path : {"/", "/page.css", "/page.js", "/dygraph.js", "/icon.svg"}) {
        const http_answer answer = get(server.port(), path);
        EXPECT_EQ(answer.status, 200) << path;
        EXPECT_EQ(answer.body, find_page_file(path)->text) << path;
        EXPECT_NE(answer.head.find("Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
                                   "img-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; "
                                   "frame-ancestors 'none'\r\n"),
                  std::string::npos)
            << path;
        EXPECT_NE(answer.head.find("X-Content-Type-Options: nosniff\r\n"), std::string::npos) << path;
        EXPECT_NE(answer.head.find("Referrer-Policy: no-referrer\r\n"), std::string::npos) << path;
        EXPECT_EQ(answer.head.find("Set-Cookie"), std::string::npos) << path;
        EXPECT_EQ(answer.head.find("Access-Control-Allow"), std::string::npos) << path;
    }
    const std::string_view page = find_page_file("/")->text;
    for (const char* const inside : {"style=", "onclick", "onload", "http://", "https://"}) {
        EXPECT_EQ(page.find(inside), std::string_view::npos) << inside;
    }
    EXPECT_NE(get(server.port(), "/api/v1/health").head.find("Content-Security-Policy: default-src 'none'"),
              std::string::npos);
}

TEST(chart_picture, is_well_formed_whatever_the_names)
{
    ChartRows rows = rows_with({0, 5'000, 10'000, 15'000});
    rows.rows[2].engine_start_time = rows.rows[3].engine_start_time = 2;
    StringSink sink;
    Output output(sink);
    write_svg(*find_chart(ChartScope::engine, "traffic"), rows, "peer 1 </title><script>&\"\x01\xff", output);
    output.flush();
    const std::string& svg = sink.text();
    EXPECT_TRUE(svg.starts_with("<svg xmlns=\"http://www.w3.org/2000/svg\""));
    EXPECT_NE(
        svg.find("<title>Traffic, peer 1 &lt;/title&gt;&lt;script&gt;&amp;&quot;\xEF\xBF\xBD\xEF\xBF\xBD</title>"),
        std::string::npos);
    EXPECT_EQ(svg.find("<script"), std::string::npos);
    // 1000 B/s from the second row on, and no line across the start: two dots at 1/1.08 of the height.
    EXPECT_NE(svg.find("<path d=\"M353.3 75.6h0M880.0 75.6h0\""), std::string::npos) << svg;
    EXPECT_NE(svg.find(">Decoding, after</text>"), std::string::npos);
}

TEST_F(page_test, a_report_holds_data_that_cannot_end_its_element)
{
    start();
    RE_stat_peer_header header = peer_header_of(1);
    std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "</script><!--<script>");
    engine.add_peer(1, header);
    LiveHistory live;
    sample(live, 0);
    StringSink sink;
    Output output(sink);
    write_page_report({live.health(), *live.reader(), live.moments(), {*live.rows(ChartScope::engine, "")}}, output);
    output.flush();
    const std::string& page = sink.text();
    const std::string begin = "<script type=\"application/json\" id=\"kavstat-report\"";
    const std::size_t at = page.find('>', page.find(begin)) + 1;
    const std::string text = page.substr(at, page.find("</script>", at) - at);
    EXPECT_EQ(text.find('<'), std::string::npos);
    const nlohmann::json data = nlohmann::json::parse(text);
    EXPECT_EQ(column(data["peers"], "host_name"), nlohmann::json({"</script><!--<script>"}));
    EXPECT_EQ(data["histories"]["engine/"]["rows"].size(), 1U);
    EXPECT_EQ(data["health"]["looked_at"]["peers"], 1);
    EXPECT_EQ(page.find("<script src="), std::string::npos);
    EXPECT_EQ(page.find("<link"), std::string::npos);
    EXPECT_NE(page.find("default-src 'none'; script-src 'nonce-"), std::string::npos);
}

// For 6 peers and 120 applications: a mail takes it.
TEST_F(page_test, a_report_of_a_day_has_less_than_three_megabytes)
{
    start();
    add_peer(1);
    LiveHistory live;
    sample(live, 0);
    PageData data{live.health(), *live.reader(), live.moments(), {}};
    const auto add = [&](ChartScope scope, int number, std::size_t points) {
        const std::size_t columns = chart_columns_of(scope).size();
        ChartRows rows{scope, "02:4b:41:56:00:01-ca305f9eb9e1-5e52c905/" + std::to_string(number), {}};
        for (std::size_t row = 0; row < points; ++row) {
            ChartRow made{1'700'000'000'000 + static_cast<std::int64_t>(row) * 10'000, 1'700'000'000, {}};
            for (std::size_t column = 0; column < columns; ++column) {
                made.values.emplace_back(column < 8 ? 123'456'789'012 : 12'345'678);
            }
            rows.rows.push_back(std::move(made));
        }
        data.histories.push_back(std::move(rows));
    };
    add(ChartScope::engine, 0, points_in_report(7));
    for (int peer = 0; peer < 6; ++peer) {
        add(ChartScope::peer, peer, points_in_report(7));
    }
    for (int app = 0; app < 120; ++app) {
        add(ChartScope::application, app, points_of_app_in_report(120));
    }
    StringSink sink;
    Output output(sink);
    write_page_report(data, output);
    output.flush();
    EXPECT_LT(sink.text().size(), 3'000'000U);
    EXPECT_GE(data.histories.front().rows.size(), 500U);
    EXPECT_GE(data.histories.back().rows.size(), 60U);
}

TEST_F(page_test, scripts_of_the_page_can_stand_in_a_report)
{
    for (const char* const path : {"/page.js", "/dygraph.js", "/page.css"}) {
        const std::string_view text = find_page_file(path)->text;
        for (const char* const end : {"</script", "</style", "<!--"}) {
            EXPECT_EQ(text.find(end), std::string_view::npos) << path << end;
        }
    }
}
