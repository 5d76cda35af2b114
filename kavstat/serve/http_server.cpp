#include "serve/http_server.h"

#include "serve/http_request.h"
#include "serve/moments.h"
#include "serve/negotiation.h"
#include "serve/passwords.h"
#include "serve/routes.h"
#include "serve/tls.h"

#include <microhttpd.h>

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <list>
#include <numeric>
#include <optional>
#include <random>
#include <thread>
#include <utility>

namespace kavstat {

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr std::size_t piece_size = 16384;        // of a document, sent at once to one client
constexpr std::size_t made_at_once = 4096;       // of such a piece
constexpr std::size_t connection_memory = 24576; // for a request's head, and then for a piece being sent
constexpr std::size_t longest_head = 16384;
constexpr int send_buffer = 65536;                              // the kernel's, for one client
constexpr std::size_t spare_descriptors = 4;                    // for reading the engine's statistics
constexpr std::size_t most_text_bytes = std::size_t{32} << 20U; // of answers that are kept as whole texts
constexpr std::chrono::milliseconds sweep_interval{100};
constexpr std::chrono::milliseconds accept_pause{100};

// Resets a connection, so that the client cannot mistake this for the regular end of an answer. Data that was not sent
// yet is dropped. The descriptor stays open; the library notices the end and closes it.
void reset_connection(int socket)
{
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    if (connect(socket, &nobody, sizeof nobody) != 0) {
        // A Unix socket has no reset. Its client notices that the last chunk of the answer is missing.
        shutdown(socket, SHUT_RDWR);
    }
}

// The part that counts as one address: an IPv6 client usually has 2^64 addresses. An IPv4 client of a socket for both
// families has one. Clients of a Unix socket count by their user.
std::string address_key(int socket, const sockaddr* address)
{
    if (address->sa_family == AF_UNIX) {
        ucred peer{};
        socklen_t size = sizeof peer;
        getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size);
        return "user " + std::to_string(peer.uid);
    }
    if (address->sa_family == AF_INET6) {
        const in6_addr& v6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
        const auto* const bytes = reinterpret_cast<const char*>(&v6);
        return IN6_IS_ADDR_V4MAPPED(&v6) != 0 ? std::string(bytes + 12, 4) : std::string(bytes, 8);
    }
    return {reinterpret_cast<const char*>(&reinterpret_cast<const sockaddr_in*>(address)->sin_addr), 4};
}

// Compresses a text in pieces. Needs 70 KB: a small window is enough, because lines of metrics and JSON resemble the
// lines directly before them.
class gzip_stream
{
public:
    gzip_stream()
    {
        if (deflateInit2(&m_stream, level, Z_DEFLATED, window_bits + gzip_form, memory_level, Z_DEFAULT_STRATEGY) !=
            Z_OK) {
            throw std::bad_alloc();
        }
    }
    ~gzip_stream() { deflateEnd(&m_stream); }
    gzip_stream(const gzip_stream&) = delete;
    gzip_stream& operator=(const gzip_stream&) = delete;

    struct Progress
    {
        std::size_t taken; // of the text
        std::size_t given;
    };
    // text: empty at the end of the document.
    Progress write(std::string_view text, char* bytes, std::size_t room)
    {
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        m_stream.avail_in = static_cast<uInt>(text.size());
        m_stream.next_out = reinterpret_cast<Bytef*>(bytes);
        m_stream.avail_out = static_cast<uInt>(room);
        m_b_finished = deflate(&m_stream, text.empty() ? Z_FINISH : Z_NO_FLUSH) == Z_STREAM_END;
        return {text.size() - m_stream.avail_in, room - m_stream.avail_out};
    }
    bool is_finished() const { return m_b_finished; }

private:
    static constexpr int level = 4;
    static constexpr int window_bits = 13;
    static constexpr int memory_level = 6;
    static constexpr int gzip_form = 16; // added to the window's bits

    z_stream m_stream{};
    bool m_b_finished = false;
};

