#include "support/engine_shapes.h"

#include "support/files.h"
#include "support/own_segment.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

// A counter's figure. first_release: how many counters of its family the first release had.
long long figure(const engine_shape& shape, int id, int first_release, long long value)
{
    return shape.b_first_release && id >= first_release ? 0 : value;
}

RE_stat_limits limits_for(const engine_shape& shape)
{
    RE_stat_limits limits;
    limits.peers = std::max(shape.peers, 1);
    limits.connections = std::max(shape.conns, 1);
    limits.applications = std::max(shape.apps, 1);
    limits.nacks = std::max(shape.nacks, 1);
    return limits;
}

RE_stat_config_param sample_config()
{
    RE_stat_config_param config{};
    config.m_own_mac_id = {{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}};
    config.m_comp_type = 3;
    config.m_max_con_cur_connection = 6000;
    config.m_max_fan_out = 50;
    config.m_avg_chunk_size = 256;
    config.m_b_plz_enabled = true;
    std::memcpy(config.m_lz_algorithm, "zlib", sizeof "zlib");
    config.m_kav_auto_bypass_threshold = 64;
    return config;
}

RE_stat_peer_header sample_peer(int number)
{
    const auto byte = static_cast<unsigned char>(number);
    RE_stat_peer_header header{};
    const unsigned char mac[6] = {0x02, 0, 0, 0, 0, byte};
    header.m_peer_mac_id = RE_mac_id(mac);
    std::memcpy(header.m_kav_peer_id.m_data, mac, sizeof mac);
    header.m_kav_peer_id.m_data[15] = byte;
    header.m_context_id.m_data[0] = byte;
    header.m_peer_ip = 0x0a000000U + static_cast<unsigned int>(number);
    std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "branch-%d", number);
    if (number % 2 != 0) {
        header.m_b_outdated = 1;
    }
    return header;
}

void open_sample_conn(RE_stat_writer& writer, int number, const engine_shape& shape)
{
    RE_stat_conn_header header{};
    header.m_conn_id = 100 + number;
    header.m_client_ip = 0x0a010000U + static_cast<unsigned int>(number);
    header.m_server_ip = 0x0a020000U + static_cast<unsigned int>(number);
    header.m_client_port = static_cast<std::uint16_t>(40000 + number);
    header.m_server_port = 80;
    SO_stat_conn_header so_header{};
    so_header.m_comp_type = 3;
    if (number % 4 == 3) {
        so_header.m_comp_type = 0; // the engine does not process this connection
    }
    so_header.m_wan_fd = 7 + number;
    const int slot = writer.open_conn(number % shape.peers, header, so_header, sample_start + number);
    add_conn_figures(writer, slot, [&](int id) { return figure(shape, id, 166, 1000LL * (number + 1) + id); });
    if (number % 2 != 0) {
        writer.close_conn(slot, sample_start + 600 + number);
    }
}

void add_sample_app(RE_stat_writer& writer, int number, const engine_shape& shape)
{
    RE_stat_app_header key{};
    key.set(RE_kav_peer_id(sample_peer(number % 2).m_kav_peer_id), static_cast<std::uint16_t>(80 + number), false);
    const int slot = writer.find_or_add_app(key);
    add_app_figures(writer, slot, [&](int id) { return figure(shape, id, 18, 5000LL * (number + 1) + id); });
    writer.add_app_conns(slot, 3, 1);
}

std::vector<unsigned char> image_of(const std::string& path)
{
    const std::string bytes = bytes_of_file(path);
    return {bytes.begin(), bytes.end()};
}

} // namespace

