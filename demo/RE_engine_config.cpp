#include "RE_engine_config.h"

#include "RE_encoder.h"
#include "RE_peer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

RE_chunk_sizes configured_chunk_sizes()
{
    return {};
}

namespace {

// Signatures are kept of what was sent and of what was received, each up to the size of the cache.
std::uint64_t hash_table_bytes(const RE_options& options)
{
    const std::uint64_t most_chunks = (std::uint64_t{options.cache_mb} << 20U) / configured_chunk_sizes().min;
    return 2 * most_chunks * RE_signature_fifo::bytes_per_chunk();
}

} // namespace

// What this engine has no use for stays 0: it has no persistent LZ, no wait queue and no limits on its ack queue.
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
    std::FILE* const file = std::fopen(path.c_str(), "we");
    if (file == nullptr) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    }
    std::fprintf(file, "peers %d\n", options.peers);
    std::fprintf(file, "connection_slots %d\n", options.slots);
    std::fprintf(file, "cache_mb %u\n", options.cache_mb);
    std::fprintf(file, "signature_bits %u\n", options.signature_bits);
    std::fprintf(file, "chunk_min %u\n", chunk_sizes.min);
    std::fprintf(file, "chunk_anchor_distance %u\n", chunk_sizes.anchor_distance);
    std::fprintf(file, "chunk_max %u\n", chunk_sizes.max);
    std::fprintf(file, "lz_level %d\n", options.lz_level);
    std::fprintf(file, "lz_min_size %u\n", lz_min_size);
    std::fprintf(file, "bypass_threshold_mb %u\n", options.bypass_threshold_mb);
    std::fprintf(file, "bypass_retry_seconds %u\n", options.bypass_retry);
    const bool b_failed = std::ferror(file) != 0;
    if (std::fclose(file) != 0 || b_failed) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    }
}
