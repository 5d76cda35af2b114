// The C interface: checks what C cannot, converts records, and turns exceptions and system errors into error codes.
#include "kav_core.h"

#include "RE_stat_error.h"
#include "RE_stat_image.h"
#include "RE_stat_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

struct kav_writer
{
    RE_stat_writer statistics;
};

namespace {

// Result of a function of the writer: 0 or a slot, or -errno.
int code_of_errno(int result)
{
    switch (result) {
    case -EINVAL:
        return KAV_ERROR_ARGUMENT;
    case -EBUSY:
        return KAV_ERROR_BUSY;
    case -ENOENT:
        return KAV_ERROR_NOT_FOUND;
    case -ENOMEM:
        return KAV_ERROR_MEMORY;
    case -EACCES:
    case -EPERM:
    case -EROFS:
        return KAV_ERROR_PERMISSION;
    case -ENOSPC:
        return KAV_ERROR_FULL;
    default:
        return result < 0 ? KAV_ERROR_SYSTEM : result;
    }
}

// Creating a segment needs space in a file system and finds folders, not slots and servers.
int code_of_creation(int result)
{
    switch (result) {
    case -ENOSPC:
    case -EDQUOT:
    case -EFBIG:
        return KAV_ERROR_SPACE;
    case -ENOENT:
        return KAV_ERROR_SYSTEM;
    default:
        return code_of_errno(result);
    }
}

// Result of a reader: an RE_stat_error when it is negative.
int code_of_saving(int result)
{
    switch (result) {
    case RE_STAT_ERR_PERMISSION:
        return KAV_ERROR_PERMISSION;
    case RE_STAT_ERR_NO_MEMORY:
        return KAV_ERROR_MEMORY;
    case RE_STAT_ERR_NO_SPACE:
        return KAV_ERROR_SPACE;
    case RE_STAT_ERR_NO_ENGINE:
    case RE_STAT_ERR_NOT_PUBLISHED:
        return KAV_ERROR_ARGUMENT;
    default:
        return result >= 0 ? 0 : result <= RE_STAT_ERR_NOT_OPEN ? KAV_ERROR_FILE : KAV_ERROR_SYSTEM;
    }
}

// Calls `work` with the writer's statistics.
template <typename Writer, typename Work>
int with(Writer* writer, Work work) noexcept
{
    if (writer == nullptr) {
        return KAV_ERROR_ARGUMENT;
    }
    try {
        return code_of_errno(work(writer->statistics));
    } catch (const std::bad_alloc&) {
        return KAV_ERROR_MEMORY;
    } catch (...) {
        return KAV_ERROR_SYSTEM;
    }
}

// Debug builds of the writer abort on an id that is out of range, so it is checked here.
template <typename Id, typename Work>
int with_id(kav_writer* writer, int id, Id count, Work work) noexcept
{
    return with(writer, [&](RE_stat_writer& statistics) {
        return is_id(id, count) ? work(statistics, static_cast<Id>(id)) : -EINVAL;
    });
}

// Copies what fits of a text, which may be null. `target` is zero and keeps a NUL at its end.
template <std::size_t Size>
void copy_text(char (&target)[Size], const char* text)
{
    if (text != nullptr) {
        std::memcpy(target, text, strnlen(text, Size - 1));
    }
}

RE_stat_peer_header header_of(const kav_peer& peer)
{
    RE_stat_peer_header header{};
    std::copy(std::begin(peer.context_id), std::end(peer.context_id), header.m_context_id.m_data);
    std::copy(std::begin(peer.mac_id), std::end(peer.mac_id), header.m_peer_mac_id.m_data);
    std::copy(std::begin(peer.kav_peer_id), std::end(peer.kav_peer_id), header.m_kav_peer_id.m_data);
    header.m_peer_ip = peer.ip;
    copy_text(header.m_peer_host_name, peer.host_name);
    header.m_b_outdated = peer.outdated ? 1 : 0;
    header.m_b_update_from_active_conn = peer.from_active_connection ? 1 : 0;
    return header;
}

constexpr unsigned int four_bits = 15;
constexpr unsigned int two_bits = 3;

bool is_valid(const kav_hints& hints)
{
    return hints.latency <= four_bits && hints.compression_off <= four_bits && hints.mode <= two_bits;
}

bool is_valid(const kav_transport& transport)
{
    return transport.type <= four_bits && transport.compression <= four_bits && transport.local_mode <= two_bits &&
           transport.remote_mode <= two_bits && transport.applied_mode <= two_bits && is_valid(transport.local_hints) &&
           is_valid(transport.remote_hints) && is_valid(transport.active_hints);
}

// The records hold these states as one byte of flags.
template <typename Flags>
Flags flags_of(std::uint8_t bits)
{
    static_assert(sizeof(Flags) == 1);
    Flags flags{};
    std::memcpy(&flags, &bits, 1);
    return flags;
}

SO_stat_kav_hints hints_of(const kav_hints& hints)
{
    SO_stat_kav_hints record{};
    record.m_latency = hints.latency & four_bits;
    record.m_comp_off = hints.compression_off & four_bits;
    record.m_re_mode_hint = hints.mode & two_bits;
    return record;
}

SO_stat_conn_header header_of(const kav_transport& transport)
{
    SO_stat_conn_header header{};
    header.m_conn_type = transport.type & four_bits;
    header.m_comp_type = transport.compression & four_bits;
    header.m_eot_state = flags_of<SO_stat_eot_state>(transport.end_of_traffic);
    header.m_ao_net_state = flags_of<SO_stat_net_state>(transport.application_socket);
    header.m_wan_net_state = flags_of<SO_stat_net_state>(transport.wan_socket);
    header.m_local_hints = hints_of(transport.local_hints);
    header.m_remote_hints = hints_of(transport.remote_hints);
    header.m_active_hints = hints_of(transport.active_hints);
    header.m_local_cfg_kav_mode = transport.local_mode & two_bits;
    header.m_remote_cfg_kav_mode = transport.remote_mode & two_bits;
    header.m_applied_kav_mode = transport.applied_mode & two_bits;
    header.m_kav_mode_negotiated = transport.mode_negotiated ? 1 : 0;
    header.m_reset_code = transport.reset_code;
    header.m_class_id = transport.class_id;
    header.m_dscp = transport.dscp;
    header.m_wan_insert_ao_type = transport.wan_insert_type;
    header.m_wan_fd = transport.wan_descriptor;
    header.m_ao_fd = transport.application_descriptor;
    header.m_eot_remote_orig_bytes = transport.end_of_traffic_remote_bytes;
    header.m_eot_local_orig_bytes = transport.end_of_traffic_local_bytes;
    return header;
}

RE_stat_config_param config_of(const kav_configuration& from)
{
    RE_stat_config_param to{};
    std::copy(std::begin(from.own_mac_id), std::end(from.own_mac_id), to.m_own_mac_id.m_data);
    std::copy(std::begin(from.local_kav_peer_id), std::end(from.local_kav_peer_id), to.m_local_kav_peer_id.m_data);
    to.m_b_rep_accl_mode = from.replication_acceleration;
    to.m_comp_type = from.compression;
    to.m_max_peer_slots = from.max_peer_slots;
    to.m_max_con_cur_connection = from.max_current_connections;
    to.m_max_num_conn_slots = from.max_connection_slots;
    to.m_max_fan_out = from.max_fan_out;
    to.m_worker_threads_num = from.worker_threads;
    to.m_total_kav_diskspace_in_MB = from.total_disk_mb;
    to.m_total_kav_memory_in_MB = from.total_memory_mb;
    to.m_hash_table_memory_in_MB = from.hash_table_memory_mb;
    to.m_PLZ_memory_in_MB = from.plz_memory_mb;
    to.m_PLZ_buffer_q_size = from.plz_buffer_queue_size;
    to.m_total_WEQ_buffer_size_in_MB = from.total_weq_buffer_mb;
    to.m_cache_data_version = from.cache_data_version;
    to.m_ack_q_WEQ_cap_in_MB = from.ack_queue_weq_cap_mb;
    to.m_ack_q_disk_cap_in_MB = from.ack_queue_disk_cap_mb;
    to.m_wait_q_cap_in_MB = from.wait_queue_cap_mb;
    to.m_max_sig_block_num = from.max_signature_blocks;
    to.m_max_data_unit_num = from.max_data_units;
    to.m_sig_read_pool_size = from.signature_read_pool_size;
    to.m_data_read_pool_size = from.data_read_pool_size;
    to.m_anchor_distance = from.anchor_distance;
    to.m_section_size = from.section_size;
    to.m_avg_chunk_size = from.average_chunk_size;
    to.m_min_chunk_size = from.min_chunk_size;
    to.m_b_partial_lookup_on = from.partial_lookup;
    to.m_write_tshld = from.write_threshold;
    to.m_cold_pass_tshld = from.cold_pass_threshold;
    copy_text(to.m_lz_algorithm, from.lz_algorithm);
    to.m_lz_min_msg_size = from.lz_min_message_size;
    to.m_lz_memLevel = from.lz_memory_level;
    to.m_lz_windowsBits = from.lz_window_bits;
    to.m_lz_comprsLevel = from.lz_compression_level;
    to.m_lz_adaptive = from.lz_adaptive;
    to.m_lz_adaptive_thres = from.lz_adaptive_threshold;
    to.m_lz_adaptive_use_entropy = from.lz_adaptive_uses_entropy;
    to.m_big_msg_checksum = from.big_message_checksum;
    to.m_plz_high_watermark = from.plz_high_watermark;
    to.m_plz_low_watermark = from.plz_low_watermark;
    to.m_b_plz_enabled = from.plz_enabled;
    to.m_iov_block_size = from.iov_block_size;
    to.m_kav_auto_bypass_threshold = from.auto_bypass_threshold_mb;
    return to;
}

} // namespace