int publish_sample(RE_stat_writer& writer, const engine_shape& shape)
{
    if (const int error = writer.create(limits_for(shape), sample_start)) {
        return error;
    }
    writer.set_config(sample_config());
    set_engine_figures(writer, [&](int id) { return figure(shape, id, 384, 7LL * id); });
    writer.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    for (int at = 0; at < shape.peers; ++at) {
        const int slot = writer.add_peer(11 + at, sample_peer(at));
        set_peer_figures(writer, slot, [&](int id) { return figure(shape, id, 42, 500LL * (at + 1) + id); });
    }
    for (int at = 0; at < shape.conns && shape.peers > 0; ++at) {
        open_sample_conn(writer, at, shape);
    }
    // Set explicitly, because there is a saved file of an engine that set these two counters itself.
    for (const RE_stat_global_id id :
         {RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER, RE_STAT_GLOBAL_ID_MAX_NUM_CONNECTED_PEER}) {
        writer.set_global(RE_stat_global_id{id}, 7LL * id);
    }
    for (int at = 0; at < shape.apps; ++at) {
        add_sample_app(writer, at, shape);
    }
    for (int at = 0; at < shape.nacks; ++at) {
        writer.add_nack({static_cast<std::int32_t>(sample_start + at), static_cast<std::int16_t>(at % 2),
                         static_cast<std::int16_t>(at % 5), 11, 100 + at, at});
    }
    for (int at = 0; at < shape.bypassed; ++at) {
        writer.set_bypass({0x0a030000U + static_cast<unsigned int>(at), 443, RE_bypass_reason::low_compression,
                           sample_start, at == 0 ? 0 : sample_now, 123456, 7});
    }
    writer.publish();
    return 0;
}

void publish_zeros(RE_stat_writer& writer, int peers, int conns, int apps, std::time_t start)
{
    RE_stat_limits limits;
    limits.peers = peers;
    limits.connections = std::max(conns, 1);
    limits.applications = std::max(apps, 1);
    if (const int error = writer.create(limits, start)) {
        std::fprintf(stderr, "the statistics cannot be published: %s\n", std::strerror(-error));
        std::exit(1);
    }
    for (int peer = 0; peer < peers; ++peer) {
        RE_stat_peer_header header{};
        std::memcpy(header.m_kav_peer_id.m_data, &peer, sizeof peer);
        std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "branch-%d.example.net", peer);
        writer.add_peer(peer, header);
    }
    for (int conn = 0; conn < conns; ++conn) {
        RE_stat_conn_header header{};
        header.m_conn_id = conn;
        writer.open_conn(conn % peers, header, {}, start);
    }
    for (int app = 0; app < apps; ++app) {
        const int peer = app % peers;
        RE_kav_peer_id identity{};
        std::memcpy(identity.m_data, &peer, sizeof peer);
        RE_stat_app_header header{};
        header.set(identity, static_cast<std::uint16_t>(80 + app / peers), false);
        writer.find_or_add_app(header);
    }
    writer.publish();
}

std::vector<unsigned char> saved_sample(const engine_shape& shape)
{
    RE_stat_writer writer;
    if (publish_sample(writer, shape) != 0) {
        return {};
    }
    const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
    const scratch_folder folder(disk());
    const std::string path = folder.file("saved");
    const bool b_saved = reader->open() == 0 && reader->save_stats_binary(path.c_str()) == 0;
    return b_saved ? image_of(path) : std::vector<unsigned char>{};
}

std::vector<unsigned char> live_sample(const engine_shape& shape)
{
    RE_stat_writer writer;
    if (publish_sample(writer, shape) != 0) {
        return {};
    }
    return image_of(own_segment_path(std::getenv("KAV_STAT_SEGMENT")));
}

std::string use_own_segment()
{
    const std::string name = "kav_torture." + std::to_string(getpid());
    setenv("KAV_STAT_SEGMENT", name.c_str(), 1);
    return name;
}

long long every_counter::engine_value(int id)
{
    return id == RE_STAT_GLOBAL_ID_CACHE_STATE ? 2LL : 1000003LL * (id + 1);
}

long long every_counter::peer_value(int peer, int id)
{
    return 700001LL * (id + 1) + 13LL * peer;
}

long long every_counter::conn_value(int conn, int id)
{
    return 30011LL * (id + 1) + 7LL * conn;
}

