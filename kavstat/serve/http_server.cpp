#include "serve/http_server.h"

#include "serve/http_request.h"
#include "serve/moments.h"
#include "serve/routes.h"

#include <microhttpd.h>

#include <linux/tcp.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <list>
#include <optional>
#include <random>
#include <thread>

namespace kavstat {

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr std::size_t piece_size = 16384;        // of a document, as one client holds it
constexpr std::size_t connection_memory = 32768; // for a request's head, and then for a piece on its way
constexpr std::size_t longest_head = 16384;
constexpr int send_buffer = 65536;           // the kernel's, for one client
constexpr std::size_t spare_descriptors = 4; // for reading the engine's statistics
constexpr std::chrono::milliseconds sweep_interval{100};
constexpr std::chrono::milliseconds accept_pause{100};

// Ends a connection at once and so that the client cannot take it for the regular end of an answer: by a reset. What is
// on its way to the client is dropped. The descriptor stays; the library notices the end.
void reset_connection(int socket)
{
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    static_cast<void>(connect(socket, &nobody, sizeof nobody));
}

// The part that counts as one address: an IPv6 client usually has 2^64 addresses.
std::string address_key(const sockaddr* address)
{
    if (address->sa_family == AF_INET6) {
        return {reinterpret_cast<const char*>(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr), 8};
    }
    return {reinterpret_cast<const char*>(&reinterpret_cast<const sockaddr_in*>(address)->sin_addr), 4};
}

// A body that is made while it is sent.
class body_on_its_way : private Sink
{
public:
    explicit body_on_its_way(HttpAnswer answer) : m_answer(std::move(answer)), m_document(m_answer.make(m_output)) {}

    // What it reads from, or null.
    const Moment* moment() const { return m_answer.moment.get(); }

    // Whether everything that was read is valid: the statistics may have been cut short during the read.
    bool is_whole() const { return m_output.is_ok(); }

    // The next bytes, at most `room` of them; 0 at the end.
    std::size_t read(char* bytes, std::size_t room)
    {
        if (m_taken == m_piece.size()) {
            m_piece.clear();
            m_taken = 0;
            while (m_piece.empty() && m_b_more) {
                m_b_more = m_document.write_more();
            }
            if (!m_b_more) {
                m_output.flush();
            }
        }
        const std::size_t count = std::min(room, m_piece.size() - m_taken);
        std::memcpy(bytes, m_piece.data() + m_taken, count);
        m_taken += count;
        return count;
    }

private:
    bool take(std::string_view bytes) override
    {
        m_piece.append(bytes);
        return true;
    }

    HttpAnswer m_answer;
    std::string m_piece;
    std::size_t m_taken = 0;
    Output m_output{*this, piece_size};
    Document m_document;
    bool m_b_more = true;
};

struct client
{
    client(int its_socket, const sockaddr* its_address) : socket(its_socket), address(address_key(its_address)) {}

    // Looks how much the client has taken, as far as its system has acknowledged.
    void note_taken(steady_clock::time_point now)
    {
        tcp_info info{};
        socklen_t size = sizeof info;
        getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
        if (taken != info.tcpi_bytes_acked) {
            taken = info.tcpi_bytes_acked;
            taken_at = now - std::chrono::milliseconds(info.tcpi_last_ack_recv);
        }
    }

    int socket;
    std::string address;
    steady_clock::time_point since = steady_clock::now();
    std::string target;   // of the request
    bool b_asked = false; // the request is complete
    bool b_cut_off = false;
    std::unique_ptr<body_on_its_way> answer;
    std::uint64_t taken = 0; // of the answer, and when that last became more
    steady_clock::time_point taken_at = since;
};

} // namespace

class HttpServer::implementation
{
public:
    implementation() = default;
    ~implementation();
    implementation(const implementation&) = delete;
    implementation& operator=(const implementation&) = delete;

    bool start(const ListenAddress& address, const HttpLimits& limits, const std::vector<std::string>& allowed_hosts,
               std::string& reason);
    const ListenAddress& address() const { return m_address; }

private:
    // What the library calls.
    static void on_connection(void* self, MHD_Connection* connection, void** context,
                              MHD_ConnectionNotificationCode what);
    static void* on_target(void* self, const char* target, MHD_Connection* connection);
    static MHD_Result on_request(void* self, MHD_Connection* connection, const char* url, const char* method,
                                 const char* version, const char* body, std::size_t* body_size, void** context);
    static ssize_t read_answer(void* of_client, std::uint64_t position, char* bytes, std::size_t room);
    static client* client_of(MHD_Connection* connection);

    // Serving.
    bool find_room();
    void serve();
    void accept_client();
    void make_room();
    void cut_off_one(const std::string* address);
    bool may_be_cut_off(const client& one, const std::string* address) const;
    client* find_silent(const std::string* address);
    client* find_idle(const std::string* address);
    void sweep();

