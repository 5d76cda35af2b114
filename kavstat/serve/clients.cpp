#include "serve/clients.h"

#include <microhttpd.h>

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <numeric>
#include <utility>

namespace kavstat {

namespace {

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

} // namespace

void reset_connection(int socket)
{
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    if (connect(socket, &nobody, sizeof nobody) != 0) {
        // A Unix socket has no reset. Its client notices that the last chunk of the answer is missing.
        shutdown(socket, SHUT_RDWR);
    }
}

Client::Client(MHD_Connection* its_connection, int its_socket, const sockaddr* its_address, std::uint64_t its_number)
    : connection(its_connection), socket(its_socket), number(its_number), b_unix(its_address->sa_family == AF_UNIX),
      address(address_key(its_socket, its_address))
{}

void Client::cut_off()
{
    b_cut_off = true;
    answer.reset();
    reset_connection(socket);
    resume();
}

void Client::resume()
{
    if (std::exchange(b_waiting, false)) {
        MHD_resume_connection(connection);
    }
}

void Client::note_taken(steady_clock::time_point now)
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

void Clients::remove(const Client& gone)
{
    m_clients.remove_if([&](const Client& each) { return &each == &gone; });
}

void Clients::make_room()
{
    const std::string& address = m_clients.back().address;
    std::size_t all = 0;
    std::size_t of_address = 0;
    for (const Client& each : m_clients) {
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
void Clients::cut_off_one(const std::string* address)
{
    Client* leaving = find_silent(address);
    if (leaving == nullptr) {
        leaving = find_idle(address);
    }
    if (leaving != nullptr) {
        leaving->cut_off();
    }
}

// The newest stays.
bool Clients::may_be_cut_off(const Client& one, const std::string* address) const
{
    return !one.b_cut_off && &one != &m_clients.back() && (address == nullptr || one.address == *address);
}

// Returns a client that has not sent its request: the oldest when it had time for that. Otherwise a random one, so that
// an attacker cannot choose to displace a client whose request is still being sent.
Client* Clients::find_silent(const std::string* address)
{
    const auto now = steady_clock::now();
    Client* found = nullptr;
    std::size_t count = 0;
    for (Client& each : m_clients) {
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
Client* Clients::find_idle(const std::string* address)
{
    const auto now = steady_clock::now();
    Client* found = nullptr;
    for (Client& each : m_clients) {
        if (each.b_asked && may_be_cut_off(each, address)) {
            each.note_taken(now);
            if (found == nullptr || each.taken_at < found->taken_at) {
                found = &each;
            }
        }
    }
    return found;
}

void Clients::sweep()
{
    const auto now = steady_clock::now();
    for (Client& each : m_clients) {
        if (each.b_cut_off) {
            continue;
        }
        if (each.b_asked) {
            each.note_taken(now);
        }
        // On a busy machine a password takes longer to verify than a client may be idle.
        const bool b_idle = !each.b_waiting && now - each.taken_at > m_limits.idle;
        if (b_idle || now - each.since > m_limits.longest_answer) {
            each.cut_off();
        }
    }
}

std::size_t Clients::text_bytes() const
{
    return std::accumulate(m_clients.begin(), m_clients.end(), std::size_t{0},
                           [](std::size_t sum, const Client& each) { return sum + each.text_bytes; });
}

} // namespace kavstat
