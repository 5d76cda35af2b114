#include "serve/http_server.h"

#include "serve/clients.h"
#include "serve/http_request.h"
#include "serve/moments.h"
#include "serve/negotiation.h"
#include "serve/passwords.h"
#include "serve/responses.h"
#include "serve/routes.h"
#include "serve/tls.h"

#include <microhttpd.h>

#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <optional>
#include <thread>

namespace kavstat {

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr std::size_t piece_size = 16384;        // of a document, sent at once to one client
constexpr std::size_t connection_memory = 24576; // for a request's head, and then for a piece being sent
constexpr std::size_t longest_head = 16384;
constexpr int send_buffer = 65536;                              // the kernel's, for one client
constexpr std::size_t spare_descriptors = 4;                    // for reading the engine's statistics
constexpr std::size_t most_text_bytes = std::size_t{32} << 20U; // of answers that are kept as whole texts
constexpr std::chrono::milliseconds sweep_interval{100};
constexpr std::chrono::milliseconds accept_pause{100};

} // namespace

class HttpServer::implementation
{
public:
    implementation() = default;
    ~implementation();
    implementation(const implementation&) = delete;
    implementation& operator=(const implementation&) = delete;

    bool start(const ListenAddress& address, const HttpLimits& limits, const HttpOptions& options, std::string& reason);
    const ListenAddress& address() const { return m_address; }

private:
    // Called by the library.
    static void on_connection(void* self, MHD_Connection* connection, void** context,
                              MHD_ConnectionNotificationCode what);
    static void* on_target(void* self, const char* target, MHD_Connection* connection);
    static MHD_Result on_request(void* self, MHD_Connection* connection, const char* url, const char* method,
                                 const char* version, const char* body, std::size_t* body_size, void** context);
    static ssize_t read_answer(void* of_client, std::uint64_t position, char* bytes, std::size_t room);
    static Client* client_of(MHD_Connection* connection);

    // Serving.
    bool find_room(HttpLimits limits);
    void serve();
    int milliseconds_to_sample() const;
    void take_sample();
    void accept_client();
    void sweep();

    // Authentication.
    bool start_library(std::string& reason);
    std::optional<MHD_Result> authenticate(MHD_Connection* connection, Client& asking, bool b_body,
                                           const std::string& authorization);
    void take_verdicts();
    static int on_certificate(gnutls_session_t session, const gnutls_datum_t* authorities, int authority_count,
                              const gnutls_pk_algorithm_t* algorithms, int algorithm_count, gnutls_pcert_st** chain,
                              unsigned int* length, gnutls_privkey_t* key);

    // Answering.
    MHD_Result answer(MHD_Connection* connection, Client& asking, std::string_view method, std::string_view version);
    bool is_host_allowed(const std::vector<std::string>& hosts) const;
    MHD_Result send_answer(MHD_Connection* connection, Client& asking, bool b_head, ContentCoding coding,
                           HttpAnswer made);

    ListenAddress m_address;
    std::vector<std::string> m_allowed_hosts;
    int m_listener = -1;
    int m_stop = -1;     // an event descriptor
    int m_verdicts = -1; // an event descriptor: passwords were verified
    WebConfig m_web;
    std::function<void(const std::string&)> m_report;
    std::unique_ptr<TlsCertificate> m_certificate; // null without TLS
    std::unique_ptr<PasswordChecker> m_passwords;  // null without users
    MHD_Daemon* m_daemon = nullptr;
    std::thread m_thread;
    Clients m_clients;
    steady_clock::time_point m_accept_again;
    Moments m_moments{[this](const Moment& moment) {
        for (Client& each : m_clients) {
            if (each.answer && each.answer->moment() == &moment) {
                each.cut_off();
            }
        }
    }};

    LiveHistory m_live;
    ConnectionRates m_connection_rates;
    PastMoments m_past;
    std::string m_history;
    RouteContext m_context{
        m_moments, m_live, m_connection_rates, m_past, m_history, {}, static_cast<double>(std::time(nullptr))};
};

