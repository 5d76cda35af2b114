// Measures the memory that kavstat's server needs for the last 15 minutes of an engine whose peers and applications all
// move: every counter of every peer and of its connection grows each second, by as much as 1 MB or 100 of what it
// counts.
//
//   bench_live_history [PEERS APPLICATIONS [MINUTES]]     1,000 peers, no applications and 16 minutes unless given
//
// Prints private memory after each minute, then the processor time of the server and the rows that it has kept.
#include "support/child_program.h"
#include "support/engine_shapes.h"
#include "support/files.h"
#include "support/http_client.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>

namespace {

// The sum of private pages, as smaps_rollup counts them, in MB.
double private_megabytes(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
    long kilobytes = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("Private_")) {
            kilobytes += std::atol(line.substr(line.find(':') + 1).c_str());
        }
    }
    return static_cast<double>(kilobytes) / 1024;
}

double processor_seconds(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string all;
    std::getline(file, all);
    std::istringstream fields(all.substr(all.rfind(')') + 2));
    std::string field;
    long ticks = 0;
    constexpr int user_time = 12; // counted from the state on
    for (int place = 1; fields >> field && place <= user_time + 1; ++place) {
        ticks += place >= user_time ? std::atol(field.c_str()) : 0;
    }
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

class MovingEngine
{
public:
    MovingEngine(int peers, int apps) : m_peers(peers), m_apps(apps)
    {
        publish_zeros(m_writer, peers, peers, apps, std::time(nullptr) - 3600);
        move();
    }

    void move()
    {
        for (int peer = 0; peer < m_peers; ++peer) {
            for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
                m_writer.add_peer_stat(peer, RE_stat_peer_id{id}, some(100));
            }
            add_conn_figures(m_writer, peer, [this](int id) {
                const bool b_bytes = id == RE_STAT_CONN_ID_ENCODE_IN_BYTES || id == RE_STAT_CONN_ID_ENCODE_OUT_BYTES ||
                                     id == RE_STAT_CONN_ID_DECODE_IN_BYTES || id == RE_STAT_CONN_ID_DECODE_OUT_BYTES;
                return some(b_bytes ? 1000000 : 100);
            });
        }
        for (int app = 0; app < m_apps; ++app) {
            add_app_figures(m_writer, app, [this](int) { return some(1000); });
        }
    }

private:
    long long some(long long most) { return static_cast<long long>(m_random() % static_cast<unsigned>(most)) + 1; }

    RE_stat_writer m_writer;
    int m_peers; // each with one connection
    int m_apps;
    std::minstd_rand m_random;
};

} // namespace

int main(int argc, char** argv)
{
    const int peers = argc > 2 ? std::atoi(argv[1]) : 1000;
    const int apps = argc > 2 ? std::atoi(argv[2]) : 0;
    const int minutes = argc > 3 ? std::atoi(argv[3]) : 16;
    use_own_segment();
    MovingEngine engine(peers, apps);
    child_program server(built_program("kavstat"), {"serve", "--listen", "127.0.0.1:0"});
    const std::string line = server.read_line().value_or("");
    const int port = std::atoi(line.substr(line.rfind(':') + 1).c_str());
    const auto begin = std::chrono::steady_clock::now();
    double most = 0;
    for (int second = 1; second <= minutes * 60; ++second) {
        std::this_thread::sleep_until(begin + std::chrono::seconds(second));
        engine.move();
        most = std::max(most, private_megabytes(server.pid()));
        if (second % 60 == 0) {
            std::printf("%3d min  private memory %6.1f MB, at most %6.1f MB\n", second / 60,
                        private_megabytes(server.pid()), most);
            std::fflush(stdout);
        }
    }
    const std::string rows = get(port, "/api/v1/history?points=5000").body;
    std::printf("processor time %.2f s; rows of the engine %td\n", processor_seconds(server.pid()),
                std::count(rows.begin(), rows.end(), '[') - 2);
    return 0;
}
