#include "RE_http_server.h"

#include "RE_json_writer.h"
#include "RE_metrics.h"
#include "RE_source.h"
#include "RE_statistics_json.h"

#include <arpa/inet.h>
#include <civetweb.h>

#include <charconv>
#include <cstring>

namespace {

using steady_clock = std::chrono::steady_clock;

// An answer's body, piece by piece. HTTP/1.0 knows no pieces; there the end of the connection ends the body.
class body_sink : public RE_sink
{
public:
    body_sink(mg_connection* connection, bool b_chunked, std::chrono::milliseconds longest)
        : m_connection(connection), m_b_chunked(b_chunked), m_deadline(steady_clock::now() + longest)
    {}

    bool take(std::string_view bytes) override
    {
        if (steady_clock::now() > m_deadline) {
            return false;
        }
        return m_b_chunked ? mg_send_chunk(m_connection, bytes.data(), static_cast<unsigned int>(bytes.size())) > 0
                           : mg_write(m_connection, bytes.data(), bytes.size()) > 0;
    }

    // A body that was cut off gets no end, so that the client sees that it is not whole.
    void end()
    {
        if (m_b_chunked) {
            mg_send_chunk(m_connection, "", 0);
        }
    }

private:
    mg_connection* m_connection;
    bool m_b_chunked;
    steady_clock::time_point m_deadline;
};

class request
{
public:
    request(mg_connection* connection, const RE_http_limits& limits)
        : m_connection(connection), m_info(*mg_get_request_info(connection)), m_limits(limits)
    {}

    // Answers, and returns the status.
    int answer()
    {
        if (!is_method("GET") && !is_method("HEAD")) {
            return send_text("405 Method Not Allowed", "Allow: GET, HEAD\r\n", "only GET and HEAD are served\n");
        }
        const std::string_view path = m_info.local_uri != nullptr ? m_info.local_uri : "";
        if (path == "/metrics") {
            return send_metrics();
        }
        if (path == "/api/v1/statistics") {
            return send_statistics();
        }
        if (path == "/healthz") {
            return send_text("200 OK", "", "ok\n");
        }
        if (path == "/") {
            return send_text("200 OK", "", "kavstat " KAV_VERSION "\n/metrics\n/api/v1/statistics\n/healthz\n");
        }
        return send_text("404 Not Found", "", "not found; there are /metrics, /api/v1/statistics and /healthz\n");
    }

private:
    bool is_method(const char* method) const
    {
        return m_info.request_method != nullptr && std::strcmp(m_info.request_method, method) == 0;
    }
    bool is_chunked() const { return m_info.http_version != nullptr && std::strcmp(m_info.http_version, "1.0") > 0; }

    // write: fills an RE_output with the body.
    template <typename Write>
    int send(const char* status, const char* more_headers, const char* type, const Write& write)
    {
        mg_printf(m_connection,
                  "HTTP/1.1 %s\r\nContent-Type: %s\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n"
                  "Connection: close\r\n%s%s\r\n",
                  status, type, more_headers, is_chunked() ? "Transfer-Encoding: chunked\r\n" : "");
        if (!is_method("HEAD")) {
            body_sink sink(m_connection, is_chunked(), m_limits.longest_answer);
            RE_output output(sink);
            write(output);
            if (output.flush()) {
                sink.end();
            }
        }
        return std::atoi(status);
    }

    int send_text(const char* status, const char* more_headers, std::string_view text)
    {
        return send(status, more_headers, "text/plain; charset=utf-8", [&](RE_output& output) { output.add(text); });
    }

    int send_json_error(const char* status, const std::string& reason)
    {
        return send(status, "", "application/json", [&](RE_output& output) {
            RE_json_writer json(output);
            json.begin_object();
            json.member_text("error", reason);
            json.end_object();
        });
    }

    int send_metrics()
    {
        RE_source source;
        const bool b_up = source.open() == 0;
        return send("200 OK", "", "text/plain; version=0.0.4; charset=utf-8", [&](RE_output& output) {
            if (b_up) {
                write_metrics_of(source.reader(), std::time(nullptr), output);
            } else {
                write_metrics_without_engine(output);
            }
        });
    }

