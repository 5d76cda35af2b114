// kavstat serve for other machines: TLS, users, sockets of systemd.
#include "kavstat_program.h"
#include "prometheus.h"

#include "support/contains.h"

#include <sys/stat.h>

#include <chrono>
#include <thread>

namespace {

class serve_tls : public system_test
{
protected:
    void SetUp() override
    {
        system_test::SetUp();
        make_certificate("server", "localhost");
        write_file(path("web.yml"), "tls_server_config:\n"
                                    "  cert_file: server.crt\n"
                                    "  key_file: server.key\n"
                                    "basic_auth_users:\n"
                                    "  alice: $2y$10$KBCwKxOzLha2MUDgW0PjXe5iC0KgerkTIWLGUoONajjj98vdFiyt2\n");
        chmod(path("web.yml").c_str(), 0600);
    }
    // Signs itself, so that it is its own authority, unless the options name another one.
    void make_certificate(const std::string& file, const std::string& name, const std::vector<std::string>& more = {})
    {
        std::vector<std::string> options{"req",
                                         "-x509",
                                         "-newkey",
                                         "ec",
                                         "-pkeyopt",
                                         "ec_paramgen_curve:P-256",
                                         "-nodes",
                                         "-days",
                                         "2",
                                         "-subj",
                                         "/CN=" + name,
                                         "-addext",
                                         "subjectAltName=DNS:localhost,IP:127.0.0.1",
                                         "-keyout",
                                         path(file + ".key"),
                                         "-out",
                                         path(file + ".crt")};
        options.insert(options.end(), more.begin(), more.end());
        const program_result result = child_program("/usr/bin/openssl", options).finish();
        ASSERT_EQ(result.status, 0) << result.err;
        chmod(path(file + ".key").c_str(), 0600);
    }
    std::vector<std::string> with_web_config() const { return {"--web-config", path("web.yml")}; }
    // Status and body, "200 ok"; "000" without an answer.
    std::string curl(const kavstat_server& server, const std::string& target, std::vector<std::string> options) const
    {
        options.insert(options.end(), {"-s", "--path-as-is", "--cacert", path("server.crt"), "-w", "%{http_code}",
                                       "https://localhost:" + std::to_string(server.port()) + target});
        const std::string out = child_program("/usr/bin/curl", options).finish().out;
        return out.substr(out.size() - 3) + " " + out.substr(0, out.size() - 3);
    }
    const std::vector<std::string> alice{"-u", "alice:secret"};
};

} // namespace

TEST_F(serve_tls, serves_users_with_curl)
{
    const small_engine engine;
    kavstat_server server({}, with_web_config());
    EXPECT_EQ(curl(server, "/healthz", alice), "200 ok\n");
    const std::string plain = curl(server, "/metrics", alice);
    EXPECT_TRUE(contains(plain, "\nkav_up 1\n"));
    EXPECT_TRUE(contains(
        curl(server, "/metrics", {"-u", "alice:secret", "--compressed", "-H", "Accept: application/openmetrics-text"}),
        "\n# EOF\n"));
    const std::string refused = "401 a user's name and password are needed\n";
    EXPECT_EQ(curl(server, "/metrics", {"-u", "alice:wrong"}), refused);
    for (const char* const target : {"/", "/metrics", "/api/v1/statistics", "/healthz", "/readyz", "/../x", "/?a"}) {
        EXPECT_EQ(curl(server, target, {}), refused) << target;
        EXPECT_EQ(curl(server, target, {"-d", "a=b"}), refused) << target;
        EXPECT_EQ(curl(server, target, {"-X", "OPTIONS"}), refused) << target;
    }
    EXPECT_EQ(curl(server, "/healthz", {"-u", "alice:secret", "--tls-max", "1.1"}), "000 ");
    EXPECT_THROW(std::stoi(get(server.port(), "/healthz").head), std::exception); // not without TLS
    const program_result end = server.stop();
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.err, "");
}

TEST_F(serve_tls, is_scraped_by_prometheus)
{
    const small_engine engine;
    const kavstat_server server({}, with_web_config());
    const prometheus store(folder(), {server.port()}, {},
                           "    scheme: https\n"
                           "    tls_config: {ca_file: '" +
                               path("server.crt") +
                               "'}\n"
                               "    basic_auth: {username: alice, password: secret}\n");
    const stored_series up = store.query_until("kav_up", [](const stored_series& series) { return !series.empty(); });
    EXPECT_EQ(up, (stored_series{{"kav_up", 1}}));
    // Prometheus asks for OpenMetrics, which alone has these.
    EXPECT_FALSE(store.query("kav_cache_reads_created").empty());
}

