// Statistics over HTTP, and what clients may try.
#include "RE_http_server.h"
#include "http_client.h"
#include "kavstat_fixture.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <random>
#include <thread>

namespace {

class server_test : public kavstat_test
{
protected:
    static constexpr std::chrono::milliseconds idle{500};

    void serve(int threads = 4)
    {
        RE_http_limits limits;
        limits.threads = threads;
        limits.queue = 8;
        limits.idle = idle;
        limits.longest_answer = std::chrono::milliseconds(1500);
        std::string reason;
        ASSERT_TRUE(server.start({"127.0.0.1", 0}, limits, reason)) << reason;
    }
    bool exposes(const std::string& line)
    {
        const http_answer answer = get(server.port(), "/metrics");
        EXPECT_EQ(answer.status, 200);
        EXPECT_TRUE(answer.b_whole);
        return ("\n" + answer.body).find("\n" + line + "\n") != std::string::npos;
    }

    RE_http_server server;
};

long resident_kilobytes()
{
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("VmRSS:")) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return 0;
}

} // namespace

TEST(listen_address, is_a_numeric_address_and_a_port)
{
    const auto address = parse_listen_address("127.0.0.1:9748");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->host, "127.0.0.1");
    EXPECT_EQ(address->port, 9748);
    EXPECT_EQ(parse_listen_address("[::1]:0")->host, "::1");
    for (const char* const text : {"", ":", ":80", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1",
                                   "127.0.0.1:80x", "localhost:80", "::1:80", "[127.0.0.1]:80", "[::1]", "[::1:80",
                                   "127.0.0.1 :80", "1.2.3.4,5.6.7.8:80", "127.0.0.1:99999999999"}) {
        EXPECT_FALSE(parse_listen_address(text)) << text;
    }
}

TEST_F(server_test, gives_the_metrics_and_the_statistics_of_the_command_line)
{
    start();
    fill();
    serve();
    EXPECT_EQ(get(server.port(), "/metrics").body, metrics());
    const http_answer answer = get(server.port(), "/api/v1/statistics");
    EXPECT_EQ(answer.status, 200);
    EXPECT_NE(answer.head.find("Content-Type: application/json\r\n"), std::string::npos);
    nlohmann::json document = nlohmann::json::parse(answer.body);
    nlohmann::json expected = json();
    document.erase("capture_time");
    expected.erase("capture_time");
    EXPECT_EQ(document, expected);
    EXPECT_EQ(nlohmann::json::parse(get(server.port(), "/api/v1/statistics?scope=nacks").body).size(), 6U + 1U);
    EXPECT_EQ(get(server.port(), "/healthz").body, "ok\n");
}

TEST_F(server_test, answers_what_it_does_not_serve)
{
    serve();
    EXPECT_EQ(get(server.port(), "/etc/passwd").status, 404);
    EXPECT_EQ(get(server.port(), "/metrics/").status, 404);
    EXPECT_EQ(get(server.port(), "/../../../../etc/passwd").status, 404);
    EXPECT_EQ(get(server.port(), "/%2e%2e/%2e%2e/etc/passwd").status, 404);
    EXPECT_EQ(get(server.port(), "/api/v1/statistics?scope=no").body, "{\n\"error\":\"no such scope: \\\"no\\\"\"}\n");
    EXPECT_EQ(get(server.port(), "/api/v1/statistics?scope=" + std::string(5000, 'x')).status, 400);
    for (const char* const method : {"POST", "PUT", "DELETE", "OPTIONS", "PATCH"}) {
        const http_client client(server.port());
        client.send(std::string(method) + " /metrics HTTP/1.1\r\nHost: x\r\nOrigin: http://example.net\r\n"
                                          "Access-Control-Request-Method: GET\r\nContent-Length: 0\r\n\r\n");
        const http_answer answer = parse_answer(client.read_all());
        EXPECT_EQ(answer.status, 405) << method;
        EXPECT_EQ(answer.head.find("Access-Control-Allow"), std::string::npos) << method;
    }
}