    // Answering.
    MHD_Result answer(MHD_Connection* connection, client& asking, std::string_view method, std::string_view version);
    bool is_host_allowed(const std::vector<std::string>& hosts) const;
    MHD_Result send_answer(MHD_Connection* connection, client& asking, bool b_head, HttpAnswer made);

    ListenAddress m_address;
    HttpLimits m_limits;
    std::vector<std::string> m_allowed_hosts;
    int m_listener = -1;
    int m_stop = -1; // an event descriptor
    MHD_Daemon* m_daemon = nullptr;
    std::thread m_thread;
    std::list<client> m_clients; // oldest first
    steady_clock::time_point m_accept_again;
    std::minstd_rand m_random{std::random_device()()};
    Moments m_moments{[this](const Moment& moment) {
        for (client& each : m_clients) {
            if (each.answer && each.answer->moment() == &moment) {
                cut_off(each);
            }
        }
    }};

    static void cut_off(client& one)
    {
        one.b_cut_off = true;
        one.answer.reset();
        reset_connection(one.socket);
    }
};

HttpServer::implementation::~implementation()
{
    if (m_thread.joinable()) {
        eventfd_write(m_stop, 1);
        m_thread.join();
    }
    if (m_daemon != nullptr) {
        for (client& each : m_clients) {
            cut_off(each);
        }
        MHD_stop_daemon(m_daemon);
    }
    for (const int descriptor : {m_listener, m_stop}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

bool HttpServer::implementation::start(const ListenAddress& address, const HttpLimits& limits,
                                       const std::vector<std::string>& allowed_hosts, std::string& reason)
{
    m_address = address;
    m_limits = limits;
    m_allowed_hosts = allowed_hosts;
    m_stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_listener = m_stop >= 0 ? listen_on(m_address) : -1;
    if (m_listener < 0) {
        reason = std::strerror(errno);
        return false;
    }
    m_daemon = MHD_start_daemon(MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET, 0, nullptr, nullptr, &on_request, this, //
                                MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_memory,                            //
                                MHD_OPTION_NOTIFY_CONNECTION, &on_connection, this,                               //
                                MHD_OPTION_URI_LOG_CALLBACK, &on_target, this,                                    //
                                MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_END);
    if (m_daemon == nullptr) {
        reason = std::strerror(errno);
        return false;
    }
    if (!find_room()) {
        reason = "too few descriptors; raise the limit on open files";
        return false;
    }
    m_thread = std::thread([this] { serve(); });
    return true;
}

// No more connections than there are descriptors for. False when that is not enough to serve anybody.
bool HttpServer::implementation::find_room()
{
    std::error_code error;
    const auto open = static_cast<std::size_t>(std::distance(
        std::filesystem::directory_iterator("/proc/self/fd", error), std::filesystem::directory_iterator()));
    rlimit allowed{};
    getrlimit(RLIMIT_NOFILE, &allowed);
    const std::size_t taken = open + spare_descriptors;
    const std::size_t room = allowed.rlim_cur > taken ? allowed.rlim_cur - taken : 0;
    m_limits.connections = std::min(m_limits.connections, room);
    return m_limits.connections >= 2;
}

void HttpServer::implementation::serve()
{
    const int library = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    auto next_sweep = steady_clock::now();
    bool b_to_sweep = false;
    for (;;) {
        // A client that was cut off keeps its place until the library has noticed.
        const bool b_accept = m_clients.size() < m_limits.connections && steady_clock::now() >= m_accept_again;
        unsigned long long wait = sweep_interval.count();
        MHD_get_timeout(m_daemon, &wait);
        wait = std::min<unsigned long long>(wait, sweep_interval.count());
        pollfd ready[] = {{library, POLLIN, 0}, {m_stop, POLLIN, 0}, {b_accept ? m_listener : -1, POLLIN, 0}};
        poll(ready, std::size(ready), b_accept && !b_to_sweep ? -1 : static_cast<int>(wait));
        if (ready[1].revents != 0) {
            return;
        }
        if (ready[2].revents != 0) {
            accept_client();
            b_to_sweep = true;
        }
        MHD_run(m_daemon);
        if (steady_clock::now() >= next_sweep) {
            sweep();
            b_to_sweep = !m_clients.empty() || !m_moments.is_empty();
            next_sweep = steady_clock::now() + sweep_interval;
        }
    }
}

// One at a time, so that its request is read before another one asks for its place.
void HttpServer::implementation::accept_client()
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    const int socket = accept4(m_listener, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) {
        // Without descriptors or memory the listener stays ready, and nothing would change by trying at once.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            m_accept_again = steady_clock::now() + accept_pause;
        }
        return;
    }
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    // Closes the socket when it fails.
    if (MHD_add_connection(m_daemon, socket, reinterpret_cast<sockaddr*>(&address), size) == MHD_YES &&
        !m_clients.empty()) {
        make_room();
    }
}

