// An engine whose statistics do not change, to measure programs that read them. Publishes as many entries as requested,
// runs a command that can read them, and withdraws. Exits with the command's status.
//
//     bench_engine [--peers N] [--conns N] [--slots N] [--nacks N] [--apps N] COMMAND [WORD...]
//
// Without options it has an ordinary size: 30 peers, 600 connections, 100 NACKs, 50 applications.
// --slots N  number of connection slots (default: the number of connections, at least 1,024)
#include "support/engine_shapes.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

namespace {

struct bench_shape
{
    int peers = 30;
    int conns = 600;
    int slots = 1024;
    int nacks = 100;
    int apps = 50;
};

// Reads the options into `shape`. Returns the index of the command's first word, or -1.
int parse(int argc, char** argv, bench_shape& shape)
{
    struct
    {
        const char* name;
        int* value;
    } const options[] = {
        {"--peers", &shape.peers}, {"--conns", &shape.conns}, {"--slots", &shape.slots},
        {"--nacks", &shape.nacks}, {"--apps", &shape.apps},
    };
    int at = 1;
    while (at + 1 < argc) {
        const auto* const option = std::find_if(std::begin(options), std::end(options), [&](const auto& known) {
            return std::strcmp(argv[at], known.name) == 0;
        });
        if (option == std::end(options)) {
            break;
        }
        *option->value = std::atoi(argv[at + 1]);
        at += 2;
    }
    shape.slots = std::max(shape.slots, shape.conns);
    return at < argc && argv[at][0] != '-' ? at : -1;
}

[[noreturn]] void fail(const char* what)
{
    std::perror(what);
    std::exit(1);
}

class published_engine
{
public:
    explicit published_engine(const bench_shape& shape) : m_shape(shape)
    {
        RE_stat_limits limits;
        limits.peers = std::max(shape.peers, 1);
        limits.connections = shape.slots;
        limits.applications = std::max(shape.apps, 1);
        limits.nacks = std::max(shape.nacks, 1);
        if (m_writer.create(limits, m_now) != 0) {
            fail("statistics segment");
        }
        m_writer.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
        for (int id = 1; id < RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS; ++id) {
            m_writer.set_global(RE_stat_global_id{id}, 1000LL * id);
        }
        add_peers();
        add_conns();
        add_nacks();
        add_apps();
        m_writer.publish();
    }

private:
    void add_peers()
    {
        for (int number = 0; number < m_shape.peers; ++number) {
            RE_stat_peer_header header{};
            std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "branch-%d", number);
            m_writer.add_peer(number, header);
        }
    }

    unsigned long long below(unsigned long long bound) { return m_random() % bound; }

    void add_conns()
    {
        for (int number = 0; number < m_shape.conns; ++number) {
            const bool b_first_peer = below(4) == 0;
            RE_stat_conn_header conn{};
            conn.m_conn_id = number + 1;
            conn.m_client_ip = static_cast<std::uint32_t>(0x0a000000U + below(1U << 24U));
            conn.m_server_ip = static_cast<std::uint32_t>(m_random());
            conn.m_client_port = static_cast<std::uint16_t>(1024U + below(64000U));
            conn.m_server_port = b_first_peer ? 443 : 8080;
            SO_stat_conn_header so_header{};
            so_header.m_comp_type = 3;
            const int others = std::max(m_shape.peers - 1, 1);
            const int peer = b_first_peer ? 1 : static_cast<int>(below(static_cast<unsigned long long>(others))) + 2;
            const auto opened_ago = static_cast<std::time_t>(below(40ULL * 86400ULL));
            const int slot = m_writer.open_conn(std::min(peer, m_shape.peers) - 1, conn, so_header, m_now - opened_ago);
            for (const int id : {RE_STAT_CONN_ID_ENCODE_IN_BYTES, RE_STAT_CONN_ID_ENCODE_OUT_BYTES,
                                 RE_STAT_CONN_ID_DECODE_IN_BYTES, RE_STAT_CONN_ID_DECODE_OUT_BYTES}) {
                m_writer.add_conn_stat(slot, RE_stat_conn_id{id},
                                       static_cast<long long>(m_random() >> (30U + below(30U))));
            }
            if (below(2) == 0) {
                m_writer.close_conn(
                    slot, m_now - static_cast<std::time_t>(below(static_cast<unsigned long long>(opened_ago) + 1)));
            }
        }
    }

    void add_nacks()
    {
        for (int number = 0; number < m_shape.nacks; ++number) {
            RE_stat_nack_header entry{};
            entry.m_time = static_cast<std::int32_t>(m_now - (m_shape.nacks - number) / 50);
            entry.m_type = static_cast<std::int16_t>(below(2));
            entry.m_reason = static_cast<std::int16_t>(below(5));
            entry.m_peer_id = 1;
            entry.m_msg_seq_no = number;
            entry.m_conn_id = number % std::max(m_shape.conns, 1) + 1;
            m_writer.add_nack(entry);
        }
    }

    void add_apps()
    {
        for (int number = 0; number < m_shape.apps; ++number) {
            RE_stat_app_header key{};
            key.set(RE_kav_peer_id{}, static_cast<std::uint16_t>(number + 1), false);
            const int slot = m_writer.find_or_add_app(key);
            add_app_figures(m_writer, slot, [this](int) { return below(1U << 20U); });
        }
    }

    bench_shape m_shape;
    std::time_t m_now = std::time(nullptr);
    std::mt19937_64 m_random{1}; // the same engine in every run
    RE_stat_writer m_writer;
};

} // namespace

int main(int argc, char** argv)
{
    bench_shape shape;
    const int command = parse(argc, argv, shape);
    if (command < 0) {
        std::fprintf(stderr, "usage: bench_engine [--peers N] [--conns N] [--slots N] [--nacks N] [--apps N] "
                             "COMMAND [WORD...]\n");
        return 2;
    }
    setenv("KAV_STAT_SEGMENT", ("kav_bench." + std::to_string(getpid())).c_str(), 1);
    const published_engine engine(shape);
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[command], argv + command);
        std::perror(argv[command]);
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        fail(argv[command]);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