// A body that is made or compressed while it is sent.
class body_on_its_way : private Sink
{
public:
    body_on_its_way(HttpAnswer answer, ContentCoding coding)
        : m_answer(std::move(answer)), m_rest(m_answer.lasting_text.empty() ? m_answer.text : m_answer.lasting_text)
    {
        if (m_answer.make) {
            m_document = m_answer.make(m_output);
        }
        if (coding == ContentCoding::gzip) {
            m_gzip = std::make_unique<gzip_stream>();
        }
    }

    // The moment that it reads from, or null.
    const Moment* moment() const { return m_answer.moment.get(); }

    // Whether all statistics that were read are valid: they may have been truncated during the read.
    bool is_whole() const { return m_output.is_ok(); }

    // Writes at most `room` bytes and returns their number; 0 at the end.
    std::size_t read(char* bytes, std::size_t room)
    {
        std::size_t count = 0;
        if (m_gzip == nullptr) {
            for (make_rest(); count < room && !m_rest.empty(); make_rest()) {
                const std::size_t part = std::min(room - count, m_rest.size());
                std::memcpy(bytes + count, m_rest.data(), part);
                m_rest.remove_prefix(part);
                count += part;
            }
            return count;
        }
        // Other clients wait while the text for these bytes is made, and it may be a hundred times as long.
        std::size_t compressed = 0;
        while (count < room && !m_gzip->is_finished() && (count == 0 || compressed < text_at_once)) {
            make_rest();
            const auto [taken, given] = m_gzip->write(m_rest, bytes + count, room - count);
            m_rest.remove_prefix(taken);
            compressed += taken;
            count += given;
        }
        return count;
    }

private:
    static constexpr std::size_t text_at_once = 65536;

    // Makes more text when everything made so far was taken. The rest stays empty at the end of the document.
    void make_rest()
    {
        if (!m_rest.empty()) {
            return;
        }
        m_piece.clear();
        while (m_piece.empty() && m_b_more) {
            m_b_more = m_document.write_more();
        }
        if (!m_b_more) {
            m_output.flush();
        }
        m_rest = m_piece;
    }

    bool take(std::string_view bytes) override
    {
        m_piece.append(bytes);
        return true;
    }

    HttpAnswer m_answer;
    std::unique_ptr<gzip_stream> m_gzip; // null when the body is not compressed
    std::string_view m_rest;             // was made and has not been taken
    std::string m_piece;
    Output m_output{*this, made_at_once};
    Document m_document;
    bool m_b_more = true;
};

struct client
{
    client(MHD_Connection* its_connection, int its_socket, const sockaddr* its_address, std::uint64_t its_number)
        : connection(its_connection), socket(its_socket), number(its_number), b_unix(its_address->sa_family == AF_UNIX),
          address(address_key(its_socket, its_address))
    {}

    // Updates how much the client's system has acknowledged.
    void note_taken(steady_clock::time_point now)
    {
        std::uint64_t taken_now = 0;
        auto at = now;
        if (b_unix) {
            int waiting = 0;
            ioctl(socket, SIOCOUTQ, &waiting);
            taken_now = made - static_cast<std::uint64_t>(waiting);
        } else {
            tcp_info info{};
            socklen_t size = sizeof info;
            getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
            taken_now = info.tcpi_bytes_acked;
            at = now - std::chrono::milliseconds(info.tcpi_last_ack_recv);
        }
        if (taken != taken_now) {
            taken = taken_now;
            taken_at = at;
        }
    }

    MHD_Connection* connection;
    int socket;
    std::uint64_t number; // of this server, and never used again
    bool b_unix;
    std::string address;
    steady_clock::time_point since = steady_clock::now();
    std::string target;   // of the request
    bool b_asked = false; // the request is complete
    bool b_cut_off = false;
    bool b_waiting = false;      // until its password is verified
    std::optional<bool> verdict; // whether the password is correct
    std::unique_ptr<body_on_its_way> answer;
    std::size_t text_bytes = 0; // of the answer, when it is a text
    std::uint64_t made = 0;     // of the answer
    std::uint64_t taken = 0;    // of the answer, and when that last became more
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
    static client* client_of(MHD_Connection* connection);