TEST_F(serve_tls, takes_a_renewed_certificate)
{
    kavstat_server server({}, with_web_config());
    EXPECT_EQ(curl(server, "/healthz", alice), "200 ok\n");
    make_certificate("next", "renewed");
    // Only half of it is renewed: the old one stays.
    const std::string old = bytes_of_file(path("server.crt"));
    write_file(path("server.crt"), bytes_of_file(path("next.crt")));
    EXPECT_EQ(curl(server, "/healthz", alice), "000 ");
    write_file(path("server.crt"), old);
    EXPECT_EQ(curl(server, "/healthz", alice), "200 ok\n");
    write_file(path("server.key"), bytes_of_file(path("next.key")));
    write_file(path("server.crt"), bytes_of_file(path("next.crt")));
    EXPECT_EQ(curl(server, "/healthz", alice), "200 ok\n");
    // A pipe does not block the server.
    unlink(path("server.key").c_str());
    ASSERT_EQ(mkfifo(path("server.key").c_str(), 0600), 0);
    EXPECT_EQ(curl(server, "/healthz", alice), "200 ok\n");
    const std::string stays = "kavstat: the old certificate stays in use: " + path("server.key") + ": ";
    const std::string taken = "kavstat: " + path("server.crt") + ": the new certificate is in use\n";
    EXPECT_EQ(server.stop().err, stays + "not the key of the certificate in " + path("server.crt") + "\n" + taken +
                                     taken + stays + "not a regular file of 1 byte to 1 MB\n");
}

TEST_F(serve_tls, demands_certificates_of_clients)
{
    make_certificate("client", "client");
    make_certificate("stranger", "stranger");
    write_file(path("web.yml"), "tls_server_config:\n"
                                "  cert_file: server.crt\n"
                                "  key_file: server.key\n"
                                "  client_auth_type: RequireAndVerifyClientCert\n"
                                "  client_ca_file: client.crt\n");
    const kavstat_server server({}, with_web_config());
    const auto as = [&](const std::string& name) {
        return curl(server, "/healthz", {"--cert", path(name + ".crt"), "--key", path(name + ".key")});
    };
    EXPECT_EQ(as("client"), "200 ok\n");
    EXPECT_EQ(as("stranger"), "000 ");
    const auto made_for = [&](const std::string& purpose) {
        make_certificate(purpose, purpose,
                         {"-CA", path("client.crt"), "-CAkey", path("client.key"), "-addext",
                          "basicConstraints=critical,CA:FALSE", "-addext", "extendedKeyUsage=" + purpose});
        return as(purpose);
    };
    EXPECT_EQ(made_for("clientAuth"), "200 ok\n");
    EXPECT_EQ(made_for("serverAuth"), "000 ");
    EXPECT_EQ(curl(server, "/healthz", {}), "000 ");
}

TEST_F(serve_tls, handshakes_that_stop_hold_nobody_up)
{
    const kavstat_server server({}, with_web_config());
    EXPECT_EQ(curl(server, "/healthz", alice), "200 ok\n");
    // The head of a ClientHello of 512 bytes, and no more of it.
    const std::string half("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
    std::vector<std::unique_ptr<http_client>> stopped;
    for (int number = 0; number < 300; ++number) {
        const std::string from = "127.0.1." + std::to_string(number % 200 + 1);
        stopped.push_back(std::make_unique<http_client>(server.port(), from.c_str()));
        stopped.back()->send(half);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(curl(server, "/healthz", alice), "200 ok\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_TRUE(stopped.back()->is_dropped_within(8000));
}

TEST_F(serve_tls, refuses_to_serve_others_without_protection)
{
    const std::string needs =
        "; protect it by --web-config with TLS and users or client certificates, or give --insecure\n";
    for (const char* const address : {"0.0.0.0:0", "[::]:0", "192.0.2.1:0"}) {
        const program_result result = run_kavstat({"serve", "--listen", address});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, std::string("kavstat: other machines can reach ") + address + needs);
    }
    write_file(path("users.yml"), "basic_auth_users:\n  alice: nothing\n");
    EXPECT_EQ(run_kavstat({"serve", "--web-config", path("users.yml")}).err,
              "kavstat: " + path("users.yml") + ": line 2: the password of alice is not a bcrypt hash, \"$2y$...\"\n");
    chmod(path("server.key").c_str(), 0644);
    const program_result warned = run_kavstat({"serve", "--listen", "192.0.2.1:0", "--web-config", path("web.yml")});
    EXPECT_EQ(warned.status, 5);
    EXPECT_TRUE(contains(warned.err, "server.key: every user of this machine can read the private key\n"));
}

TEST_F(serve_tls, takes_a_socket_of_systemd)
{
    const int port = free_port();
    child_program activator("/usr/bin/systemd-socket-activate",
                            {"-l", "127.0.0.1:" + std::to_string(port), "-E", "KAV_STAT_SEGMENT",
                             built_program("kavstat"), "serve", "--listen", "127.0.0.1:1"});
    http_answer answer;
    for (int round = 0; round < 100 && answer.status == 0; ++round) {
        try {
            answer = get(port, "/healthz");
        } catch (const std::runtime_error&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    EXPECT_EQ(answer.body, "ok\n");
    activator.send_signal(SIGTERM);
    EXPECT_EQ(activator.finish().status, 0);
}