// Keeps a place free for the next client, and others' places free of an address that has many.
void HttpServer::implementation::make_room()
{
    const std::string& address = m_clients.back().address;
    std::size_t all = 0;
    std::size_t of_address = 0;
    for (const client& each : m_clients) {
        all += each.b_cut_off ? 0 : 1;
        of_address += !each.b_cut_off && each.address == address ? 1 : 0;
    }
    if (of_address > m_limits.connections_of_address) {
        cut_off_one(&address);
    } else if (all == m_limits.connections) {
        cut_off_one(nullptr);
    }
}

// address: the client's; null for clients of any address.
void HttpServer::implementation::cut_off_one(const std::string* address)
{
    client* leaving = find_silent(address);
    if (leaving == nullptr) {
        leaving = find_idle(address);
    }
    if (leaving != nullptr) {
        cut_off(*leaving);
    }
}

// The newest stays.
bool HttpServer::implementation::may_be_cut_off(const client& one, const std::string* address) const
{
    return !one.b_cut_off && &one != &m_clients.back() && (address == nullptr || one.address == *address);
}

// Of those that have not sent their request, the oldest when it has had time for that. Otherwise any one: then nobody
// can be sure to displace a client whose request is still on its way.
client* HttpServer::implementation::find_silent(const std::string* address)
{
    const auto now = steady_clock::now();
    client* found = nullptr;
    std::size_t count = 0;
    for (client& each : m_clients) {
        if (each.b_asked || !may_be_cut_off(each, address)) {
            continue;
        }
        if (count == 0 && now - each.since >= m_limits.time_to_ask) {
            return &each;
        }
        ++count;
        if (m_random() % count == 0) {
            found = &each;
        }
    }
    return found;
}

// Of those that have asked, the one that has taken nothing for longest.
client* HttpServer::implementation::find_idle(const std::string* address)
{
    const auto now = steady_clock::now();
    client* found = nullptr;
    for (client& each : m_clients) {
        if (each.b_asked && may_be_cut_off(each, address)) {
            each.note_taken(now);
            if (found == nullptr || each.taken_at < found->taken_at) {
                found = &each;
            }
        }
    }
    return found;
}

// Cuts off who has had the time that there is for a request or an answer.
void HttpServer::implementation::sweep()
{
    const auto now = steady_clock::now();
    for (client& each : m_clients) {
        if (each.b_cut_off) {
            continue;
        }
        if (each.b_asked) {
            each.note_taken(now);
        }
        if (now - each.taken_at > m_limits.idle || now - each.since > m_limits.longest_answer) {
            cut_off(each);
        }
    }
    m_moments.drop_old();
    // What many clients have needed goes back to the system.
    if (m_clients.empty() && m_moments.is_empty()) {
        malloc_trim(0);
    }
}

client* HttpServer::implementation::client_of(MHD_Connection* connection)
{
    return static_cast<client*>(
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
}

void HttpServer::implementation::on_connection(void* self, MHD_Connection* connection, void** context,
                                               MHD_ConnectionNotificationCode what)
{
    std::list<client>& clients = static_cast<implementation*>(self)->m_clients;
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
        const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        try {
            *context = &clients.emplace_back(
                socket, MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr);
        } catch (const std::exception&) {
            reset_connection(socket);
        }
    } else if (*context != nullptr) {
        // What has arrived and was not read would end the answer by a reset.
        const auto* const gone = static_cast<const client*>(*context);
        recv(gone->socket, nullptr, 1U << 20U, MSG_DONTWAIT | MSG_TRUNC);
        clients.remove_if([&](const client& each) { return &each == gone; });
    }
}

void* HttpServer::implementation::on_target(void*, const char* target, MHD_Connection* connection)
{
    // As it was sent; the library's own decoding would end it at an encoded NUL.
    if (client* const asking = client_of(connection); asking != nullptr) {
        try {
            asking->target = target;
        } catch (const std::exception&) {
            cut_off(*asking);
        }
    }
    return nullptr;
}

