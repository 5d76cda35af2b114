// Statistics over HTTP, and attacks by clients.
#include "RE_bypass_table.h"
#include "RE_sequence.h"
#include "RE_stat_error.h"
#include "kavstat_fixture.h"
#include "serve/http_request.h"
#include "serve/http_server.h"
#include "serve/moments.h"
#include "serve/negotiation.h"
#include "support/http_client.h"
#include "support/program_cost.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <regex>
#include <thread>

using namespace kavstat;

namespace {

// Returns the metrics without those that only a program which keeps running can have.
std::string of_command_line(const std::string& metrics)
{
    const std::regex silence("(# (HELP|TYPE) )?kav_connections_longest_silence_seconds .*\n");
    return std::regex_replace(metrics.substr(0, metrics.find("# HELP kavstat_scrape_duration_seconds")), silence, "");
}

class server_test : public kavstat_test
{
protected:
    // Longer for instrumented programs.
    static constexpr std::chrono::milliseconds time_to_ask{100};
    static constexpr std::chrono::milliseconds idle{b_under_a_sanitizer ? 2000 : 500};
    static constexpr std::chrono::milliseconds longest_answer{b_under_a_sanitizer ? 8000 : 1500};

    void serve(const ListenAddress& address = *parse_listen_address("127.0.0.1:0"),
               const std::vector<std::string>& allowed_hosts = {})
    {
        HttpLimits limits;
        limits.connections = 16;
        limits.connections_of_address = 12;
        limits.time_to_ask = time_to_ask;
        limits.idle = idle;
        limits.longest_answer = longest_answer;
        std::string reason;
        ASSERT_TRUE(server.start(address, limits, {allowed_hosts, {}, {}, {}, {}}, reason)) << reason;
    }
    // With a user "alice" whose password is "secret".
    void serve_users(const ListenAddress& address = *parse_listen_address("127.0.0.1:0"))
    {
        HttpOptions options;
        options.web.users["alice"] = "$2y$10$KBCwKxOzLha2MUDgW0PjXe5iC0KgerkTIWLGUoONajjj98vdFiyt2";
        std::string reason;
        ASSERT_TRUE(server.start(address, {}, options, reason)) << reason;
    }
    // Starts an engine with some megabytes of JSON.
    void start_large()
    {
        RE_stat_limits limits;
        limits.peers = 4;
        limits.connections = 1000;
        start(limits);
        const int peer = engine.add_peer(1, peer_header_of(1));
        for (std::uint32_t number = 0; number < 1000; ++number) {
            engine.open_conn(peer, conn_header_of(number), so_header_of(number), 5);
        }
    }
    // Sends a request head unchanged and returns the answer.
    http_answer answer_to(const std::string& head)
    {
        const http_client client(server.port());
        client.send(head + "\r\n");
        return parse_answer(client.read_all());
    }
    std::string served_metrics() { return of_command_line(get(server.port(), "/metrics").body); }
    int status_for_host(const std::string& host)
    {
        return answer_to("GET /metrics HTTP/1.1\r\nHost: " + host + "\r\n").status;
    }
    bool exposes(const std::string& line)
    {
        const http_answer answer = get(server.port(), "/metrics");
        EXPECT_EQ(answer.status, 200);
        EXPECT_TRUE(answer.b_whole);
        return ("\n" + answer.body).find("\n" + line + "\n") != std::string::npos;
    }