TEST_F(server_test, an_absent_engine_is_a_figure_and_no_failure)
{
    serve();
    EXPECT_TRUE(exposes("kav_up 0"));
    const http_answer answer = get(server.port(), "/api/v1/statistics");
    EXPECT_EQ(answer.status, 503);
    EXPECT_EQ(answer.body, "{\n\"error\":\"no engine is running\"}\n");
    EXPECT_EQ(get(server.port(), "/healthz").status, 200);
}

TEST_F(server_test, follows_an_engine_that_stops_and_starts_again)
{
    start();
    engine.set_global(RE_STAT_GLOBAL_ID_NUM_READ, 5);
    serve();
    EXPECT_TRUE(exposes("kav_num_read_total 5"));
    engine.close();
    EXPECT_TRUE(exposes("kav_up 0"));
    RE_stat_writer another;
    ASSERT_EQ(another.create(few, 1700000555), 0);
    EXPECT_TRUE(exposes("kav_up 0")); // not published yet
    another.set_global(RE_STAT_GLOBAL_ID_NUM_READ, 6);
    another.publish();
    EXPECT_TRUE(exposes("kav_num_read_total 6"));
    EXPECT_TRUE(exposes("kav_engine_start_time_seconds 1700000555"));
}

TEST_F(server_test, series_of_a_peer_that_is_gone_vanish)
{
    start();
    const int slot = engine.add_peer(7, peer_header_of(7));
    serve();
    EXPECT_TRUE(exposes("kav_peer_active_connections{peer=\"7\"} 0"));
    engine.remove_peer(slot);
    EXPECT_EQ(get(server.port(), "/metrics").body.find("peer=\"7\""), std::string::npos);
}

TEST_F(server_test, a_port_that_is_taken_is_refused_with_a_reason)
{
    serve();
    RE_http_server second;
    std::string reason;
    EXPECT_FALSE(second.start({"127.0.0.1", server.port()}, {}, reason));
    EXPECT_NE(reason.find("Address already in use"), std::string::npos) << reason;
}

TEST_F(server_test, clients_that_say_nothing_are_dropped_and_hold_nobody_up_for_long)
{
    serve(2);
    // More than there are threads and places in the queue.
    std::vector<std::unique_ptr<http_client>> silent;
    for (int number = 0; number < 24; ++number) {
        silent.push_back(std::make_unique<http_client>(server.port()));
    }
    const http_client slow(server.port());
    slow.send("GET /metrics HTT");
    EXPECT_EQ(get(server.port(), "/healthz").status, 200);
    EXPECT_TRUE(slow.is_dropped_within(10000));
}

TEST_F(server_test, a_request_in_drops_does_not_last_for_ever)
{
    serve(2);
    const http_client slow(server.port());
    const auto start_time = std::chrono::steady_clock::now();
    const std::string request = "GET /metrics HTTP/1.1\r\nX-A: " + std::string(10000, 'a');
    bool b_dropped = false;
    for (std::size_t at = 0; at < request.size() && !b_dropped; ++at) {
        b_dropped = !slow.send(request.substr(at, 1)) || slow.is_dropped_within(100);
    }
    EXPECT_TRUE(b_dropped);
    EXPECT_LT(std::chrono::steady_clock::now() - start_time, std::chrono::seconds(10));
}

