// An engine whose figures stand still and whose peers have names that mean harm, for tests of the page:
//     page_engine PEERS
// Publishes under the name in KAV_STAT_SEGMENT, says "ready", and ends with SIGTERM.
#include "support/engine_fixture.h"
#include "support/engine_shapes.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

namespace {

constexpr const char* harmful_names[] = {
    "<img src=x onerror=alert(1)>",
    "</script><script>alert(2)</script>",
    "<!--<script>",
    "\x01\x1b[31m\xff\xfe\"'&",
    "\xe2\x80\xaegnp.exe",
    "branch-6.example.net",
};

} // namespace

int main(int argc, char** argv)
{
    const int peers = argc > 1 ? std::atoi(argv[1]) : 6;
    RE_stat_limits limits;
    limits.peers = peers;
    limits.connections = peers;
    RE_stat_writer engine;
    if (engine.create(limits, std::time(nullptr) - 3600) != 0) {
        std::fprintf(stderr, "cannot publish\n");
        return 1;
    }
    set_engine_figures(engine, [](int id) { return 1000 + id; });
    for (int number = 1; number <= peers; ++number) {
        RE_stat_peer_header header = peer_header_of(static_cast<std::uint32_t>(number));
        const char* const name = harmful_names[static_cast<std::size_t>(number - 1) % std::size(harmful_names)];
        std::strncpy(header.m_peer_host_name, name, sizeof header.m_peer_host_name - 1);
        const int peer = engine.add_peer(number, header);
        const auto identity = static_cast<std::uint32_t>(number);
        const int connection =
            engine.open_conn(peer, conn_header_of(identity), so_header_of(identity), std::time(nullptr));
        add_conn_figures(engine, connection, [number](int id) { return 1000LL * number * number + id; });
    }
    engine.publish();
    std::puts("ready");
    std::fflush(stdout);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int signal = 0;
    sigwait(&signals, &signal);
    return 0;
}
