// Clients that try to block kavstat's server for others. The server does not wait for them, and its memory stays
// bounded.
#include "support/engine_shapes.h"
#include "support/files.h"
#include "support/http_client.h"
#include "support/program_cost.h"
#include "torture.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

namespace {

using clock_type = std::chrono::steady_clock;

double milliseconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

// The largest possible engine except for connections, because clients do not share data on connections.
constexpr engine_shape largest = {4096, 1000, 65536, 1000, 100};

constexpr double delay_at_most = 100;      // milliseconds of additional time for a scrape, at the median
constexpr double end_at_most = 1000;       // milliseconds until the server has ended
constexpr long private_at_most = 64 << 10; // kilobytes

enum class manner
{
    stays,  // connected and reads nothing
    reads,  // some bytes repeatedly
    leaves, // at once
};

enum class protection
{
    none,
    users,
    tls,
};

struct attack
{
    const char* name;
    std::size_t clients;
    bool b_many_addresses;
    const char* request; // sent first by each client
    const char* drop;    // sent repeatedly after that
    manner then;
    protection against = protection::none;
};

constexpr const char* bodies = "POST /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 1000000000\r\n\r\n";
constexpr const char* metrics = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
constexpr const char* head = "HEAD /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
constexpr const char* old_metrics = "GET /metrics HTTP/1.0\r\n\r\n";
constexpr const char* json = "GET /api/v1/statistics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";

// The password of alice is not "wrong".
constexpr const char* wrong_password =
    "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Basic YWxpY2U6d3Jvbmc=\r\n\r\n";
constexpr const char* right_password = "GET /api/v1/statistics?scope=global HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                                       "Authorization: Basic YWxpY2U6c2VjcmV0\r\n\r\n";
constexpr const char* hash_of_secret = "$2y$10$KBCwKxOzLha2MUDgW0PjXe5iC0KgerkTIWLGUoONajjj98vdFiyt2";
// The head of a record whose rest never comes.
constexpr const char* half_a_handshake = "\x16\x03\x01\x02\x0a\x01\x01\xfc\x03\x03";

constexpr attack attacks[] = {
    {"silent, of one address", 1000, false, "", "", manner::stays},
    {"silent, of many addresses", 1000, true, "", "", manner::stays},
    {"heads in drops", 400, true, "GET /metrics HTTP/1.1\r\n", "X: y\r\n", manner::stays},
    {"bodies in drops", 400, true, bodies, "x", manner::stays},
    {"metrics taken slowly", 64, false, metrics, "", manner::reads},
    {"metrics taken slowly without chunks", 64, true, old_metrics, "", manner::reads},
    {"JSON taken slowly", 64, false, json, "", manner::reads},
    {"metrics not taken", 400, true, metrics, "", manner::stays},
    {"requests one after another", 200, true, metrics, metrics, manner::reads},
    {"heads of metrics", 400, true, head, "", manner::reads},
    {"metrics asked for and left", 400, true, metrics, "", manner::leaves},
    {"wrong passwords", 200, true, wrong_password, "", manner::reads, protection::users},
    {"wrong passwords of one address", 200, false, wrong_password, "", manner::leaves, protection::users},
    {"TLS handshakes that stop", 400, true, half_a_handshake, "", manner::stays, protection::tls},
    {"TLS handshakes in drops", 400, true, half_a_handshake, "\x01", manner::stays, protection::tls},
    {"TLS handshakes that are none", 400, true, metrics, metrics, manner::reads, protection::tls},
};

class attackers
{
public:
    attackers(const attack& chosen, int port) : m_attack(chosen), m_port(port) {}