std::uint32_t every_counter::app_value(int app, int id)
{
    return static_cast<std::uint32_t>(200003 * (id + 1) + 11 * app);
}

void every_counter::restart()
{
    m_writer.close();
    publish(sample_start + 500);
}

namespace {

RE_kav_peer_id identity_of(int peer)
{
    RE_kav_peer_id identity{};
    for (std::size_t at = 0; at < sizeof identity.m_data; ++at) {
        identity.m_data[at] = static_cast<unsigned char>(16 * (peer + 1) + static_cast<int>(at));
    }
    return identity;
}

} // namespace

void every_counter::publish(std::time_t start)
{
    if (m_writer.create({8, 32, 8, 16}, start) != 0) {
        throw std::runtime_error("no segment to be had");
    }
    RE_stat_config_param config{};
    config.m_comp_type = 3;
    config.m_max_fan_out = 50;
    config.m_b_plz_enabled = true;
    std::strcpy(config.m_lz_algorithm, "zlib");
    const RE_kav_peer_id own = identity_of(9);
    std::memcpy(config.m_local_kav_peer_id.m_data, own.m_data, sizeof own.m_data);
    m_writer.set_config(config);

    for (int peer = 0; peer < peers; ++peer) {
        RE_stat_peer_header header{};
        header.m_kav_peer_id = identity_of(peer);
        std::memcpy(header.m_peer_mac_id.m_data, header.m_kav_peer_id.m_data, sizeof header.m_peer_mac_id.m_data);
        header.m_context_id.m_data[0] = static_cast<unsigned char>(peer + 1);
        header.m_peer_ip = 0xcb007101U + static_cast<std::uint32_t>(peer);
        std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "branch-%d", peer);
        header.m_b_outdated = peer == 2 ? 1 : 0;
        m_writer.add_peer(peer + 10, header);
    }
    for (int conn = 0; conn < conns; ++conn) {
        RE_stat_conn_header header{};
        header.m_conn_id = 100 + conn;
        header.m_client_ip = 0xc0000201U + static_cast<std::uint32_t>(conn);
        header.m_client_port = static_cast<std::uint16_t>(50000 + conn);
        header.m_server_ip = 0xc6336401U;
        header.m_server_port = 80;
        SO_stat_conn_header transport{};
        transport.m_comp_type = 3;
        const int slot = m_writer.open_conn(conn % peers, header, transport, sample_start + conn);
        add_conn_figures(m_writer, slot, [&](int id) { return conn_value(conn, id); });
        if (conn == 3) {
            m_writer.close_conn(slot, sample_start + 100);
        }
    }
    // After the connections, because opening them changes counters.
    set_engine_figures(m_writer, engine_value);
    for (int peer = 0; peer < peers; ++peer) {
        set_peer_figures(m_writer, peer, [&](int id) { return peer_value(peer, id); });
    }
    for (int app = 0; app < apps; ++app) {
        RE_stat_app_header header{};
        header.set(identity_of(app % peers), static_cast<std::uint16_t>(80 + app), app == 1);
        const int slot = m_writer.find_or_add_app(header);
        add_app_figures(m_writer, slot, [&](int id) { return app_value(app, id); });
        m_writer.add_app_conns(slot, static_cast<std::uint32_t>(app + 5), static_cast<std::uint32_t>(app + 2));
    }
    for (std::int16_t number = 0; number < 6; ++number) {
        m_writer.add_nack({static_cast<std::int32_t>(sample_start) + number, static_cast<std::int16_t>(number % 2),
                           number, 10 + number % 3, 100 + number, 40 + number});
    }
    m_writer.set_bypass(
        {0xc633641eU, 443, RE_bypass_reason::low_compression, sample_start, sample_start + 600, 123456, 7});
    m_writer.set_bypass({0xc633641fU, 22, RE_bypass_reason::configured, sample_start + 60, 0, 99, 1});
    m_writer.publish();
}
