// The smallest engine that viewers can report on: one peer, one connection, one message per second. Build it with
//     c++ -std=c++20 minimal_engine.cpp $(pkg-config --cflags --libs kav_core)
// After an installation from source into /usr/local, run `ldconfig` once as root. With another prefix, set
// PKG_CONFIG_PATH=PREFIX/lib/pkgconfig to build it, and LD_LIBRARY_PATH=PREFIX/lib to run it.
// Run it, and look at it with `exec_show_stats_kav global-info` and `exec_show_stats_kav conn last`. Ctrl-C ends it.
// Its statistics disappear with it, however it ends.
#include <RE_stat_writer.h>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

static volatile std::sig_atomic_t b_stop = 0;

int main()
{
    std::signal(SIGINT, [](int) { b_stop = 1; });
    std::signal(SIGTERM, [](int) { b_stop = 1; });

    RE_stat_writer statistics;
    if (const int error = statistics.create(RE_stat_limits{}, std::time(nullptr)); error != 0) {
        std::fprintf(stderr, "minimal_engine: %s\n", std::strerror(-error)); // EBUSY: another engine is running
        return 1;
    }
    statistics.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    RE_stat_peer_header device{};
    device.m_b_update_from_active_conn = 1; // 0 would mean that the peer is disconnected
    const int peer = statistics.add_peer(1, device);

    RE_stat_conn_header ends{};
    ends.m_conn_id = 1;
    ends.m_client_ip = 0xc000020a; // 192.0.2.10, with the first octet in the highest byte
    ends.m_client_port = 40000;
    ends.m_server_ip = 0xc6336414; // 198.51.100.20
    ends.m_server_port = 80;
    SO_stat_conn_header transport{};
    transport.m_comp_type = 3; // connections without a compression type are not listed
    const int conn = statistics.open_conn(peer, ends, transport, std::time(nullptr));
    statistics.publish(); // from now on viewers can read the statistics

    while (b_stop == 0) {
        // Each call counts for the connection, its peer and the engine.
        statistics.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 1);
        statistics.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
        statistics.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 250);
        if (!statistics.is_in_place()) {
            statistics.publish_again(); // the segment has been removed
        }
        sleep(1);
    }
    statistics.close_conn(conn, std::time(nullptr));
    return 0;
}
