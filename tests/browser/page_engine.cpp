// An engine whose figures stand still and whose peers have names that mean harm, for tests of the page:
//     page_engine PEERS [SEED]
// With a seed, names are random bytes and pieces of markup. The first peer has applications of ports that begin alike.
// Publishes under the name in KAV_STAT_SEGMENT, says "ready", and ends with SIGTERM.
#include "support/engine_fixture.h"
#include "support/engine_shapes.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <random>
#include <string>

namespace {

constexpr const char* harmful_names[] = {
    "<img src=x onerror=alert(1)>",
    "</script><script>alert(2)</script>",
    "<!--<script>",
    "\x01\x1b[31m\xff\xfe\"'&",
    "\xe2\x80\xaegnp.exe",
    "branch-6.example.net",
};

constexpr const char* pieces[] = {
    "<",
    ">",
    "</script>",
    "<script>alert(1)</script>",
    "<img src=x onerror=alert(1)>",
    "<svg onload=alert(1)>",
    "<!--",
    "-->",
    "]]>",
    "&lt;",
    "&#60;",
    "\"",
    "'",
    "`${1}`",
    "\\u003c",
    "javascript:",
    "\xe2\x80\xae",
    "\xe2\x80\xa8",
    "\x1b[2J",
    "\r\n",
    "\t",
    "\xff",
    "\xc0\xbc",
    "\xed\xa0\x80",
    "<style>*{display:none}</style>",
    "__proto__",
    "constructor",
    "#/peer/",
    "%3Cb%3E",
    "{{1}}",
};

std::string random_name(std::minstd_rand& random)
{
    std::string name;
    while (name.size() < 60) {
        if (random() % 3 == 0) {
            name += static_cast<char>(1 + random() % 255);
        } else {
            name += pieces[random() % std::size(pieces)];
        }
    }
    return name;
}

} // namespace

int main(int argc, char** argv)
{
    const int peers = argc > 1 ? std::atoi(argv[1]) : 6;
    const bool b_random = argc > 2;
    std::minstd_rand random(b_random ? static_cast<unsigned int>(std::atoi(argv[2])) : 1U);
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
        const std::string name = b_random
                                     ? random_name(random)
                                     : harmful_names[static_cast<std::size_t>(number - 1) % std::size(harmful_names)];
        name.copy(header.m_peer_host_name, sizeof header.m_peer_host_name - 1);
        const int peer = engine.add_peer(number, header);
        const auto identity = static_cast<std::uint32_t>(number);
        const int connection =
            engine.open_conn(peer, conn_header_of(identity), so_header_of(identity), std::time(nullptr));
        add_conn_figures(engine, connection, [number](int id) { return 1000LL * number * number * (id % 7 + 1) + id; });
    }
    for (const std::uint16_t port : std::initializer_list<std::uint16_t>{80, 8080, 44, 443, 4433}) {
        RE_stat_app_header key;
        key.reset();
        key.set(peer_header_of(1).m_kav_peer_id, port, false);
        add_app_figures(engine, engine.find_or_add_app(key), [port](int id) { return port + id; });
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