HttpServer::implementation::~implementation()
{
    if (m_thread.joinable()) {
        eventfd_write(m_stop, 1);
        m_thread.join();
    }
    m_passwords.reset();
    if (m_daemon != nullptr) {
        for (Client& each : m_clients) {
            each.cut_off();
        }
        MHD_stop_daemon(m_daemon);
    }
    for (const int descriptor : {m_listener, m_stop, m_verdicts}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
    if (m_listener >= 0) {
        remove_unix_socket(m_address);
    }
}

bool HttpServer::implementation::start(const ListenAddress& address, const HttpLimits& limits,
                                       const HttpOptions& options, std::string& reason)
{
    m_address = address;
    m_allowed_hosts = options.allowed_hosts;
    m_context.metrics = options.metrics;
    m_history = options.history;
    m_live = LiveHistory(options.rules);
    m_web = options.web;
    m_report = options.report;
    m_stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_verdicts = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_listener = m_stop >= 0 && m_verdicts >= 0 ? listen_on(m_address) : -1;
    if (m_listener < 0) {
        reason = std::strerror(errno);
        return false;
    }
    if (!start_library(reason)) {
        return false;
    }
    if (!m_web.users.empty()) {
        m_passwords = std::make_unique<PasswordChecker>(m_web.users, [this] { eventfd_write(m_verdicts, 1); });
    }
    if (!find_room(limits)) {
        reason = "too few descriptors; raise the limit on open files";
        return false;
    }
    m_thread = std::thread([this] { serve(); });
    return true;
}

bool HttpServer::implementation::start_library(std::string& reason)
{
    std::string authorities;
    std::string priorities;
    std::vector<MHD_OptionItem> tls;
    if (m_web.has_tls()) {
        m_certificate = std::make_unique<TlsCertificate>(m_web, m_report);
        if (!m_certificate->load(reason)) {
            return false;
        }
        priorities = tls_priorities(m_web);
        tls.push_back({MHD_OPTION_HTTPS_CERT_CALLBACK, 0, reinterpret_cast<void*>(&on_certificate)});
        tls.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, priorities.data()});
        if (!m_web.client_ca_file.empty()) {
            if (!read_tls_file(m_web.client_ca_file, authorities, reason)) {
                return false;
            }
            tls.push_back({MHD_OPTION_HTTPS_MEM_TRUST, 0, authorities.data()});
        }
    }
    tls.push_back({MHD_OPTION_END, 0, nullptr});
    const unsigned int flags = MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME |
                               (m_web.has_tls() ? static_cast<unsigned int>(MHD_USE_TLS) : 0U);
    m_daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &on_request, this,         //
                                MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_memory, //
                                MHD_OPTION_NOTIFY_CONNECTION, &on_connection, this,    //
                                MHD_OPTION_URI_LOG_CALLBACK, &on_target, this,         //
                                MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1,                  //
                                MHD_OPTION_ARRAY, tls.data(), MHD_OPTION_END);
    if (m_daemon == nullptr) {
        reason = m_web.has_tls() ? "the library does not start; it may be built without TLS" : std::strerror(errno);
    }
    return m_daemon != nullptr;
}

// Limits connections to the available descriptors. Returns false when these are too few.
bool HttpServer::implementation::find_room(HttpLimits limits)
{
    std::error_code error;
    const auto open = static_cast<std::size_t>(std::distance(
        std::filesystem::directory_iterator("/proc/self/fd", error), std::filesystem::directory_iterator()));
    rlimit allowed{};
    getrlimit(RLIMIT_NOFILE, &allowed);
    const std::size_t taken = open + spare_descriptors;
    const std::size_t room = allowed.rlim_cur > taken ? allowed.rlim_cur - taken : 0;
    limits.connections = std::min(limits.connections, room);
    m_clients.set_limits(limits);
    return limits.connections >= 2;
}

void HttpServer::implementation::serve()
{
    const int library = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    auto next_sweep = steady_clock::now();
    bool b_to_sweep = false;
    for (;;) {
        const bool b_accept = !m_clients.is_full() && steady_clock::now() >= m_accept_again;
        unsigned long long wait = sweep_interval.count();
        MHD_get_timeout(m_daemon, &wait);
        wait = std::min<unsigned long long>(wait, sweep_interval.count());
        pollfd ready[] = {{library, POLLIN, 0},
                          {m_stop, POLLIN, 0},
                          {b_accept ? m_listener : -1, POLLIN, 0},
                          {m_verdicts, POLLIN, 0}};
        poll(ready, std::size(ready), b_accept && !b_to_sweep ? milliseconds_to_sample() : static_cast<int>(wait));
        if (ready[1].revents != 0) {
            return;
        }
        take_sample();
        if (ready[2].revents != 0) {
            accept_client();
            b_to_sweep = true;
        }
        if (ready[3].revents != 0) {
            take_verdicts();
        }
        MHD_run(m_daemon);
        if (steady_clock::now() >= next_sweep) {
            sweep();
            b_to_sweep = !m_clients.is_empty() || !m_moments.is_empty();
            next_sweep = steady_clock::now() + sweep_interval;
        }
    }
}

void HttpServer::implementation::sweep()
{
    m_clients.sweep();
    m_moments.drop_old();
    // Returns the memory that many clients have used to the system.
    if (m_clients.is_empty() && m_moments.is_empty()) {
        malloc_trim(0);
    }
}