ssize_t HttpServer::implementation::read_answer(void* of_client, std::uint64_t, char* bytes, std::size_t room)
{
    client& asking = *static_cast<client*>(of_client);
    try {
        if (asking.answer) {
            const std::size_t count = asking.answer->read(bytes, room);
            if (count > 0) {
                return static_cast<ssize_t>(count);
            }
            if (asking.answer->is_whole()) {
                return MHD_CONTENT_READER_END_OF_STREAM;
            }
            cut_off(asking);
        }
    } catch (const std::exception&) {
        cut_off(asking);
    }
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

namespace {

MHD_Result send(MHD_Connection* connection, MHD_Response* response, unsigned int status, const char* type)
{
    if (response == nullptr) {
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    }
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result send_text(MHD_Connection* connection, unsigned int status, std::string_view text,
                     const char* type = plain_type)
{
    // Copied.
    void* const bytes = const_cast<char*>(text.data());
    return send(connection, MHD_create_response_from_buffer(text.size(), bytes, MHD_RESPMEM_MUST_COPY), status, type);
}

// What counts in a request's head; a field may be there more than once.
struct head_fields
{
    explicit head_fields(MHD_Connection* connection)
    {
        const auto add = [](void* to, MHD_ValueKind, const char* key, const char* value) {
            static_cast<head_fields*>(to)->add(key, value != nullptr ? value : "");
            return MHD_YES;
        };
        MHD_get_connection_values(connection, MHD_HEADER_KIND, add, this);
    }
    void add(const char* key, std::string_view value)
    {
        if (strcasecmp(key, MHD_HTTP_HEADER_HOST) == 0) {
            hosts.emplace_back(value);
        } else if (strcasecmp(key, MHD_HTTP_HEADER_CONTENT_LENGTH) == 0) {
            b_body = b_body || value.find_first_not_of('0') != std::string_view::npos;
        } else if (strcasecmp(key, MHD_HTTP_HEADER_TRANSFER_ENCODING) == 0) {
            b_body = true;
        }
    }

    std::vector<std::string> hosts;
    bool b_body = false;
};

} // namespace

MHD_Result HttpServer::implementation::on_request(void* self, MHD_Connection* connection, const char*,
                                                  const char* method, const char* version, const char*, std::size_t*,
                                                  void**)
{
    client* const asking = client_of(connection);
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

MHD_Result HttpServer::implementation::answer(MHD_Connection* connection, client& asking, std::string_view method,
                                              std::string_view version)
{
    const bool b_head = method == MHD_HTTP_METHOD_HEAD;
    head_fields fields(connection);
    if (fields.b_body) {
        return send_text(connection, MHD_HTTP_CONTENT_TOO_LARGE, "a request with a body is not served\n");
    }
    if (method != MHD_HTTP_METHOD_GET && !b_head) {
        return send_text(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD are served\n");
    }
    if (MHD_get_connection_info(connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE)->header_size > longest_head) {
        return send_text(connection, MHD_HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE, "the request is too long\n");
    }
    const std::optional<HttpTarget> target = parse_http_target(asking.target);
    std::vector<std::string>& hosts = fields.hosts;
    if (!target || hosts.size() > 1 || (hosts.empty() && version == MHD_HTTP_VERSION_1_1)) {
        return send_text(connection, MHD_HTTP_BAD_REQUEST, "not a request for a path of one host\n");
    }
    if (target->host) {
        hosts.push_back(*target->host);
    }
    // A request without a host does not come from a browser.
    if (!is_host_allowed(hosts)) {
        return send_text(connection, MHD_HTTP_FORBIDDEN, "not a name of this server; see kavstat serve --allow-host\n");
    }
    RouteContext context{m_moments};
    return send_answer(connection, asking, b_head, answer_to({b_head, *target}, context));
}

bool HttpServer::implementation::is_host_allowed(const std::vector<std::string>& hosts) const
{
    return !m_address.is_loopback() || std::all_of(hosts.begin(), hosts.end(), [this](const std::string& host) {
        return is_own_host(host, m_allowed_hosts);
    });
}

MHD_Result HttpServer::implementation::send_answer(MHD_Connection* connection, client& asking, bool b_head,
                                                   HttpAnswer made)
{
    if (!made.make) {
        return send_text(connection, made.status, made.text, made.type);
    }
    const unsigned int status = made.status;
    const char* const type = made.type;
    if (!b_head) {
        asking.answer = std::make_unique<body_on_its_way>(std::move(made));
    }
    MHD_Response* const response =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, piece_size, &read_answer, &asking, nullptr);
    if (b_head && response != nullptr) {
        // The library would end a body in chunks that is not there.
        MHD_set_response_options(response, MHD_RF_HTTP_1_0_COMPATIBLE_STRICT, MHD_RO_END);
    }
    return send(connection, response, status, type);
}

HttpServer::HttpServer() : m_impl(std::make_unique<implementation>())
{}

HttpServer::~HttpServer() = default;

bool HttpServer::start(const ListenAddress& address, const HttpLimits& limits,
                       const std::vector<std::string>& allowed_hosts, std::string& reason)
{
    return m_impl->start(address, limits, allowed_hosts, reason);
}

const ListenAddress& HttpServer::address() const
{
    return m_impl->address();
}

} // namespace kavstat
