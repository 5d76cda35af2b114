#include "RE_engine_config.h"

#include "RE_encoder.h"
#include "RE_output_file.h"
#include "RE_peer.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

RE_chunk_sizes configured_chunk_sizes()
{
    return {};
}

namespace {

// The engine keeps signatures of sent and of received data, each up to the size of the cache.
std::uint64_t hash_table_bytes(const RE_options& options)
{
    const std::uint64_t most_chunks = (std::uint64_t{options.cache_mb} << 20U) / configured_chunk_sizes().min;
    return 2 * most_chunks * RE_signature_fifo::bytes_per_chunk();
}

} // namespace

// Settings that this engine does not use stay 0: it has no persistent LZ, no wait queue and no limits on its ack queue.
RE_stat_config_param make_config(const RE_options& options)
{
    const RE_chunk_sizes chunk_sizes = configured_chunk_sizes();
    RE_stat_config_param config{};
    config.m_own_mac_id = own_mac_id();
    config.m_local_kav_peer_id = own_kav_peer_id();
    config.m_comp_type = 3; // redundancy elimination and LZ
    config.m_max_peer_slots = options.peers;
    config.m_max_con_cur_connection = std::min(options.slots, options.concurrency + options.keep_open);
    config.m_max_num_conn_slots = options.slots;
    config.m_max_fan_out = options.peers;
    config.m_worker_threads_num = 1;
    config.m_total_kav_diskspace_in_MB = static_cast<std::int32_t>(options.cache_mb);
    config.m_hash_table_memory_in_MB = static_cast<std::int32_t>(hash_table_bytes(options) >> 20U);
    config.m_cache_data_version = 1;
    config.m_anchor_distance = static_cast<std::int32_t>(chunk_sizes.anchor_distance);
    config.m_avg_chunk_size = static_cast<std::int32_t>(chunk_sizes.min + chunk_sizes.anchor_distance);
    config.m_min_chunk_size = static_cast<std::int32_t>(chunk_sizes.min);
    std::snprintf(config.m_lz_algorithm, sizeof config.m_lz_algorithm, "zlib");
    config.m_lz_min_msg_size = static_cast<std::int32_t>(lz_min_size);
    config.m_lz_memLevel = RE_lz::memory_level;
    config.m_lz_windowsBits = RE_lz::window_bits;
    config.m_lz_comprsLevel = options.lz_level;
    config.m_big_msg_checksum = true;
    config.m_kav_auto_bypass_threshold = static_cast<std::int32_t>(options.bypass_threshold_mb);
    return config;
}

void write_config_file(const std::string& path, const RE_options& options)
{
    const RE_chunk_sizes chunk_sizes = configured_chunk_sizes();
    std::ostringstream text;
    text << "peers " << options.peers << "\nconnection_slots " << options.slots << "\ncache_mb " << options.cache_mb
         << "\nsignature_bits " << options.signature_bits << "\nchunk_min " << chunk_sizes.min
         << "\nchunk_anchor_distance " << chunk_sizes.anchor_distance << "\nchunk_max " << chunk_sizes.max
         << "\nlz_level " << options.lz_level << "\nlz_min_size " << lz_min_size << "\nbypass_threshold_mb "
         << options.bypass_threshold_mb << "\nbypass_retry_seconds " << options.bypass_retry << '\n';
    replace_file(path, text.str());
}