const char* kav_error_text(int error)
{
    switch (error) {
    case KAV_ERROR_ARGUMENT:
        return "an argument is missing or out of range";
    case KAV_ERROR_BUSY:
        return "another engine uses the name";
    case KAV_ERROR_FULL:
        return "no slot is free";
    case KAV_ERROR_NOT_FOUND:
        return "the server is not in the auto-bypass table";
    case KAV_ERROR_MEMORY:
        return "not enough memory";
    case KAV_ERROR_PERMISSION:
        return "permission denied";
    case KAV_ERROR_SPACE:
        return "no space left";
    case KAV_ERROR_FILE:
        return "the statistics cannot be saved in this file";
    case KAV_ERROR_SYSTEM:
        return "system error";
    default:
        return error < 0 ? "unknown error" : "no error";
    }
}

int kav_writer_create(kav_writer** writer, const kav_limits* limits, int64_t start_time, unsigned int mode)
{
    if (writer == nullptr) {
        return KAV_ERROR_ARGUMENT;
    }
    *writer = nullptr;
    try {
        auto created = std::make_unique<kav_writer>();
        RE_stat_limits capacity;
        if (limits != nullptr) {
            capacity = {limits->peers, limits->connections, limits->applications, limits->nacks};
        }
        const int error = code_of_creation(created->statistics.create(capacity, start_time, mode));
        if (error == 0) {
            *writer = created.release();
        }
        return error;
    } catch (const std::bad_alloc&) {
        return KAV_ERROR_MEMORY;
    } catch (...) {
        return KAV_ERROR_SYSTEM;
    }
}