    // Continues all clients and replaces those that were dropped. New clients start a few at a time, so that they do
    // not act in step.
    void go_on()
    {
        std::erase_if(m_clients, [&](const auto& each) {
            return !each->send(m_attack.drop) || (m_attack.then == manner::reads && !each->take_some(400));
        });
        if (m_attack.then == manner::stays) {
            std::erase_if(m_clients, [](const auto& each) { return !each->is_open(); });
        }
        const std::size_t new_ones = m_attack.clients / 8;
        for (std::size_t at = 0; at < new_ones && m_clients.size() < m_attack.clients; ++at) {
            ++m_made;
            const std::string own =
                "127.1." + std::to_string(m_made / 200 % 200 + 1) + "." + std::to_string(m_made % 200 + 1);
            m_clients.push_back(
                std::make_unique<http_client>(m_port, m_attack.b_many_addresses ? own.c_str() : "127.0.0.1"));
            m_clients.back()->send(m_attack.request);
            if (m_attack.then == manner::leaves) {
                m_clients.pop_back();
            }
        }
    }

private:
    const attack& m_attack;
    int m_port;
    std::size_t m_made = 0;
    std::vector<std::unique_ptr<http_client>> m_clients;
};

int port_of(child_program& server)
{
    const std::string line = server.read_line().value_or("");
    return std::atoi(line.substr(line.rfind(':') + 1).c_str());
}

// The options that protect the server, with their files in the folder.
std::vector<std::string> protect(protection against, const scratch_folder& folder)
{
    if (against == protection::none) {
        return {};
    }
    std::string config = std::string("basic_auth_users:\n  alice: ") + hash_of_secret + "\n";
    if (against == protection::tls) {
        child_program("/usr/bin/openssl",
                      {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                       "-subj", "/CN=localhost", "-keyout", folder.file("key"), "-out", folder.file("cert")})
            .finish();
        chmod(folder.file("key").c_str(), 0600);
        config = "tls_server_config:\n  cert_file: cert\n  key_file: key\n";
    }
    write_file(folder.file("web.yml"), config);
    chmod(folder.file("web.yml").c_str(), 0600);
    return {"--web-config", folder.file("web.yml")};
}

class trial
{
public:
    trial(const attack& chosen, tally& result)
        : m_name(chosen.name), m_against(chosen.against), m_result(result),
          m_server(built_program("kavstat"),
                   [&] {
                       std::vector<std::string> arguments = {"serve", "--listen", "127.0.0.1:0"};
                       const std::vector<std::string> more = protect(chosen.against, m_folder);
                       arguments.insert(arguments.end(), more.begin(), more.end());
                       return arguments;
                   }()),
          m_port(port_of(m_server)), m_attackers(chosen, m_port)
    {}

    void run(unsigned long scrapes)
    {
        const double quiet = median_scrape(scrapes, [] {});
        m_delay = median_scrape(scrapes, [this] { m_attackers.go_on(); }) - quiet;
        m_result.add(m_delay <= delay_at_most, m_name + ": delays of " + std::to_string(m_delay) + " ms");
        m_result.add(m_private < private_at_most, m_name + ": " + std::to_string(m_private) + " KB of private memory");
        const auto start = clock_type::now();
        m_server.send_signal(SIGTERM);
        const program_result end = m_server.finish();
        const double length = milliseconds_since(start);
        m_result.add(end.status == 0 && end.err.empty() && length < end_at_most,
                     m_name + ": " + end_of(end) + " after " + std::to_string(length) + " ms");
    }

    // The additional time of a scrape in milliseconds, at the median.
    double delay() const { return m_delay; }
    long private_memory() const { return m_private; }

private:
    http_answer scrape() const
    {
        if (m_against == protection::none) {
            return get(m_port, "/api/v1/statistics?scope=global");
        }
        if (m_against == protection::users) {
            const http_client client(m_port);
            client.send(right_password);
            return parse_answer(client.read_all());
        }
        const program_result result = child_program("/usr/bin/curl", {"-sik", "--raw",
                                                                      "https://localhost:" + std::to_string(m_port) +
                                                                          "/api/v1/statistics?scope=global"})
                                          .finish();
        return parse_answer(result.out);
    }

    // Scrapes this many times, with a call of `before` before each scrape.
    template <typename Work>
    double median_scrape(unsigned long scrapes, const Work& before)
    {
        std::vector<double> times;
        for (unsigned long round = 0; round < scrapes; ++round) {
            before();
            const auto start = clock_type::now();
            const http_answer answer = scrape();
            times.push_back(milliseconds_since(start));
            m_result.add(answer.status == 200 && answer.b_whole, m_name + ": an answer is missing");
            m_private = std::max(m_private, kilobytes_of(m_server.pid(), "RssAnon"));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }

    std::string m_name;
    protection m_against;
    tally& m_result;
    scratch_folder m_folder;
    child_program m_server;
    int m_port;
    attackers m_attackers;
    double m_delay = 0;
    long m_private = 0;
};

} // namespace

void attack_server(const torture_options& options, tally& result)
{
    // A thousand clients need a thousand descriptors.
    const rlimit enough{4096, 4096};
    setrlimit(RLIMIT_NOFILE, &enough);
    RE_stat_writer engine;
    publish_sample(engine, largest);
    double slowest = 0;
    long most = 0;
    for (const attack& each : attacks) {
        trial one(each, result);
        one.run(options.count);
        slowest = std::max(slowest, one.delay());
        most = std::max(most, one.private_memory());
    }
    char note[128];
    std::snprintf(note, sizeof note, "%zu attacks; delay %.1f ms at most, private memory %.1f MB at most",
                  std::size(attacks), slowest, static_cast<double>(most) / 1024);
    result.note(note);
}