    // The answer to a GET with another header field.
    http_answer get_with(const std::string& path, const std::string& field)
    {
        return answer_to("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + field + "\r\n");
    }

    HttpServer server;
};

// "alice:secret"
constexpr const char* alice = "Authorization: Basic YWxpY2U6c2VjcmV0\r\n";

std::string gunzipped(const std::string& bytes)
{
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    std::string text(std::size_t{32} << 20, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(stream.avail_in, 0U);
    text.resize(stream.total_out);
    inflateEnd(&stream);
    return text;
}

} // namespace

TEST(listen_address, is_a_numeric_address_and_a_port)
{
    const auto address = parse_listen_address("127.0.0.1:9748");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->host, "127.0.0.1");
    EXPECT_EQ(address->port, 9748);
    EXPECT_EQ(parse_listen_address("[::1]:0")->host, "::1");
    EXPECT_EQ(parse_listen_address("unix:/run/a.sock")->path, "/run/a.sock");
    EXPECT_EQ(parse_listen_address("unix:/run/a.sock")->text(), "unix:/run/a.sock");
    for (const char* const text : {"", ":", ":80", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1",
                                   "127.0.0.1:80x", "localhost:80", "::1:80", "[127.0.0.1]:80", "[::1]", "[::1:80",
                                   "127.0.0.1 :80", "unix:", "unix:a", "1.2.3.4,5.6.7.8:80", "127.0.0.1:99999999999"}) {
        EXPECT_FALSE(parse_listen_address(text)) << text;
    }
}

TEST(negotiation, gives_openmetrics_to_those_who_name_it)
{
    for (const char* const accept :
         {"application/openmetrics-text", "Application/OpenMetrics-Text;version=\"1.0.0\"; charset=utf-8",
          "text/plain;q=0.5, application/openmetrics-text; version=1.0.0; q=0.5",
          "application/openmetrics-text;version=1.0.0,application/openmetrics-text;version=0.0.1;q=0.75,"
          "text/plain;version=0.0.4;q=0.5,*/*;q=0.1"}) {
        EXPECT_EQ(preferred_metrics_format(accept), MetricsFormat::openmetrics) << accept;
    }
    for (const char* const accept :
         {"", "*/*", "application/*", "text/plain", "text/html", "application/openmetrics-text;q=0",
          "application/openmetrics-text;version=0.0.1", "application/openmetrics-text;q=0.4,text/plain;q=0.5",
          "application/openmetrics-text;q=0.1,*/*;q=0.100001,text/*;q=0.2", "application/openmetrics-text;q=2", ";;,=,",
          "application/openmetrics-text;q=0.9;q=x"}) {
        EXPECT_EQ(preferred_metrics_format(accept), MetricsFormat::prometheus) << accept;
    }
}

TEST(negotiation, compresses_for_those_who_accept_it)
{
    for (const char* const accept : {"gzip", "GZIP", "x-gzip", "deflate, gzip;q=1.0, *;q=0.5", "*", "gzip;q=0.001",
                                     "gzip, identity;q=0", "identity;q=0.5, gzip;q=0.5", "identity;q=0, *"}) {
        EXPECT_EQ(preferred_coding(accept), ContentCoding::gzip) << accept;
    }
    for (const char* const accept :
         {"", "br", "gzip;q=0", "gzip;q=0.5, identity", "identity", "*;q=0, identity", "gzip;q=0.0, *", "gzip;q=1.5"}) {
        EXPECT_EQ(preferred_coding(accept), ContentCoding::identity) << accept;
    }
    for (const char* const accept : {"identity;q=0", "*;q=0", "br, identity;q=0", "gzip;q=0, *;q=0"}) {
        EXPECT_EQ(preferred_coding(accept), std::nullopt) << accept;
    }
}

TEST(http_target, is_taken_apart)
{
    const auto target = parse_http_target("http://h:80/a%2Fb?x&scope=peers%2Capps+c&scope=2");
    ASSERT_TRUE(target);
    EXPECT_EQ(target->path, "/a/b");
    EXPECT_EQ(target->host, "h:80");
    EXPECT_EQ(target->first("scope"), "peers,apps c");
    EXPECT_EQ(parse_http_target("HTTPS://h?scope=")->path, "/");
    EXPECT_EQ(parse_http_target("HTTPS://h?scope=")->first("scope"), "");
    EXPECT_EQ(parse_http_target("//h/a")->host, std::nullopt);
    for (const char* const text :
         {"", "a", "%2Fa", "/%", "/%2", "/%zz", "/%+1", "/%00", "/?scope=%00", "/?%00=1", "http:/a", "ftp://h/"}) {
        EXPECT_FALSE(parse_http_target(text)) << text;
    }
}

TEST(host_name, is_one_that_a_client_can_use)
{
    for (const char* const text : {"metrics.example.net", "host_1", "192.0.2.1", "2001:db8::1"}) {
        EXPECT_TRUE(is_host_name(text)) << text;
    }
    for (const char* const text : {"", "*", "*.example.net", "example.net:80", "[2001:db8::1]", "http://h", "a b"}) {
        EXPECT_FALSE(is_host_name(text)) << text;
    }
}

TEST_F(kavstat_test, moments_are_shared_and_few)
{
    start();
    std::vector<std::shared_ptr<Moment>> held;
    int ended = 0;
    const auto end_readers = [&](const Moment& moment) {
        ended += static_cast<int>(std::erase_if(held, [&](const auto& one) { return one.get() == &moment; }));
    };
    const std::chrono::milliseconds shared_for{100};
    auto source = std::make_unique<Source>();
    ASSERT_EQ(source->open(), 0);
    const std::size_t room_for_two = 2 * Moment(std::move(source)).bytes();
    const std::chrono::milliseconds kept_for{600};
    Moments moments(end_readers, {room_for_two, shared_for, kept_for});
    const auto take = [&] {
        std::shared_ptr<Moment> moment;
        EXPECT_EQ(moments.take(moment), 0);
        return moment;
    };

    // A moment is kept until it is old, even when it has no readers.
    const std::weak_ptr<Moment> first = take();
    moments.drop_old();
    EXPECT_EQ(take(), first.lock());
    EXPECT_FALSE(moments.is_empty());
    std::this_thread::sleep_for(shared_for);
    moments.drop_old();
    EXPECT_TRUE(first.expired());
    EXPECT_TRUE(moments.is_empty());

    engine.set_global(RE_STAT_GLOBAL_ID_NUM_READ, 5);
    held = {take()};
    EXPECT_EQ(held[0]->snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ], 5);
    EXPECT_EQ(take(), held[0]);
    std::this_thread::sleep_for(shared_for);
    held.push_back(take());
    EXPECT_NE(held[1], held[0]);
    std::this_thread::sleep_for(shared_for);
    EXPECT_EQ(take(), held[1]); // no space for a third moment
    EXPECT_EQ(ended, 0);
    std::this_thread::sleep_for(kept_for);
    EXPECT_NE(take(), nullptr);
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(held.size(), 1U);