void kav_writer_close(kav_writer* writer)
{
    delete writer;
}

int kav_writer_publish(kav_writer* writer)
{
    return with(writer, [](RE_stat_writer& statistics) { return statistics.publish(); });
}

int kav_writer_is_in_place(const kav_writer* writer)
{
    return with(writer, [](const RE_stat_writer& statistics) { return statistics.is_in_place() ? 1 : 0; });
}

int kav_writer_publish_again(kav_writer* writer)
{
    if (writer == nullptr) {
        return KAV_ERROR_ARGUMENT;
    }
    try {
        return code_of_creation(writer->statistics.publish_again());
    } catch (...) {
        return KAV_ERROR_MEMORY;
    }
}

int kav_writer_save(kav_writer* writer, const char* path)
{
    if (writer == nullptr || path == nullptr) {
        return KAV_ERROR_ARGUMENT;
    }
    try {
        const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
        if (reader == nullptr) {
            return KAV_ERROR_MEMORY;
        }
        const int error = reader->open();
        return code_of_saving(error != 0 ? error : reader->save_stats_binary(path));
    } catch (...) {
        return KAV_ERROR_MEMORY;
    }
}

int kav_writer_set_configuration(kav_writer* writer, const kav_configuration* configuration)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        return configuration != nullptr ? statistics.set_config(config_of(*configuration)) : -EINVAL;
    });
}

int kav_writer_add_global(kav_writer* writer, int id, int64_t delta)
{
    return with_id(writer, id, RE_STAT_GLOBAL_ID_MAX, [&](RE_stat_writer& statistics, RE_stat_global_id counter) {
        return statistics.add_global(counter, delta);
    });
}

int kav_writer_set_global(kav_writer* writer, int id, int64_t value)
{
    return with_id(writer, id, RE_STAT_GLOBAL_ID_MAX, [&](RE_stat_writer& statistics, RE_stat_global_id counter) {
        return statistics.set_global(counter, value);
    });
}

int kav_writer_add_peer(kav_writer* writer, int32_t peer_id, const kav_peer* peer)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        return peer != nullptr ? statistics.add_peer(peer_id, header_of(*peer)) : -EINVAL;
    });
}

int kav_writer_update_peer(kav_writer* writer, int peer_slot, const kav_peer* peer)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        return peer != nullptr ? statistics.update_peer(peer_slot, header_of(*peer)) : -EINVAL;
    });
}

int kav_writer_remove_peer(kav_writer* writer, int peer_slot)
{
    return with(writer, [&](RE_stat_writer& statistics) { return statistics.remove_peer(peer_slot); });
}

int kav_writer_add_peer_stat(kav_writer* writer, int peer_slot, int id, int64_t delta)
{
    return with_id(writer, id, RE_STAT_PEER_ID_MAX, [&](RE_stat_writer& statistics, RE_stat_peer_id counter) {
        return statistics.add_peer_stat(peer_slot, counter, delta);
    });
}