    int send_statistics()
    {
        RE_json_scopes scopes;
        const char* const query = m_info.query_string;
        char words[256];
        const int length = query != nullptr ? mg_get_var(query, std::strlen(query), "scope", words, sizeof words) : -1;
        if (length == -2) {
            return send_json_error("400 Bad Request", "the scope is too long");
        }
        if (length >= 0) {
            std::string unknown;
            const std::optional<RE_json_scopes> wanted = parse_json_scopes(words, unknown);
            if (!wanted) {
                return send_json_error("400 Bad Request", "no such scope: \"" + unknown + "\"");
            }
            scopes = *wanted;
        }
        RE_source source;
        if (const int error = source.open()) {
            return send_json_error("503 Service Unavailable", RE_source::reason_of(error));
        }
        return send("200 OK", "", "application/json",
                    [&](RE_output& output) { write_statistics_json(source, scopes, std::time(nullptr), output); });
    }

    mg_connection* m_connection;
    const mg_request_info& m_info;
    const RE_http_limits& m_limits;
};

} // namespace

struct RE_http_server::implementation
{
    RE_http_limits limits;
    std::string first_message;
    mg_context* context = nullptr;
};

std::optional<RE_listen_address> parse_listen_address(std::string_view text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view port = text.substr(colon + 1);
    std::string_view host = text.substr(0, colon);
    int family = AF_INET;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        family = AF_INET6;
    }
    RE_listen_address address{std::string(host), 0};
    unsigned char bytes[sizeof(in6_addr)];
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
    const bool b_port = error == std::errc() && end == port.data() + port.size() && port.front() != '-' &&
                        address.port >= 0 && address.port <= 65535;
    if (!b_port || host.find('\0') != std::string_view::npos || inet_pton(family, address.host.c_str(), bytes) != 1) {
        return std::nullopt;
    }
    return address;
}

RE_http_server::RE_http_server() : m_impl(std::make_unique<implementation>())
{}

RE_http_server::~RE_http_server()
{
    if (m_impl->context != nullptr) {
        mg_stop(m_impl->context);
        mg_exit_library();
    }
}

bool RE_http_server::start(const RE_listen_address& address, const RE_http_limits& limits, std::string& reason)
{
    m_impl->limits = limits;
    const bool b_v6 = address.host.find(':') != std::string::npos;
    const std::string where = (b_v6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
    const std::string threads = std::to_string(limits.threads);
    const std::string queue = std::to_string(limits.queue);
    const std::string timeout = std::to_string(limits.idle.count());
    // No folder is served and no other site's script may ask: what is not answered below does not exist.
    const char* options[] = {"listening_ports",
                             where.c_str(),
                             "num_threads",
                             threads.c_str(),
                             "connection_queue",
                             queue.c_str(),
                             "request_timeout_ms",
                             timeout.c_str(),
                             "enable_keep_alive",
                             "no",
                             "enable_directory_listing",
                             "no",
                             "access_control_allow_origin",
                             "",
                             nullptr};

    mg_callbacks callbacks{};
    callbacks.begin_request = [](mg_connection* connection) {
        const auto* const self = static_cast<implementation*>(mg_get_user_data(mg_get_context(connection)));
        return request(connection, self->limits).answer();
    };
    // Requests that are none do not get as far as that. The server's own words for them would tell what it is made of.
    callbacks.http_error = [](mg_connection* connection, int status, const char*) {
        mg_printf(connection,
                  "HTTP/1.1 %d %s\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: 0\r\n"
                  "Connection: close\r\n\r\n",
                  status, mg_get_response_code_text(connection, status));
        return 0;
    };
    callbacks.log_message = [](const mg_connection* connection, const char* message) {
        // Before it serves, the server says here why it cannot; later it says what clients do, which is their affair.
        if (auto* const self = static_cast<implementation*>(mg_get_user_data(mg_get_context(connection)));
            self != nullptr && self->context == nullptr && self->first_message.empty()) {
            self->first_message = message;
        }
        return 1;
    };

    mg_init_library(MG_FEATURES_DEFAULT);
    char text[256] = "";
    unsigned int code = 0;
    mg_error_data error{&code, text, sizeof text};
    mg_init_data init{&callbacks, m_impl.get(), options};
    mg_context* const context = mg_start2(&init, &error);
    if (context == nullptr) {
        reason = !m_impl->first_message.empty() ? m_impl->first_message : text;
        mg_exit_library();
        return false;
    }
    m_impl->context = context;
    return true;
}

int RE_http_server::port() const
{
    mg_server_port port{};
    return m_impl->context != nullptr && mg_get_server_ports(m_impl->context, 1, &port) == 1 ? port.port : 0;
}