    // A new engine gets a new moment at once, even if it was started in the same second.
    held = {take()};
    engine.close();
    std::shared_ptr<Moment> none;
    EXPECT_EQ(moments.take(none), RE_STAT_ERR_NO_ENGINE);
    EXPECT_EQ(none, nullptr);
    ASSERT_EQ(engine.create(few, held[0]->snapshot.engine_start_time), 0);
    engine.set_global(RE_STAT_GLOBAL_ID_NUM_READ, 6);
    engine.publish();
    EXPECT_EQ(take()->snapshot.engine[RE_STAT_GLOBAL_ID_NUM_READ], 6);
}

TEST_F(kavstat_test, moments_know_how_long_a_connection_has_been_silent)
{
    start();
    const int conn = engine.open_conn(engine.add_peer(1, peer_header_of(1)), conn_header_of(1), {}, now);
    engine.set_conn_stat(conn, SO_STAT_WAN_W_PEND_SIZE, 4096);
    Moments moments([](const Moment&) {}, {std::size_t{1} << 20, std::chrono::milliseconds{0},
                                           std::chrono::milliseconds{0}, std::chrono::milliseconds{50}});
    const auto silence = [&] {
        std::shared_ptr<Moment> moment;
        EXPECT_EQ(moments.take(moment), 0);
        StringSink sink;
        Output output(sink);
        Document document = moment->exposition.document(output);
        while (document.write_more()) {
        }
        output.flush();
        const std::string name = "\nkav_connections_longest_silence_seconds ";
        const std::size_t at = sink.text().find(name);
        return at == std::string::npos ? -1 : std::stod(sink.text().substr(at + name.size()));
    };
    EXPECT_EQ(silence(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_GE(silence(), 0.06);
    engine.add_conn_stat(conn, SO_STAT_WAN_WT_BYTES, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(silence(), 0);
}

TEST_F(server_test, gives_the_metrics_and_the_statistics_of_the_command_line)
{
    start();
    fill();
    serve();
    EXPECT_EQ(served_metrics(), metrics());
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

TEST_F(server_test, gives_metrics_in_the_format_that_the_client_asks_for)
{
    start();
    serve();
    const http_answer open =
        get_with("/metrics", "Accept: text/plain;q=0.5\r\nAccept: application/openmetrics-text\r\n");
    EXPECT_NE(open.head.find("\r\nContent-Type: application/openmetrics-text; version=1.0.0; charset=utf-8\r\n"),
              std::string::npos);
    EXPECT_NE(open.head.find("\r\nVary: Accept, Accept-Encoding\r\n"), std::string::npos);
    EXPECT_TRUE(open.body.starts_with("# TYPE kav_up gauge\n"));
    EXPECT_TRUE(open.body.ends_with("\n# EOF\n"));
    const http_answer text = get_with("/metrics", "Accept: */*\r\n");
    EXPECT_NE(text.head.find("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"), std::string::npos);
    EXPECT_TRUE(text.body.starts_with("# HELP kav_up "));
    engine.close();
    EXPECT_TRUE(get_with("/metrics", "Accept: application/openmetrics-text\r\n").body.ends_with("\n# EOF\n"));
}

TEST_F(server_test, compresses_what_it_sends)
{
    start_large();
    serve();
    const http_answer metrics_answer = get_with("/metrics", "Accept-Encoding: gzip\r\n");
    EXPECT_NE(metrics_answer.head.find("\r\nContent-Encoding: gzip\r\n"), std::string::npos);
    EXPECT_EQ(of_command_line(gunzipped(metrics_answer.body)), metrics());
    const std::string plain = get(server.port(), "/api/v1/statistics?scope=connections").body;
    const std::string small = get_with("/api/v1/statistics?scope=connections", "Accept-Encoding: gzip\r\n").body;
    EXPECT_LT(small.size() * 8, plain.size());
    EXPECT_EQ(nlohmann::json::parse(gunzipped(small)).at("connections"),
              nlohmann::json::parse(plain).at("connections"));
    EXPECT_EQ(gunzipped(get_with("/healthz", "Accept-Encoding: gzip\r\n").body), "ok\n");
    EXPECT_EQ(get_with("/healthz", "Accept-Encoding: identity;q=0\r\n").status, 406);
}

TEST_F(server_test, a_query_selects_collectors)
{
    start();
    fill();
    serve();
    const auto has = [](const http_answer& answer, const char* name) {
        return answer.body.find(std::string("\n# TYPE ") + name) != std::string::npos;
    };
    const http_answer some = get(server.port(), "/metrics?collect[]=engine&collect%5B%5D=peers");
    EXPECT_TRUE(has(some, "kav_cache_size_bytes "));
    EXPECT_TRUE(has(some, "kav_peer_info "));
    EXPECT_FALSE(has(some, "kav_connections_"));
    EXPECT_FALSE(has(some, "kav_peer_connections_"));
    EXPECT_FALSE(has(some, "kav_application_"));
    EXPECT_FALSE(has(some, "process_"));
    const http_answer most = get(server.port(), "/metrics?exclude[]=applications");
    EXPECT_TRUE(has(most, "kav_peer_connections_"));
    EXPECT_TRUE(has(most, "process_open_fds "));
    EXPECT_FALSE(has(most, "kav_application_"));
    EXPECT_FALSE(has(most, "kavstat_skipped_applications"));
    EXPECT_EQ(get(server.port(), "/metrics?collect[]=nodes").body, "no such collector: \"nodes\"\n");
    EXPECT_EQ(get(server.port(), "/metrics?collect[]=").status, 400);
    EXPECT_EQ(get(server.port(), "/metrics?collect[]=engine&exclude[]=peers").body,
              "collect[] and exclude[] in one query\n");
    EXPECT_EQ(get(server.port(), "/metrics?debug=1").status, 200);
}

TEST_F(server_test, a_collector_that_is_off_cannot_be_asked_for)
{
    start();
    HttpOptions options;
    options.metrics.collectors.reset(static_cast<std::size_t>(Collector::peers));
    std::string reason;
    ASSERT_TRUE(server.start(*parse_listen_address("127.0.0.1:0"), {}, options, reason)) << reason;
    EXPECT_EQ(get(server.port(), "/metrics").body.find("kav_peer_info"), std::string::npos);
    const http_answer answer = get(server.port(), "/metrics?collect[]=peers");
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.body, "this collector is switched off: \"peers\"\n");
}

TEST_F(server_test, shows_how_the_process_fares)
{
    serve();
    const std::string text = get(server.port(), "/metrics").body;
    for (const char* const name :
         {"kavstat_scrape_duration_seconds", "process_cpu_seconds_total", "process_open_fds", "process_max_fds",
          "process_virtual_memory_bytes", "process_resident_memory_bytes", "process_start_time_seconds"}) {
        const std::size_t at = text.find(std::string("\n") + name + " ");
        ASSERT_NE(at, std::string::npos) << name;
        EXPECT_GT(std::stod(text.substr(at + std::string(name).size() + 2)), 0) << name;
    }
}

TEST_F(server_test, is_ready_while_there_is_an_engine)
{
    serve();
    EXPECT_EQ(get(server.port(), "/readyz").status, 503);
    EXPECT_EQ(get(server.port(), "/readyz").body, "no engine is running\n");
    start();
    EXPECT_EQ(get(server.port(), "/readyz").status, 200);
    EXPECT_EQ(get(server.port(), "/readyz").body, "ok\n");
    engine.close();
    EXPECT_EQ(get(server.port(), "/readyz").status, 503);
    EXPECT_EQ(get(server.port(), "/healthz").status, 200);
}

TEST_F(server_test, without_a_password_answers_nothing)
{
    start();
    fill();
    serve_users();
    EXPECT_EQ(get_with("/metrics", alice).status, 200);
    std::vector<std::string> methods = {"GET",     "HEAD",  "POST",  "PUT", "DELETE",
                                        "OPTIONS", "TRACE", "PATCH", "X",   "get"};
    for (const char* const path : {"/",
                                   "/metrics",
                                   "/metrics?collect[]=engine",
                                   "/api/v1/statistics",
                                   "/healthz",
                                   "/readyz",
                                   "/api/v1/health",
                                   "/api/v1/history",
                                   "/nothing",
                                   "//metrics",
                                   "/./metrics",
                                   "/%6detrics",
                                   "/metrics/",
                                   "/metrics;",
                                   "*",
                                   "http://127.0.0.1/metrics",
                                   "http://other/metrics",
                                   "metrics",
                                   "/%00",
                                   "/../etc/passwd",
                                   "/?a=%zz"}) {
        for (const std::string& method : methods) {
            for (const char* const field :
                 {"", "Authorization: Basic\r\n", "Authorization: Bearer YWxpY2U6c2VjcmV0\r\n",
                  "Proxy-Authorization: Basic YWxpY2U6c2VjcmV0\r\n", "Content-Length: 3\r\n", "Host: other\r\n",
                  "Authorization: Basic YWxpY2U6c2VjcmV0\r\nAuthorization: Basic YWxpY2U6c2VjcmV0\r\n"}) {
                const http_client client(server.port());
                client.send(method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + field + "\r\n");
                const http_answer answer = parse_answer(client.read_all());
                ASSERT_EQ(answer.status, 401) << method << " " << path << " " << field;
                ASSERT_NE(answer.head.find("\r\nWWW-Authenticate: Basic realm=\"kavstat\""), std::string::npos);
                ASSERT_EQ(answer.body, method == "HEAD" ? "" : "a user's name and password are needed\n");
            }
        }
    }
}

TEST_F(server_test, wrong_passwords_hold_nobody_up)
{
    start();
    serve_users();
    EXPECT_EQ(get_with("/healthz", alice).status, 200);
    // "alice:wrong"
    const std::string wrong =
        "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Basic YWxpY2U6d3Jvbmc=\r\n\r\n";
    std::vector<std::unique_ptr<http_client>> guessing;
    for (int number = 1; number <= 60; ++number) {
        guessing.push_back(std::make_unique<http_client>(server.port(), ("127.0.1." + std::to_string(number)).c_str()));
        guessing.back()->send(wrong);
    }
    const auto start_time = std::chrono::steady_clock::now();
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(get_with("/metrics", alice).status, 200);
    }
    // Each takes longer to verify than this.
    EXPECT_LT(std::chrono::steady_clock::now() - start_time, 20 * std::chrono::milliseconds(50));
    // Sixteen are being verified. The others are not.
    int busy = 0;
    for (std::size_t at = 20; at < guessing.size(); ++at) {
        const http_answer answer = parse_answer(guessing[at]->read_all());
        busy += answer.status == 429 ? 1 : 0;
        EXPECT_TRUE(answer.status == 429 || answer.status == 401) << answer.status;
    }
    EXPECT_GT(busy, 10);
    guessing.front()->read_all();
    guessing.clear(); // Some are gone before their verdict.
    EXPECT_EQ(get_with("/healthz", alice).status, 200);
    http_client last(server.port());
    last.send(wrong); // The server ends before its verdict.
}

TEST_F(server_test, serves_a_unix_socket)
{
    start_large();
    ListenAddress address;
    address.path = "/tmp/kavstat_test." + std::to_string(getpid());
    address.mode = 0600;
    serve(address);
    struct stat info
    {
    };
    ASSERT_EQ(stat(address.path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    const http_client client(address.path);
    client.send("GET /api/v1/statistics HTTP/1.1\r\nHost: anything\r\n\r\n");
    // Slower than the limit on idleness, but never idle.
    for (int round = 0; round < 6; ++round) {
        std::this_thread::sleep_for(idle / 4);
        ASSERT_TRUE(client.take(65536)) << round;
    }
    EXPECT_TRUE(client.read_all().ends_with("\r\n0\r\n\r\n"));
    HttpServer second;
    std::string reason;
    EXPECT_FALSE(second.start(address, {}, {}, reason));
    EXPECT_EQ(reason, "Address already in use");
    // Not of a server.
    ListenAddress file;
    file.path = address.path + ".file";
    close(open(file.path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    HttpServer third;
    EXPECT_FALSE(third.start(file, {}, {}, reason));
    EXPECT_EQ(stat(file.path.c_str(), &info), 0);
    unlink(file.path.c_str());
}

TEST(unix_socket, of_a_server_that_is_gone_is_replaced_by_one_of_those_that_start)
{
    ListenAddress address;
    address.path = "/tmp/kavstat_test." + std::to_string(getpid()) + ".stale";
    for (int round = 0; round < 50; ++round) {
        close(listen_on(address));
        std::vector<int> sockets(4, -1);
        std::vector<std::thread> servers;
        for (int& socket : sockets) {
            servers.emplace_back([&socket, own = address]() mutable { socket = listen_on(own); });
        }
        for (std::thread& server : servers) {
            server.join();
        }
        ASSERT_EQ(std::count(sockets.begin(), sockets.end(), -1), 3) << round;
        EXPECT_NO_THROW(http_client client(address.path)) << round;
        for (const int socket : sockets) {
            close(socket);
        }
    }
    unlink(address.path.c_str());
}

TEST(unix_socket, of_another_server_stays)
{
    ListenAddress address;
    address.path = "/tmp/kavstat_test." + std::to_string(getpid()) + ".own";
    const int first = listen_on(address);
    unlink(address.path.c_str());
    ListenAddress same = address;
    const int second = listen_on(same);
    remove_unix_socket(address);
    EXPECT_NO_THROW(http_client client(address.path));
    remove_unix_socket(same);
    EXPECT_THROW(http_client client(address.path), std::runtime_error);
    close(first);
    close(second);
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
        client.send(std::string(method) + " /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://example.net\r\n"
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
    EXPECT_TRUE(exposes("kav_cache_reads_total 5"));
    engine.close();
    EXPECT_TRUE(exposes("kav_up 0"));
    RE_stat_writer another;
    ASSERT_EQ(another.create(few, 1700000555), 0);
    EXPECT_TRUE(exposes("kav_up 0")); // not yet published
    another.set_global(RE_STAT_GLOBAL_ID_NUM_READ, 6);
    another.publish();
    EXPECT_TRUE(exposes("kav_cache_reads_total 6"));
    EXPECT_TRUE(exposes("kav_engine_start_timestamp_seconds 1700000555"));
}

TEST_F(server_test, records_that_are_kept_busy_hold_nobody_up)
{
    start();
    fill();
    serve();
    RE_stat_image image;
    ASSERT_EQ(image.attach(map_segment(), header().total_size, RE_image_kind::live), 0);
    for (std::uint32_t row = 0; row < image.peers.rows; ++row) {
        store_release(&image.peers[row].sequence, 1U);
    }
    auto* const bypass = reinterpret_cast<RE_bypass_table*>(image.bypass.base);
    store_release(&bypass->rows[0].sequence, 1U);
    const auto start_time = std::chrono::steady_clock::now();
    EXPECT_TRUE(exposes("kav_up 1"));
    EXPECT_LT(std::chrono::steady_clock::now() - start_time, std::chrono::milliseconds(300));
}

TEST_F(server_test, series_of_a_peer_that_is_gone_vanish)
{
    start();
    const int slot = engine.add_peer(7, peer_header_of(7));
    serve();
    EXPECT_TRUE(exposes("kav_peer_active_connections{peer=\"7\"} 0"));
    engine.remove_peer(slot);
    std::this_thread::sleep_for(MomentLimits().shared_for);
    EXPECT_EQ(get(server.port(), "/metrics").body.find("peer=\"7\""), std::string::npos);
}

TEST_F(server_test, a_port_that_is_taken_is_refused_with_a_reason)
{
    serve();
    HttpServer second;
    std::string reason;
    EXPECT_FALSE(second.start(*parse_listen_address("127.0.0.1:" + std::to_string(server.port())), {}, {}, reason));
    EXPECT_NE(reason.find("Address already in use"), std::string::npos) << reason;
}

TEST_F(server_test, clients_that_say_nothing_hold_nobody_up_and_are_dropped)
{
    serve();
    std::vector<std::unique_ptr<http_client>> silent;
    const auto add_silent = [&](const std::string& from) {
        silent.push_back(std::make_unique<http_client>(server.port(), from.c_str()));
        silent.back()->send("GET /metrics HTT");
    };
    const auto start_time = std::chrono::steady_clock::now();
    // Opens many more connections than allowed, first from one address and then from many.
    for (int number = 1; number <= 100; ++number) {
        add_silent("127.0.0.1");
        EXPECT_EQ(get(server.port(), "/healthz").status, 200);
    }
    for (int number = 1; number <= 100; ++number) {
        add_silent("127.0.1." + std::to_string(number));
        EXPECT_EQ(get(server.port(), "/healthz", "127.0.2.1").status, 200);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start_time, std::chrono::seconds(5));
    EXPECT_TRUE(silent.front()->is_dropped_within(1000));
    EXPECT_TRUE(silent.back()->is_dropped_within(5000));
}

TEST_F(server_test, many_connections_of_one_address_cost_other_addresses_nothing)
{
    start_large();
    serve();
    const http_client lazy(server.port(), "127.0.0.2");
    lazy.send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(lazy.take(1));
    std::vector<std::unique_ptr<http_client>> lazy_too;
    for (int number = 0; number < 20; ++number) {
        lazy_too.push_back(std::make_unique<http_client>(server.port(), "127.0.0.3"));
        lazy_too.back()->send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    }
    EXPECT_EQ(get(server.port(), "/healthz", "127.0.0.3").status, 200);
    EXPECT_FALSE(lazy_too.back()->is_dropped_within(1));
    EXPECT_TRUE(lazy_too.front()->is_dropped_within(5000));
    EXPECT_TRUE(lazy.read_all().ends_with("\r\n0\r\n\r\n"));
}

TEST_F(server_test, counts_ipv4_clients_of_a_socket_for_both_families_by_address)
{
    start_large();
    ListenAddress both;
    both.host = "::";
    both.inherited = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int off = 0;
    setsockopt(both.inherited, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 bound{};
    bound.sin6_family = AF_INET6;
    socklen_t size = sizeof bound;
    ASSERT_EQ(bind(both.inherited, reinterpret_cast<sockaddr*>(&bound), size), 0);
    ASSERT_EQ(listen(both.inherited, SOMAXCONN), 0);
    ASSERT_EQ(getsockname(both.inherited, reinterpret_cast<sockaddr*>(&bound), &size), 0);
    both.port = ntohs(bound.sin6_port);
    serve(both);
    const http_client lazy(server.port(), "127.0.0.2");
    lazy.send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_TRUE(lazy.take(1));
    std::vector<std::unique_ptr<http_client>> others;
    for (int number = 0; number < 13; ++number) {
        others.push_back(std::make_unique<http_client>(server.port(), "127.0.0.3"));
        others.back()->send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        others.back()->take(1);
    }
    EXPECT_EQ(get(server.port(), "/healthz", "127.0.0.3").status, 200);
    EXPECT_TRUE(lazy.read_all().ends_with("\r\n0\r\n\r\n"));
}

TEST_F(server_test, an_answer_that_is_read_outlives_those_that_are_not)
{
    start_large();
    serve();
    const http_client eager(server.port());
    eager.send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    std::vector<std::unique_ptr<http_client>> lazy;
    for (int number = 0; number < 40; ++number) {
        ASSERT_TRUE(eager.take(4000)) << number;
        lazy.push_back(std::make_unique<http_client>(server.port()));
        lazy.back()->send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(eager.read_all().ends_with("\r\n0\r\n\r\n"));
}

TEST_F(server_test, silent_clients_that_come_fast_cannot_be_sure_to_displace_another)
{
    serve();
    std::vector<std::unique_ptr<http_client>> silent;
    int answered = 0;
    for (int round = 0; round < 100; ++round) {
        const http_client late(server.port());
        for (int number = 0; number < 16; ++number) {
            silent.push_back(std::make_unique<http_client>(server.port()));
        }
        get(server.port(), "/healthz", "127.0.2.1"); // when this is answered, all have been accepted
        late.send("GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        answered += parse_answer(late.read_all()).status == 200 ? 1 : 0;
        silent.clear();
    }
    EXPECT_GT(answered, 0);
}

TEST_F(server_test, the_oldest_silent_clients_go_first_when_they_had_time_to_ask)
{
    serve();
    for (int round = 0; round < 5; ++round) {
        std::vector<std::unique_ptr<http_client>> silent;
        const auto add_silent = [&](int count) {
            for (int number = 0; number < count; ++number) {
                silent.push_back(std::make_unique<http_client>(server.port()));
            }
        };
        add_silent(12);
        std::this_thread::sleep_for(2 * time_to_ask);
        const http_client late(server.port());
        add_silent(8);
        get(server.port(), "/healthz", "127.0.2.1"); // when this is answered, all have been accepted
        late.send("GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        EXPECT_EQ(parse_answer(late.read_all()).status, 200);
    }
}

TEST_F(server_test, a_request_in_drops_does_not_last_for_ever)
{
    serve();
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
    start_large();
    serve();
    ASSERT_EQ(get(server.port(), "/api/v1/statistics").status, 200);
    const long before = kilobytes_of(getpid(), "VmRSS");
    std::vector<std::unique_ptr<http_client>> lazy;
    for (int number = 0; number < 12; ++number) {
        lazy.push_back(std::make_unique<http_client>(server.port()));
        lazy.back()->send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    }
    EXPECT_EQ(get(server.port(), "/healthz").status, 200);
    if (!b_under_a_sanitizer) {
        EXPECT_LT(kilobytes_of(getpid(), "VmRSS") - before, 8 * 1024);
    }
    std::this_thread::sleep_for(idle * 2);
    // The answer is incomplete, and the client can see that.
    const http_answer answer = parse_answer(lazy.front()->read_all());
    EXPECT_FALSE(answer.b_whole);
}

TEST_F(server_test, an_answer_ends_in_time_however_it_is_taken)
{
    start_large();
    serve();
    const http_client slow(server.port());
    slow.send("GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    const auto start_time = std::chrono::steady_clock::now();
    while (slow.take(2000)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start_time, longest_answer);
    EXPECT_LT(std::chrono::steady_clock::now() - start_time, longest_answer + std::chrono::milliseconds(1000));
}

TEST_F(server_test, without_chunks_an_answer_that_is_cut_off_is_reset)
{
    start_large();
    serve();
    const std::string request = "GET /api/v1/statistics HTTP/1.0\r\n\r\n";
    const http_client patient(server.port());
    patient.send(request);
    const http_answer answer = parse_answer(patient.read_all());
    EXPECT_FALSE(patient.is_reset());
    EXPECT_EQ(answer.head.find("chunked"), std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(answer.body)["connections"].size(), 1000U);

    // An answer is cut off for a client that takes nothing and for a client that takes little.
    const http_client lazy(server.port());
    const http_client slow(server.port());
    lazy.send(request);
    slow.send(request);
    while (slow.take(2000)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(slow.is_reset());
    lazy.read_all();
    EXPECT_TRUE(lazy.is_reset());
}

TEST_F(server_test, a_server_that_ends_cuts_off_what_it_sends)
{
    start_large();
    const http_client* client = nullptr;
    std::unique_ptr<http_client> lazy;
    {
        HttpServer short_lived;
        std::string reason;
        ASSERT_TRUE(short_lived.start(*parse_listen_address("127.0.0.1:0"), {}, {}, reason)) << reason;
        lazy = std::make_unique<http_client>(short_lived.port());
        lazy->send("GET /api/v1/statistics HTTP/1.0\r\n\r\n");
        ASSERT_TRUE(lazy->take(1));
        client = lazy.get();
    }
    client->read_all();
    EXPECT_TRUE(client->is_reset());
}

TEST_F(server_test, refuses_a_body_and_does_not_wait_for_it)
{
    serve();
    for (const char* const field :
         {"Content-Length: 1000000000", "Content-Length: 1", "Content-Length: 0\r\nContent-Length: 5",
          "Transfer-Encoding: chunked", "Content-Length: 0\r\nTransfer-Encoding: identity"}) {
        for (const char* const method : {"GET", "POST"}) {
            const http_client client(server.port());
            const auto start_time = std::chrono::steady_clock::now();
            client.send(std::string(method) + " /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n" + field + "\r\n\r\nx");
            EXPECT_EQ(parse_answer(client.read_all()).status, 413) << field;
            EXPECT_LT(std::chrono::steady_clock::now() - start_time, idle);
        }
    }
}

TEST_F(server_test, answers_every_form_of_target_with_a_status)
{
    serve();
    const std::string rest = " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    EXPECT_EQ(answer_to("GET http://127.0.0.1/healthz" + rest).body, "ok\n");
    EXPECT_EQ(answer_to("GET http://127.0.0.1" + rest).status, 200);
    EXPECT_EQ(answer_to("GET *" + rest).status, 404);
    EXPECT_EQ(answer_to("OPTIONS *" + rest).status, 405);
    EXPECT_EQ(answer_to("CONNECT 127.0.0.1:80" + rest).status, 405);
    EXPECT_EQ(answer_to("GET healthz" + rest).status, 400);
    EXPECT_EQ(answer_to("GET /healthz%00.x" + rest).status, 400);
    EXPECT_EQ(answer_to("GET /healthz%2" + rest).status, 400);
    EXPECT_EQ(answer_to("GET /%68ealthz" + rest).status, 200);
    EXPECT_EQ(answer_to("GET /healthz HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(16384, 'x') + "\r\n").status,
              431);
}

TEST_F(server_test, head_has_the_head_and_no_more)
{
    start();
    serve();
    for (const char* const path : {"/metrics", "/api/v1/statistics", "/healthz"}) {
        const http_client client(server.port());
        client.send(std::string("HEAD ") + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        const std::string text = client.read_all();
        EXPECT_TRUE(text.starts_with("HTTP/1.1 200 ")) << path;
        EXPECT_EQ(text.find("\r\n\r\n") + 4, text.size()) << path;
    }
}

TEST_F(server_test, on_loopback_answers_to_names_of_loopback_only)
{
    serve(*parse_listen_address("127.0.0.1:0"), {"metrics.example.net"});
    for (const char* const host : {"localhost", "LOCALHOST:9748", "127.0.0.1", "127.1.2.3:80", "[::1]", "[::1]:9748",
                                   "metrics.example.net", "Metrics.Example.Net:80"}) {
        EXPECT_EQ(status_for_host(host), 200) << host;
    }
    for (const char* const host : {"example.net", "192.0.2.1", "localhost.example.net", "127.0.0.1.example.net",
                                   "128.0.0.1", "[::2]", "", "x.metrics.example.net", "::1", "[::1]example.net",
                                   "localhost:80:example", "localhost:80example.net", "[localhost]", "[::1"}) {
        EXPECT_EQ(status_for_host(host), 403) << host;
    }
    EXPECT_EQ(answer_to("GET http://example.net/metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n").status, 403);
    EXPECT_EQ(answer_to("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nHost: example.net\r\n").status, 400);
    EXPECT_EQ(answer_to("GET /metrics HTTP/1.1\r\n").status, 400);
    EXPECT_EQ(answer_to("GET /metrics HTTP/1.0\r\n").status, 200);
}

TEST_F(server_test, elsewhere_answers_to_every_name)
{
    serve(*parse_listen_address("0.0.0.0:0"));
    EXPECT_EQ(status_for_host("example.net"), 200);
}

TEST_F(server_test, listens_on_ipv6)
{
    const int socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    const bool b_ipv6 = bind(socket, reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback) == 0;
    close(socket);
    if (!b_ipv6) {
        GTEST_SKIP() << "this machine has no ::1";
    }
    serve(*parse_listen_address("[::1]:0"));
    EXPECT_EQ(server.address().text(), "[::1]:" + std::to_string(server.port()));
    EXPECT_EQ(get(server.port(), "/healthz", "::1").body, "ok\n");
    EXPECT_THROW(http_client(server.port(), "127.0.0.1"), std::runtime_error);
}

TEST_F(server_test, requests_of_any_bytes_do_no_harm)
{
    start();
    fill();
    serve();
    std::mt19937 random(1);
    const std::string sound = "GET /api/v1/statistics?scope=global HTTP/1.1\r\nHost: 127.0.0.1\r\nX: y\r\n\r\n";
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
    serve();
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
                    right += served_metrics() == expected_metrics ? 1 : 0;
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
