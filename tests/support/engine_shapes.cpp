#include "support/engine_shapes.h"

#include "support/own_segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

RE_stat_limits limits_for(const sample_size& wanted)
{
    RE_stat_limits limits;
    limits.peers = std::max(wanted.peers, 1);
    limits.connections = std::max(wanted.conns, 1);
    limits.applications = std::max(wanted.apps, 1);
    limits.nacks = std::max(wanted.nacks, 1);
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

void open_sample_conn(RE_stat_writer& writer, int number, int peers)
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
        so_header.m_comp_type = 0; // the engine leaves it alone
    }
    so_header.m_wan_fd = 7 + number;
    const int slot = writer.open_conn(number % peers, header, so_header, sample_start + number);
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        writer.add_conn_stat(slot, RE_stat_conn_id{id}, 1000LL * (number + 1) + id);
    }
    if (number % 2 != 0) {
        writer.close_conn(slot, sample_start + 600 + number);
    }
}

void add_sample_app(RE_stat_writer& writer, int number)
{
    RE_stat_app_header key{};
    key.set(RE_kav_peer_id(sample_peer(number % 2).m_kav_peer_id), static_cast<std::uint16_t>(80 + number), false);
    const int slot = writer.find_or_add_app(key);
    for (int id = 0; id < RE_STAT_APP_ID_MAX; ++id) {
        writer.add_app_stat(slot, RE_stat_app_id{id}, static_cast<std::uint32_t>(5000 * (number + 1) + id));
    }
    writer.add_app_conns(slot, 3, 1);
}

std::unique_ptr<RE_stat_reader> open_live_reader()
{
    std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
    return reader->open() == 0 ? std::move(reader) : nullptr;
}

std::vector<unsigned char> bytes_of(int descriptor)
{
    struct stat status
    {
    };
    if (fstat(descriptor, &status) != 0) {
        return {};
    }
    std::vector<unsigned char> bytes(static_cast<std::size_t>(status.st_size));
    return pread(descriptor, bytes.data(), bytes.size(), 0) == status.st_size ? bytes : std::vector<unsigned char>{};
}

} // namespace

int publish_sample(RE_stat_writer& writer, const sample_size& wanted)
{
    if (const int error = writer.create(limits_for(wanted), sample_start)) {
        return error;
    }
    writer.set_config(sample_config());
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        writer.set_global(RE_stat_global_id{id}, 7LL * id);
    }
    writer.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    for (int at = 0; at < wanted.peers; ++at) {
        const int slot = writer.add_peer(11 + at, sample_peer(at));
        for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
            writer.set_peer_stat(slot, RE_stat_peer_id{id}, 500LL * (at + 1) + id);
        }
    }
    for (int at = 0; at < wanted.conns && wanted.peers > 0; ++at) {
        open_sample_conn(writer, at, wanted.peers);
    }
    // As an engine had it that did not leave these two to the writer: there is a file of it.
    for (const RE_stat_global_id id :
         {RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER, RE_STAT_GLOBAL_ID_MAX_NUM_CONNECTED_PEER}) {
        writer.set_global(RE_stat_global_id{id}, 7LL * id);
    }
    for (int at = 0; at < wanted.apps; ++at) {
        add_sample_app(writer, at);
    }
    for (int at = 0; at < wanted.nacks; ++at) {
        writer.add_nack({static_cast<std::int32_t>(sample_start + at), static_cast<std::int16_t>(at % 2),
                         static_cast<std::int16_t>(at % 5), 11, 100 + at, at});
    }
    for (int at = 0; at < wanted.bypassed; ++at) {
        writer.set_bypass({0x0a030000U + static_cast<unsigned int>(at), 443, RE_bypass_reason::low_compression,
                           sample_start, at == 0 ? 0 : sample_now, 123456, 7});
    }
    writer.publish();
    return 0;
}

std::vector<unsigned char> saved_sample(const sample_size& wanted)
{
    RE_stat_writer writer;
    if (publish_sample(writer, wanted) != 0) {
        return {};
    }
    const auto reader = open_live_reader();
    char path[] = "/tmp/kav_sample.XXXXXX";
    const int descriptor = mkostemp(path, O_CLOEXEC);
    if (reader == nullptr || descriptor < 0) {
        return {};
    }
    close(descriptor);
    std::vector<unsigned char> bytes;
    if (reader->save_stats_binary(path) == 0) {
        const int saved = open(path, O_RDONLY | O_CLOEXEC); // by its name, as saving has put a new file there
        bytes = bytes_of(saved);
        close(saved);
    }
    unlink(path);
    return bytes;
}

std::vector<unsigned char> live_sample(const sample_size& wanted)
{
    RE_stat_writer writer;
    if (publish_sample(writer, wanted) != 0) {
        return {};
    }
    const std::string path = own_segment_path(std::getenv("KAV_STAT_SEGMENT"));
    const int segment = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::vector<unsigned char> bytes = bytes_of(segment);
    close(segment);
    return bytes;
}

std::string use_own_segment()
{
    const std::string name = "kav_torture." + std::to_string(getpid());
    setenv("KAV_STAT_SEGMENT", name.c_str(), 1);
    return name;
}