TEST_F(server_test, clients_that_never_read_are_cut_off_and_grow_no_memory)
{
    RE_stat_limits limits;
    limits.peers = 4;
    limits.connections = 4000; // some megabytes of JSON
    start(limits);
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < 4000; ++number) {
        engine.open_conn(peer, conn_header_of(number), so_header_of(number), 5);
    }
    serve(4);
    ASSERT_EQ(get(server.port(), "/api/v1/statistics").status, 200);
    const long before = resident_kilobytes();
    std::vector<std::unique_ptr<http_client>> lazy;
    for (int number = 0; number < 12; ++number) {
        lazy.push_back(std::make_unique<http_client>(server.port()));
        lazy.back()->send("GET /api/v1/statistics HTTP/1.1\r\nHost: x\r\n\r\n");
    }
    EXPECT_EQ(get(server.port(), "/healthz").status, 200);
    if (!b_under_a_sanitizer) {
        EXPECT_LT(resident_kilobytes() - before, 8 * 1024);
    }
    // What they got is not the whole, and can be seen not to be.
    const http_answer answer = parse_answer(lazy.front()->read_all());
    EXPECT_FALSE(answer.b_whole);
}

TEST_F(server_test, requests_of_any_bytes_do_no_harm)
{
    start();
    fill();
    serve();
    std::mt19937 random(1);
    const std::string sound = "GET /api/v1/statistics?scope=global HTTP/1.1\r\nHost: a\r\nX: y\r\n\r\n";
    for (int round = 0; round < 400; ++round) {
        std::string bytes = sound;
        if (round % 4 == 0) {
            bytes.resize(random() % 3000);
            std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        } else {
            for (unsigned int change = random() % 8 + 1; change > 0; --change) {
                const std::size_t at = random() % bytes.size();
                switch (random() % 3) {
                case 0:
                    bytes[at] = static_cast<char>(random());
                    break;
                case 1:
                    bytes.insert(at, bytes.substr(random() % bytes.size(), random() % 200));
                    break;
                default:
                    bytes.erase(at, random() % 4);
                }
            }
        }
        const http_client client(server.port());
        client.send(bytes);
        client.end_sending();
        if (round % 8 != 0) {
            client.read_all();
        }
    }
    const http_client endless(server.port());
    endless.send("GET / HTTP/1.1\r\n");
    for (int line = 0; line < 5000 && endless.send("X-Header-" + std::to_string(line) + ": y\r\n"); ++line) {
    }
    EXPECT_TRUE(exposes("kav_up 1"));
}

TEST_F(server_test, many_clients_at_a_time_get_answers_of_their_own)
{
    start();
    fill();
    serve(6);
    const std::string expected_metrics = metrics();
    std::string expected_json = get(server.port(), "/api/v1/statistics?scope=connections,peers").body;
    const auto without_time = [](std::string text) {
        const std::size_t at = text.find("\"capture_time\"");
        return text.erase(at, text.find('\n', at) - at);
    };
    expected_json = without_time(expected_json);
    std::atomic<int> right{0};
    {
        std::vector<std::jthread> clients;
        for (int number = 0; number < 6; ++number) {
            clients.emplace_back([&] {
                for (int round = 0; round < 30; ++round) {
                    right += get(server.port(), "/metrics").body == expected_metrics ? 1 : 0;
                    const std::string json = get(server.port(), "/api/v1/statistics?scope=connections,peers").body;
                    right += without_time(json) == expected_json ? 1 : 0;
                }
            });
        }
    }
    EXPECT_EQ(right, 6 * 30 * 2);
}

TEST_F(server_test, many_clients_at_a_time_get_whole_answers_while_the_engine_restarts)
{
    start();
    fill();
    serve();
    std::atomic<int> whole{0};
    {
        std::vector<std::jthread> clients;
        for (int number = 0; number < 6; ++number) {
            clients.emplace_back([&] {
                for (int round = 0; round < 20; ++round) {
                    const http_answer answer = get(server.port(), round % 2 == 0 ? "/metrics" : "/api/v1/statistics");
                    whole += answer.b_whole ? 1 : 0;
                }
            });
        }
        for (int round = 0; round < 20; ++round) {
            engine.close();
            ASSERT_EQ(engine.create(few, 1700000000 + round), 0);
            fill();
            engine.publish();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    EXPECT_EQ(whole, 6 * 20);
}