    // Serving.
    bool find_room();
    void serve();
    int milliseconds_to_sample() const;
    void take_sample();
    void accept_client();
    void make_room();
    void cut_off_one(const std::string* address);
    bool may_be_cut_off(const client& one, const std::string* address) const;
    client* find_silent(const std::string* address);
    client* find_idle(const std::string* address);
    void sweep();

    // Authentication.
    bool start_library(std::string& reason);
    std::optional<MHD_Result> authenticate(MHD_Connection* connection, client& asking, bool b_body,
                                           const std::string& authorization);
    void take_verdicts();
    static int on_certificate(gnutls_session_t session, const gnutls_datum_t* authorities, int authority_count,
                              const gnutls_pk_algorithm_t* algorithms, int algorithm_count, gnutls_pcert_st** chain,
                              unsigned int* length, gnutls_privkey_t* key);

    // Answering.
    MHD_Result answer(MHD_Connection* connection, client& asking, std::string_view method, std::string_view version);
    bool is_host_allowed(const std::vector<std::string>& hosts) const;
    MHD_Result send_answer(MHD_Connection* connection, client& asking, bool b_head, ContentCoding coding,
                           HttpAnswer made);
    std::size_t text_bytes() const;

    ListenAddress m_address;
    HttpLimits m_limits;
    std::vector<std::string> m_allowed_hosts;
    int m_listener = -1;
    int m_stop = -1;     // an event descriptor
    int m_verdicts = -1; // an event descriptor: passwords were verified
    WebConfig m_web;
    std::function<void(const std::string&)> m_report;
    std::unique_ptr<TlsCertificate> m_certificate; // null without TLS
    std::unique_ptr<PasswordChecker> m_passwords;  // null without users
    std::uint64_t m_next_number = 0;
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

    LiveHistory m_live;
    ConnectionRates m_connection_rates;
    std::string m_history;
    RouteContext m_context{m_moments, m_live, m_connection_rates,
                           m_history, {},     static_cast<double>(std::time(nullptr))};

    static void cut_off(client& one)
    {
        one.b_cut_off = true;
        one.answer.reset();
        reset_connection(one.socket);
        resume(one);
    }

    // Lets the library continue with a client that it has suspended.
    static void resume(client& one)
    {
        if (std::exchange(one.b_waiting, false)) {
            MHD_resume_connection(one.connection);
        }
    }
};

HttpServer::implementation::~implementation()
{
    if (m_thread.joinable()) {
        eventfd_write(m_stop, 1);
        m_thread.join();
    }
    m_passwords.reset();
    if (m_daemon != nullptr) {
        for (client& each : m_clients) {
            cut_off(each);
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
    m_limits = limits;
    m_allowed_hosts = options.allowed_hosts;
    m_context.metrics = options.metrics;
    m_history = options.history;
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
    if (!find_room()) {
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
            b_to_sweep = !m_clients.empty() || !m_moments.is_empty();
            next_sweep = steady_clock::now() + sweep_interval;
        }
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
        !m_clients.empty()) {
        make_room();
    }
}

// Cuts off a client when all places are taken, or when the newest client's address has too many.
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

// Cuts off a client of that address, or of any address when null.
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

// Returns a client that has not sent its request: the oldest when it had time for that. Otherwise a random one, so that
// an attacker cannot choose to displace a client whose request is still being sent.
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

// Returns the client that has sent its request and has read nothing for the longest time.
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

// Cuts off clients that exceed the time limits for a request or an answer.
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
        // On a busy machine a password takes longer to verify than a client may be idle.
        const bool b_idle = !each.b_waiting && now - each.taken_at > m_limits.idle;
        if (b_idle || now - each.since > m_limits.longest_answer) {
            cut_off(each);
        }
    }
    m_moments.drop_old();
    // Returns the memory that many clients have used to the system.
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
    auto& server = *static_cast<implementation*>(self);
    std::list<client>& clients = server.m_clients;
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
        const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        try {
            *context = &clients.emplace_back(
                connection, socket,
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr,
                server.m_next_number++);
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
        const auto* const gone = static_cast<const client*>(*context);
        recv(gone->socket, nullptr, 1U << 20U, MSG_DONTWAIT | MSG_TRUNC);
        clients.remove_if([&](const client& each) { return &each == gone; });
    }
}