int HttpServer::implementation::milliseconds_to_sample() const
{
    using std::chrono::milliseconds;
    const auto wait = std::chrono::ceil<milliseconds>(m_live.next_sample() - steady_clock::now());
    return static_cast<int>(std::max(wait, milliseconds(0)).count());
}

void HttpServer::implementation::take_sample()
{
    try {
        m_live.sample(steady_clock::now(), std::chrono::system_clock::now());
        m_connection_rates.forget_unless_used(steady_clock::now());
        m_past.forget_unless_used(steady_clock::now());
    } catch (const std::exception&) {
        // Out of memory. The next sample may succeed.
    }
}

// Accepts one client at a time, so that its request is read before another client can displace it.
void HttpServer::implementation::accept_client()
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    const int socket = accept4(m_listener, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) {
        // Without descriptors or memory the listener stays ready, and an immediate retry would fail again.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            m_accept_again = steady_clock::now() + accept_pause;
        }
        return;
    }
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    // Closes the socket when it fails.
    if (MHD_add_connection(m_daemon, socket, reinterpret_cast<sockaddr*>(&address), size) == MHD_YES &&
        !m_clients.is_empty()) {
        m_clients.make_room();
    }
}

Client* HttpServer::implementation::client_of(MHD_Connection* connection)
{
    return static_cast<Client*>(
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
}

void HttpServer::implementation::on_connection(void* self, MHD_Connection* connection, void** context,
                                               MHD_ConnectionNotificationCode what)
{
    auto& server = *static_cast<implementation*>(self);
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
        const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        try {
            *context = &server.m_clients.add(
                connection, socket,
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr);
            if (server.m_web.has_tls()) {
                auto* const session = static_cast<gnutls_session_t>(
                    MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION)->tls_session);
                gnutls_session_set_ptr(session, self);
                demand_client_certificate(session, server.m_web);
            }
        } catch (const std::exception&) {
            reset_connection(socket);
        }
    } else if (*context != nullptr) {
        // Unread data would make the kernel reset the connection before the client has read its answer.
        const auto* const gone = static_cast<const Client*>(*context);
        recv(gone->socket, nullptr, 1U << 20U, MSG_DONTWAIT | MSG_TRUNC);
        server.m_clients.remove(*gone);
    }
}

void* HttpServer::implementation::on_target(void*, const char* target, MHD_Connection* connection)
{
    // The undecoded target: the library's own decoding would truncate it at an encoded NUL.
    if (Client* const asking = client_of(connection); asking != nullptr) {
        try {
            asking->target = target;
        } catch (const std::exception&) {
            asking->cut_off();
        }
    }
    return nullptr;
}