int kav_writer_set_peer_stat(kav_writer* writer, int peer_slot, int id, int64_t value)
{
    return with_id(writer, id, RE_STAT_PEER_ID_MAX, [&](RE_stat_writer& statistics, RE_stat_peer_id counter) {
        return statistics.set_peer_stat(peer_slot, counter, value);
    });
}

int kav_writer_open_connection(kav_writer* writer, int peer_slot, const kav_connection* connection,
                               const kav_transport* transport, int64_t open_time)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        if (connection == nullptr || transport == nullptr || !is_valid(*transport)) {
            return -EINVAL;
        }
        const RE_stat_conn_header header = {connection->id, connection->client_ip, connection->server_ip,
                                            connection->client_port, connection->server_port};
        return statistics.open_conn(peer_slot, header, header_of(*transport), open_time);
    });
}

int kav_writer_update_transport(kav_writer* writer, int connection_slot, const kav_transport* transport)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        return transport != nullptr && is_valid(*transport)
                   ? statistics.update_conn_so_header(connection_slot, header_of(*transport))
                   : -EINVAL;
    });
}

int kav_writer_close_connection(kav_writer* writer, int connection_slot, int64_t close_time)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        return close_time >= 1 ? statistics.close_conn(connection_slot, close_time) : -EINVAL;
    });
}

int kav_writer_release_connection(kav_writer* writer, int connection_slot)
{
    return with(writer, [&](RE_stat_writer& statistics) { return statistics.release_conn(connection_slot); });
}

int kav_writer_add_connection_stat(kav_writer* writer, int connection_slot, int id, int64_t delta)
{
    return with_id(writer, id, RE_STAT_CONN_ID_MAX, [&](RE_stat_writer& statistics, RE_stat_conn_id counter) {
        return statistics.add_conn_stat(connection_slot, counter, delta);
    });
}

int kav_writer_set_connection_stat(kav_writer* writer, int connection_slot, int id, int64_t value)
{
    return with_id(writer, id, RE_STAT_CONN_ID_MAX, [&](RE_stat_writer& statistics, RE_stat_conn_id counter) {
        return statistics.set_conn_stat(connection_slot, counter, value);
    });
}

int kav_writer_find_or_add_application(kav_writer* writer, const kav_application* application)
{
    constexpr int handles = 1024;
    return with(writer, [&](RE_stat_writer& statistics) {
        if (application == nullptr || application->handle >= handles) {
            return -EINVAL;
        }
        RE_kav_peer_id_t peer{};
        std::copy(std::begin(application->kav_peer_id), std::end(application->kav_peer_id), peer.m_data);
        RE_stat_app_header key{};
        key.set(peer, application->port, application->is_source_port);
        key.set_policy_engine_handler(application->handle);
        return statistics.find_or_add_app(key);
    });
}

int kav_writer_add_application_stat(kav_writer* writer, int application_slot, int id, uint32_t delta)
{
    return with_id(writer, id, RE_STAT_APP_ID_MAX, [&](RE_stat_writer& statistics, RE_stat_app_id counter) {
        return statistics.add_app_stat(application_slot, counter, delta);
    });
}

int kav_writer_add_application_connections(kav_writer* writer, int application_slot, uint32_t opened, uint32_t closed)
{
    return with(writer,
                [&](RE_stat_writer& statistics) { return statistics.add_app_conns(application_slot, opened, closed); });
}

int kav_writer_add_nack(kav_writer* writer, const kav_nack* nack)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        if (nack == nullptr || nack->type < KAV_NACK_AT_RECEIVER || nack->type > KAV_NACK_AT_SENDER ||
            nack->reason < KAV_NACK_NO_REASON || nack->reason > KAV_NACK_CACHE_NOT_READY) {
            return -EINVAL;
        }
        return statistics.add_nack(
            {nack->time, nack->type, nack->reason, nack->peer_id, nack->connection_id, nack->message});
    });
}

int kav_writer_set_bypass(kav_writer* writer, const kav_bypass* bypass)
{
    return with(writer, [&](RE_stat_writer& statistics) {
        if (bypass == nullptr || bypass->reason < KAV_BYPASS_LOW_COMPRESSION ||
            bypass->reason > KAV_BYPASS_REPEATED_NACKS) {
            return -EINVAL;
        }
        return statistics.set_bypass({bypass->server_ip, bypass->server_port, RE_bypass_reason{bypass->reason},
                                      bypass->since, bypass->next_attempt, bypass->bytes, bypass->connections});
    });
}

int kav_writer_clear_bypass(kav_writer* writer, uint32_t server_ip, uint16_t server_port)
{
    return with(writer, [&](RE_stat_writer& statistics) { return statistics.clear_bypass(server_ip, server_port); });
}