void* HttpServer::implementation::on_target(void*, const char* target, MHD_Connection* connection)
{
    // The undecoded target: the library's own decoding would truncate it at an encoded NUL.
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
                asking.made += count;
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

// made: provides the head of the answer; its text is ignored.
MHD_Result send(MHD_Connection* connection, MHD_Response* response, const HttpAnswer& made,
                ContentCoding coding = ContentCoding::identity)
{
    if (response == nullptr) {
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, made.type);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    MHD_add_response_header(response, MHD_HTTP_HEADER_VARY, "Accept, Accept-Encoding");
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, "Content-Security-Policy", made.policy);
    MHD_add_response_header(response, "Cross-Origin-Resource-Policy", "same-origin");
    MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (coding == ContentCoding::gzip) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip");
    }
    if (made.status == MHD_HTTP_UNAUTHORIZED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                                "Basic realm=\"kavstat\", charset=\"UTF-8\"");
    }
    if (made.status == MHD_HTTP_TOO_MANY_REQUESTS) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_RETRY_AFTER, "1");
    }
    if (made.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    }
    const MHD_Result result = MHD_queue_response(connection, made.status, response);
    MHD_destroy_response(response);
    return result;
}

// made: an answer with a text.
MHD_Result send_text(MHD_Connection* connection, const HttpAnswer& made)
{
    const bool b_lasting = !made.lasting_text.empty();
    const std::string_view text = b_lasting ? made.lasting_text : made.text;
    void* const bytes = const_cast<char*>(text.data());
    return send(
        connection,
        MHD_create_response_from_buffer(text.size(), bytes, b_lasting ? MHD_RESPMEM_PERSISTENT : MHD_RESPMEM_MUST_COPY),
        made);
}

MHD_Result refuse(MHD_Connection* connection, unsigned int status, std::string reason)
{
    return send_text(connection, text_answer(status, std::move(reason)));
}

// The fields of a request's head that the server uses. Fields may be repeated.
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
        } else if (strcasecmp(key, MHD_HTTP_HEADER_AUTHORIZATION) == 0) {
            // Several of them are ambiguous and count as invalid.
            authorization = authorization ? "" : value;
        } else if (strcasecmp(key, MHD_HTTP_HEADER_ACCEPT) == 0) {
            accept.append(accept.empty() ? "" : ",").append(value);
        } else if (strcasecmp(key, MHD_HTTP_HEADER_ACCEPT_ENCODING) == 0) {
            accept_encoding.append(accept_encoding.empty() ? "" : ",").append(value);
        }
    }

    std::optional<std::string> authorization;
    std::string accept;
    std::string accept_encoding;
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
std::optional<MHD_Result> HttpServer::implementation::authenticate(MHD_Connection* connection, client& asking,
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
        for (client& each : m_clients) {
            if (each.number == verdict.asker && !each.b_cut_off) {
                each.verdict = verdict.b_right;
                resume(each);
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

MHD_Result HttpServer::implementation::send_answer(MHD_Connection* connection, client& asking, bool b_head,
                                                   ContentCoding coding, HttpAnswer made)
{
    asking.text_bytes = made.text.size();
    if (text_bytes() > most_text_bytes) {
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
        asking.answer = std::make_unique<body_on_its_way>(std::move(made), coding);
    }
    MHD_Response* const response =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, piece_size, &read_answer, &asking, nullptr);
    if (b_head && response != nullptr) {
        // Otherwise the library would send the end of a chunked body after the head.
        MHD_set_response_options(response, MHD_RF_HTTP_1_0_COMPATIBLE_STRICT, MHD_RO_END);
    }
    return send(connection, response, head, coding);
}

// The size of all texts that are being sent.
std::size_t HttpServer::implementation::text_bytes() const
{
    return std::accumulate(m_clients.begin(), m_clients.end(), std::size_t{0},
                           [](std::size_t sum, const client& each) { return sum + each.text_bytes; });
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
