// A small engine with known figures: two peers, four connections, three NACKs, two applications, two bypassed servers.
// Its timestamps are either fixed or so old that the ages in reports do not change during a test.
#pragma once

#include "RE_stat_writer.h"

#include <ctime>

class small_engine
{
public:
    // Publishes under the name in KAV_STAT_SEGMENT. Throws when that fails.
    explicit small_engine(unsigned int mode = 0644);

    RE_stat_writer& writer() { return m_writer; }
    void stop() { m_writer.close(); }

    // The connection of peer 1 from 192.0.2.10:50000 to 198.51.100.20:80. It encodes and has been open since 2011.
    int encoding_conn() const { return m_encoding_conn; }

private:
    void publish_config();
    void publish_globals();
    void publish_peers();
    void publish_conns();
    void publish_encoding(int conn);
    void publish_decoding(int conn);
    void publish_rest();

    RE_stat_writer m_writer;
    int m_encoding_conn = -1;
};

RE_stat_conn_header conn_ends(int conn_id, std::uint32_t client_ip, std::uint16_t client_port, std::uint32_t server_ip,
                              std::uint16_t server_port);
SO_stat_conn_header transport(unsigned int comp_type);
RE_kav_peer_id peer_identity(int number);

constexpr std::time_t day = 86400;
constexpr std::time_t hour = 3600;
// 03/13/2011 07:06:40
constexpr std::time_t once_upon_a_time = 1300000000;
// Their ages read "5d3h" and "45d" for at least half an hour.
std::time_t five_days_ago();
std::time_t forty_five_days_ago();