ssize_t HttpServer::implementation::read_answer(void* of_client, std::uint64_t, char* bytes, std::size_t room)
{
    Client& asking = *static_cast<Client*>(of_client);
    try {
        if (asking.answer) {
            const std::size_t count = asking.answer->read(bytes, room);
            if (count > 0) {
                asking.made += count;
                return static_cast<ssize_t>(count);
            }
            if (asking.answer->is_whole()) {
                return MHD_CONTENT_READER_END_OF_STREAM;
            }
            asking.cut_off();
        }
    } catch (const std::exception&) {
        asking.cut_off();
    }
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

MHD_Result HttpServer::implementation::on_request(void* self, MHD_Connection* connection, const char*,
                                                  const char* method, const char* version, const char*, std::size_t*,
                                                  void**)
{
    Client* const asking = client_of(connection);
    if (asking == nullptr || asking->b_cut_off) {
        return MHD_NO;
    }
    asking->b_asked = true;
    asking->taken_at = steady_clock::now();
    try {
        return static_cast<implementation*>(self)->answer(connection, *asking, method, version);
    } catch (const std::exception&) {
        return MHD_NO;
    }
}

MHD_Result HttpServer::implementation::answer(MHD_Connection* connection, Client& asking, std::string_view method,
                                              std::string_view version)
{
    const bool b_head = method == MHD_HTTP_METHOD_HEAD;
    HeadFields fields(connection);
    if (m_passwords != nullptr) {
        const std::string authorization = fields.authorization.value_or("");
        if (const auto result = authenticate(connection, asking, fields.b_body, authorization)) {
            return *result;
        }
    }
    if (fields.b_body) {
        return refuse(connection, MHD_HTTP_CONTENT_TOO_LARGE, "a request with a body is not served\n");
    }
    if (method != MHD_HTTP_METHOD_GET && !b_head) {
        return refuse(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD are served\n");
    }
    if (MHD_get_connection_info(connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE)->header_size > longest_head) {
        return refuse(connection, MHD_HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE, "the request is too long\n");
    }
    const std::optional<HttpTarget> target = parse_http_target(asking.target);
    std::vector<std::string>& hosts = fields.hosts;
    if (!target || hosts.size() > 1 || (hosts.empty() && version == MHD_HTTP_VERSION_1_1)) {
        return refuse(connection, MHD_HTTP_BAD_REQUEST, "not a request for a path of one host\n");
    }
    if (target->host) {
        hosts.push_back(*target->host);
    }
    // A request without a host does not come from a browser.
    if (!is_host_allowed(hosts)) {
        return refuse(connection, MHD_HTTP_FORBIDDEN, "not a name of this server; see kavstat serve --allow-host\n");
    }
    const std::optional<ContentCoding> coding = preferred_coding(fields.accept_encoding);
    if (!coding) {
        return refuse(connection, MHD_HTTP_NOT_ACCEPTABLE, "answers are sent as they are or compressed by gzip\n");
    }
    return send_answer(connection, asking, b_head, *coding, answer_to({b_head, *target, fields.accept}, m_context));
}

// Returns nothing when the client is authenticated. Other clients get the same answer for every path.
std::optional<MHD_Result> HttpServer::implementation::authenticate(MHD_Connection* connection, Client& asking,
                                                                   bool b_body, const std::string& authorization)
{
    std::optional<Credentials> credentials = parse_basic_authorization(authorization);
    bool b_right = asking.verdict.value_or(false);
    if (credentials && !asking.verdict) {
        b_right = m_passwords->is_known(*credentials);
        // Suspending works only without a body, which no scraper sends.
        if (!b_right && !b_body) {
            if (!m_passwords->verify_later(std::move(*credentials), asking.number, asking.address)) {
                return refuse(connection, MHD_HTTP_TOO_MANY_REQUESTS, "too many passwords to verify\n");
            }
            asking.b_waiting = true;
            MHD_suspend_connection(connection);
            return MHD_YES;
        }
    }
    if (b_right) {
        return std::nullopt;
    }
    return refuse(connection, MHD_HTTP_UNAUTHORIZED, "a user's name and password are needed\n");
}

void HttpServer::implementation::take_verdicts()
{
    eventfd_t count = 0;
    eventfd_read(m_verdicts, &count);
    for (const PasswordChecker::Verdict& verdict : m_passwords->take_verdicts()) {
        for (Client& each : m_clients) {
            if (each.number == verdict.asker && !each.b_cut_off) {
                each.verdict = verdict.b_right;
                each.resume();
            }
        }
    }
}

int HttpServer::implementation::on_certificate(gnutls_session_t session, const gnutls_datum_t*, int,
                                               const gnutls_pk_algorithm_t*, int, gnutls_pcert_st** chain,
                                               unsigned int* length, gnutls_privkey_t* key)
{
    auto& server = *static_cast<implementation*>(gnutls_session_get_ptr(session));
    try {
        server.m_certificate->find(*chain, *length, *key);
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

bool HttpServer::implementation::is_host_allowed(const std::vector<std::string>& hosts) const
{
    return !m_address.is_loopback() || std::all_of(hosts.begin(), hosts.end(), [this](const std::string& host) {
        return is_own_host(host, m_allowed_hosts);
    });
}

MHD_Result HttpServer::implementation::send_answer(MHD_Connection* connection, Client& asking, bool b_head,
                                                   ContentCoding coding, HttpAnswer made)
{
    asking.text_bytes = made.text.size();
    if (m_clients.text_bytes() > most_text_bytes) {
        asking.text_bytes = 0;
        return refuse(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "too many answers are on their way\n");
    }
    if (!made.make && coding == ContentCoding::identity) {
        return send_text(connection, made);
    }
    HttpAnswer head;
    head.status = made.status;
    head.type = made.type;
    head.policy = made.policy;
    if (!b_head) {
        asking.answer = std::make_unique<AnswerBody>(std::move(made), coding);
    }
    MHD_Response* const response =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, piece_size, &read_answer, &asking, nullptr);
    if (b_head && response != nullptr) {
        // Otherwise the library would send the end of a chunked body after the head.
        MHD_set_response_options(response, MHD_RF_HTTP_1_0_COMPATIBLE_STRICT, MHD_RO_END);
    }
    return send_response(connection, response, head, coding);
}

HttpServer::HttpServer() : m_impl(std::make_unique<implementation>())
{}

HttpServer::~HttpServer() = default;

bool HttpServer::start(const ListenAddress& address, const HttpLimits& limits, const HttpOptions& options,
                       std::string& reason)
{
    return m_impl->start(address, limits, options, reason);
}

const ListenAddress& HttpServer::address() const
{
    return m_impl->address();
}

} // namespace kavstat
