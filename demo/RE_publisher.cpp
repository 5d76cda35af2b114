#include "RE_publisher.h"

#include "RE_clock.h"
#include "RE_published_app.h"

#include <algorithm>
#include <cstdio>
#include <system_error>

namespace {

struct bypass_counters
{
    RE_bypass_cause cause;
    RE_stat_conn_id num_id;
    RE_stat_conn_id bytes_id;
};

constexpr std::array<bypass_counters, 14> bypass_table{{
    {RE_bypass_cause::low_compression, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP,
     RE_STAT_CONN_ID_ENCODE_BYPASS_LOW_COMP_BYTES},
    {RE_bypass_cause::remote_cache_not_ready, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_CACHE_NOT_READY,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_CACHE_NOT_READY_BYTES},
    {RE_bypass_cause::remote_disk_overloaded, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_OVERLD,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_OVERLD_BYTES},
    {RE_bypass_cause::low_memory, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM, RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES},
    {RE_bypass_cause::out_of_sync, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_OUT_OF_SYNC,
     RE_STAT_CONN_ID_ENCODE_BYPASS_OUT_OF_SYNC_BYTES},
    {RE_bypass_cause::remote_cache_not_compatible, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE,
     RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE_BYTES},
    {RE_bypass_cause::ack_queue_full, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_ACKQ_CAP_EXCEED,
     RE_STAT_CONN_ID_ENCODE_BYPASS_ACKQ_CAP_EXCEED_BYTES},
    {RE_bypass_cause::remote_wait_queue, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REMOTE_WAITQ,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REMOTE_WAITQ_BYTES},
    {RE_bypass_cause::disk_overloaded, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_OVERLD,
     RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_OVERLD_BYTES},
    {RE_bypass_cause::disk_error, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_IO_ERR,
     RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_IO_ERR_BYTES},
    {RE_bypass_cause::remote_disk_error, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_IO_ERR,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_IO_ERR_BYTES},
    {RE_bypass_cause::cache_not_ready, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_READY,
     RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_READY_BYTES},
    {RE_bypass_cause::peer_information_incorrect, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_INFO_INCORRECT,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_INFO_INCORRECT_BYTES},
    {RE_bypass_cause::no_redundancy_elimination, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_NON_KAV_COMP_TYPE,
     RE_STAT_CONN_ID_ENCODE_BYPASS_NON_KAV_COMP_TYPE_BYTES},
}};

struct nack_counters
{
    RE_nack_reason reason;
    RE_stat_conn_id nack_id;
    RE_stat_conn_id retransmission_id;
};

// An overloaded disk has no counter of its own and counts only in the total.
constexpr std::array<nack_counters, 3> nack_table{{
    {RE_nack_reason::checksum_collision, RE_STAT_CONN_ID_NUM_COL_NACK_MSGS, RE_STAT_CONN_ID_NUM_COL_RTX_MSGS},
    {RE_nack_reason::chunk_missed, RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS, RE_STAT_CONN_ID_NUM_MISS_RTX_MSGS},
    {RE_nack_reason::cache_not_ready, RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_NACK_MSGS,
     RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_RTX_MSGS},
}};

// Returns the counter for a size: 0-1K, 1K-5K, 5K-15K, 15K-25K, 25K-40K and above, starting at `first_id`.
RE_stat_conn_id size_counter(RE_stat_conn_id first_id, std::uint32_t size)
{
    constexpr std::uint32_t kilobyte = 1024;
    int id = first_id;
    for (const std::uint32_t last : {1U, 5U, 15U, 25U, 40U}) {
        id += size > last * kilobyte ? 1 : 0;
    }
    return RE_stat_conn_id{id};
}

SO_stat_conn_header so_header_of(const RE_application& application, bool b_bypassed)
{
    SO_stat_conn_header header{};
    header.m_comp_type = b_bypassed ? 0 : 3; // 3: redundancy elimination and LZ
    header.m_class_id = static_cast<std::uint8_t>(application.handler);
    // These connections have no sockets.
    header.m_wan_fd = -1;
    header.m_ao_fd = -1;
    return header;
}

} // namespace

long long RE_microseconds::add_ns(std::int64_t nanoseconds)
{
    const std::int64_t before = m_total_ns / ns_per_us;
    m_total_ns += nanoseconds;
    return m_total_ns / ns_per_us - before;
}

RE_publisher::RE_publisher(const RE_stat_limits& limits, unsigned int segment_mode, const RE_stat_config_param& config)
{
    const std::time_t now = wall_seconds();
    const int result = m_writer.create(limits, now, segment_mode);
    if (result == -EBUSY) {
        throw std::runtime_error("another engine publishes under this name; KAV_STAT_SEGMENT selects another name");
    }
    if (result != 0) {
        throw std::system_error(-result, std::generic_category(), "cannot publish statistics");
    }
    m_writer.set_config(config);
    m_writer.set_global(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME, now);
    m_writer.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_INIT_IN_PROGRESS);
    m_writer.publish();
}

RE_publisher::~RE_publisher() = default;

void RE_publisher::stay_in_place()
{
    if (!m_writer.is_in_place()) {
        m_writer.publish_again();
    }
}

void RE_publisher::add_peers(const std::vector<std::unique_ptr<RE_peer>>& peers)
{
    for (const std::unique_ptr<RE_peer>& peer : peers) {
        const int slot = m_writer.add_peer(peer->number(), peer->header());
        if (slot != peer->number() - 1) {
            throw std::runtime_error("no room for the statistics of all peers");
        }
        m_writer.set_peer_stat(slot, RE_STAT_PEER_ID_MAJOR_VERSION, peer->profile().major_version);
        m_writer.set_peer_stat(slot, RE_STAT_PEER_ID_MINOR_VERSION, peer->profile().minor_version);
        m_writer.set_peer_stat(slot, RE_STAT_PEER_ID_REMOTE_CACHE_CREATE_TIME,
                               peer->outbound().decoder().creation_time());
    }
    m_concurrency.resize(peers.size());
    m_peer_work.resize(peers.size());
}

void RE_publisher::open_conn(RE_published_conn& conn, const RE_peer& peer, const RE_application& application,
                             const RE_stat_conn_header& ends, bool b_bypassed)
{
    const int peer_slot = peer.number() - 1;
    const std::time_t now = wall_seconds();
    conn.conn_id = ends.m_conn_id;
    conn.peer_number = peer.number();
    conn.so_header = so_header_of(application, b_bypassed);
    conn.slot = m_writer.open_conn(peer_slot, ends, conn.so_header, now);
    if (conn.slot < 0 && !m_b_room_missed) {
        m_b_room_missed = true;
        std::fputs("kav_demo_engine: no room for the statistics of all connections\n", stderr);
    }
    m_writer.add_global(SO_STAT_TOTAL_CONN_NUM, 1);
    m_writer.add_global(SO_STAT_BYPASS_CONN_NUM, b_bypassed ? 1 : 0);
    count_open(peer_slot, now, 1);

    std::unique_ptr<RE_published_app>& app = m_apps[{application.handler, ends.m_server_port, peer.number()}];
    if (app == nullptr) {
        app = std::make_unique<RE_published_app>();
        app->key.set(peer.header().m_kav_peer_id, ends.m_server_port, false);
        app->key.set_policy_engine_handler(application.handler);
        app->slot = m_writer.find_or_add_app(app->key);
    }
    conn.app = app.get();
    ++app->opened;
    m_writer.add_app_conns(app->slot, 1, 0);
}

void RE_publisher::close_conn(RE_published_conn& conn, long long local_bytes, long long remote_bytes)
{
    const std::time_t now = wall_seconds();
    SO_stat_eot_state& end_of_traffic = conn.so_header.m_eot_state;
    end_of_traffic.m_req_send = 1;
    end_of_traffic.m_req_recv = 1;
    end_of_traffic.m_ack_send = 1;
    end_of_traffic.m_ack_recv = 1;
    conn.so_header.m_ao_net_state.m_close = 1;
    conn.so_header.m_wan_net_state.m_close = 1;
    conn.so_header.m_eot_local_orig_bytes = local_bytes;
    conn.so_header.m_eot_remote_orig_bytes = remote_bytes;
    m_writer.update_conn_so_header(conn.slot, conn.so_header);
    m_writer.close_conn(conn.slot, now);
    count_open(conn.peer_number - 1, now, -1);
    ++conn.app->closed;
    m_writer.add_app_conns(conn.app->slot, 0, 1);
}

void RE_publisher::on_ack_queue_stop(const RE_published_conn& conn)
{
    ++m_stopped_conns;
    m_writer.add_global(SO_STAT_ACK_Q_TOT_STOP, 1);
    add(conn, SO_STAT_AO_RD_STOP, 1);
}

void RE_publisher::on_ack_queue_start(const RE_published_conn& conn, std::int64_t stopped_ns)
{
    --m_stopped_conns;
    add(conn, SO_STAT_AO_STOP_TIME, stopped_ns / ns_per_us);
}

void RE_publisher::on_wire_stop(const RE_published_conn& conn, std::size_t waiting_bytes)
{
    const auto bytes = static_cast<long long>(waiting_bytes);
    add(conn, SO_STAT_WAN_WT_STOP, 1);
    add(conn, SO_STAT_WAN_W_PEND_NUM, 1);
    add(conn, SO_STAT_WAN_W_PEND_BYTES, bytes);
    m_writer.set_conn_stat(conn.slot, SO_STAT_WAN_W_PEND_MAX, bytes);
    m_writer.set_conn_stat(conn.slot, SO_STAT_WAN_W_PEND_SIZE, bytes);
}

void RE_publisher::on_wire_start(const RE_published_conn& conn, std::int64_t stopped_ns)
{
    add(conn, SO_STAT_WAN_STOP_TIME, stopped_ns / ns_per_us);
    m_writer.set_conn_stat(conn.slot, SO_STAT_WAN_W_PEND_SIZE, 0);
}

void RE_publisher::go_around(RE_published_conn& conn)
{
    conn.so_header.m_comp_type = 0;
    m_writer.update_conn_so_header(conn.slot, conn.so_header);
}

void RE_publisher::on_lan_read(const RE_published_conn& conn, std::size_t size)
{
    add(conn, SO_STAT_AO_RD_NUM, 1);
    add(conn, SO_STAT_AO_RD_BYTES, static_cast<long long>(size));
}

void RE_publisher::on_lan_written(const RE_published_conn& conn, std::size_t size)
{
    add(conn, SO_STAT_AO_WT_NUM, 1);
    add(conn, SO_STAT_AO_WT_BYTES, static_cast<long long>(size));
}

void RE_publisher::on_frame_written(const RE_published_conn& conn, std::size_t size)
{
    add(conn, SO_STAT_SEND_DATA_FRAME_NUM, 1);
    add(conn, SO_STAT_WAN_WT_NUM, 1);
    add(conn, SO_STAT_WAN_WT_BYTES, static_cast<long long>(size));
}

void RE_publisher::on_frame_read(const RE_published_conn& conn, std::size_t size)
{
    add(conn, SO_STAT_WAN_RD_NUM, 1);
    add(conn, SO_STAT_WAN_RD_BYTES, static_cast<long long>(size));
}

void RE_publisher::on_answer_written(const RE_published_conn& conn, const RE_answer& answer, std::size_t size)
{
    add(conn, SO_STAT_WAN_WT_NUM, 1);
    add(conn, SO_STAT_WAN_WT_BYTES, static_cast<long long>(size));
    if (answer.reason == RE_nack_reason::none) {
        add(conn, SO_STAT_SEND_ACK_FRAME_NUM, 1);
        add(conn, RE_STAT_CONN_ID_NUM_ACK_MSGS, 1);
        add(conn, RE_STAT_CONN_ID_ACK_BYTES, static_cast<long long>(size));
        return;
    }
    add(conn, RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, 1);
    for (const nack_counters& counters : nack_table) {
        add(conn, counters.nack_id, counters.reason == answer.reason ? 1 : 0);
    }
    m_writer.add_peer_stat(conn.peer_number - 1, RE_STAT_PEER_ID_NUM_NACKS, 1);
    log_nack(conn, answer, RE_STAT_NACK_AT_RECEIVER);
}

void RE_publisher::on_answer_read(const RE_published_conn& conn, const RE_answer& answer, std::size_t size)
{
    add(conn, SO_STAT_WAN_RD_NUM, 1);
    add(conn, SO_STAT_WAN_RD_BYTES, static_cast<long long>(size));
    if (answer.reason == RE_nack_reason::none) {
        add(conn, SO_STAT_RECV_ACK_FRAME_NUM, 1);
        add(conn, RE_STAT_CONN_ID_NUM_ACK_MSGS, 1);
        add(conn, RE_STAT_CONN_ID_ACK_BYTES, static_cast<long long>(size));
        return;
    }
    add(conn, RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS, 1);
    for (const nack_counters& counters : nack_table) {
        add(conn, counters.retransmission_id, counters.reason == answer.reason ? 1 : 0);
    }
    m_writer.add_peer_stat(conn.peer_number - 1, RE_STAT_PEER_ID_NUM_RTXS, 1);
    log_nack(conn, answer, RE_STAT_NACK_AT_SENDER);
}

void RE_publisher::on_encoded(RE_published_conn& conn, const RE_encode_result& result)
{
    add(conn, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 1);
    add(conn, RE_STAT_CONN_ID_ENCODE_IN_BYTES, result.in_bytes);
    add(conn, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, result.out_bytes);
    add(conn, size_counter(RE_STAT_CONN_ID_ENCODE_X, result.in_bytes), 1);
    add_app(conn, RE_STAT_APP_ID_ENCODE_NUM_MSGS, 1);
    add_app(conn, RE_STAT_APP_ID_ENCODE_IN_KBYTES, result.in_bytes);
    add_app(conn, RE_STAT_APP_ID_ENCODE_OUT_KBYTES, result.out_bytes);

    peer_work& work = m_peer_work[static_cast<std::size_t>(conn.peer_number - 1)];
    work.bypassed_percent.add(result.bypass_cause == RE_bypass_cause::none ? 0 : 100);
    if (result.bypass_cause == RE_bypass_cause::none) {
        add(conn, RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS, 1);
        add(conn, RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES, result.in_bytes);
        add(conn, RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES, result.re_out_bytes);
        add_app(conn, RE_STAT_APP_ID_RE_ENCODE_NUM_MSGS, 1);
        add_app(conn, RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES, result.in_bytes);
        add_app(conn, RE_STAT_APP_ID_RE_ENCODE_OUT_KBYTES, result.re_out_bytes);
    } else {
        add(conn, RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM, 1);
        add(conn, RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, result.in_bytes);
        for (const bypass_counters& counters : bypass_table) {
            if (counters.cause == result.bypass_cause) {
                add(conn, counters.num_id, 1);
                add(conn, counters.bytes_id, result.in_bytes);
            }
        }
    }
    if (result.b_deflated) {
        add(conn, RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, 1);
        add(conn, RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, result.lz_in_bytes);
        add(conn, RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES, result.lz_out_bytes);
        add(conn, RE_STAT_CONN_ID_TOT_ENCODE_LZ_SPEED, conn.encode_lz.add_ns(result.lz_ns));
        add(conn, RE_STAT_CONN_ID_TOT_ENCODE_ZLIB_SPEED, conn.encode_zlib.add_ns(result.zlib_ns));
        add_app(conn, RE_STAT_APP_ID_LZ_ENCODE_NUM_MSGS, 1);
        add_app(conn, RE_STAT_APP_ID_LZ_ENCODE_IN_KBYTES, result.lz_in_bytes);
        add_app(conn, RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES, result.lz_out_bytes);
    }

    add(conn, RE_STAT_CONN_ID_ENCODE_NUM_CHUNKS, result.chunks);
    add(conn, RE_STAT_CONN_ID_NUM_ANCHOR_CHUNK_COUNT, result.anchor_cuts);
    add(conn, RE_STAT_CONN_ID_NUM_FORCED_ANCHOR_CHUNK_COUNT, result.forced_cuts);
    add(conn, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CHUNK, result.partial_chunks);
    add(conn, RE_STAT_CONN_ID_ENCODE_BYPASS_CHUNK_BYTES, result.partial_bytes);
    add(conn, RE_STAT_CONN_ID_ENCODE_TOT_NUM_SECTIONS, result.sections);
    add(conn, RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT, result.ranges);
    add(conn, RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CHUNK_CNT, result.matches);
    m_writer.add_global(RE_STAT_GLOBAL_ID_TOT_ANCHOR, result.chunks);
    m_writer.add_global(RE_STAT_GLOBAL_ID_TOT_MATCHED_ANCHOR_COUNT, result.matches);
    m_writer.add_global(RE_STAT_GLOBAL_ID_TOT_MATCHED_MORE_THAN_ONCE_COUNT, result.repeat_matches);

    const long long spent = conn.encode.add_ns(result.total_ns);
    add(conn, RE_STAT_CONN_ID_TOT_ENCODE_SPEED, spent);
    add(conn, SO_STAT_ENCODE_NUM, 1);
    add(conn, SO_STAT_ENCODE_TIME, spent);
}

void RE_publisher::on_decoded(RE_published_conn& conn, const RE_decode_result& result, bool b_decoded)
{
    // A message that fails also costs time and disk space.
    const long long spent = conn.decode.add_ns(result.total_ns);
    add(conn, RE_STAT_CONN_ID_TOT_DECODE_SPEED, spent);
    add(conn, RE_STAT_CONN_ID_TOT_DECODE_DISK_SPEED, conn.decode_disk.add_ns(result.disk_ns));
    add(conn, SO_STAT_DECODE_NUM, 1);
    add(conn, SO_STAT_DECODE_TIME, spent);
    add(conn, RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_CNT, result.written_sections);
    add(conn, RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_BYTES, result.written_bytes);
    add(conn, RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_NEW_CHUNK_BYTES, result.written_bytes);
    if (!b_decoded) {
        return;
    }

    add(conn, RE_STAT_CONN_ID_DECODE_NUM_MSGS, 1);
    add(conn, RE_STAT_CONN_ID_DECODE_IN_BYTES, result.in_bytes);
    add(conn, RE_STAT_CONN_ID_DECODE_OUT_BYTES, result.out_bytes);
    add(conn, size_counter(RE_STAT_CONN_ID_DECODE_X, result.out_bytes), 1);
    add(conn, RE_STAT_CONN_ID_DECODE_NUM_CHUNKS, result.chunks);
    add_app(conn, RE_STAT_APP_ID_DECODE_NUM_MSGS, 1);
    add_app(conn, RE_STAT_APP_ID_DECODE_IN_KBYTES, result.in_bytes);
    add_app(conn, RE_STAT_APP_ID_DECODE_OUT_KBYTES, result.out_bytes);
    peer_work& work = m_peer_work[static_cast<std::size_t>(conn.peer_number - 1)];
    if (result.b_chunk_records) {
        work.decoded_bytes += result.out_bytes;
        work.decoding_ns += result.total_ns;
        add(conn, RE_STAT_CONN_ID_RE_DECODE_NUM_MSGS, 1);
        add(conn, RE_STAT_CONN_ID_RE_DECODE_IN_BYTES, result.re_in_bytes);
        add(conn, RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES, result.out_bytes);
        add_app(conn, RE_STAT_APP_ID_RE_DECODE_NUM_MSGS, 1);
        add_app(conn, RE_STAT_APP_ID_RE_DECODE_IN_KBYTES, result.re_in_bytes);
        add_app(conn, RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES, result.out_bytes);
    } else {
        work.passed_bytes += result.out_bytes;
        work.passing_ns += result.total_ns;
        add(conn, RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_NUM, 1);
        add(conn, RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_BYTES, result.out_bytes);
    }
    if (result.b_inflated) {
        add(conn, RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS, 1);
        add(conn, RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES, result.lz_in_bytes);
        add(conn, RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES, result.lz_out_bytes);
        add(conn, RE_STAT_CONN_ID_TOT_DECODE_LZ_SPEED, conn.decode_lz.add_ns(result.lz_ns));
        add(conn, RE_STAT_CONN_ID_TOT_DECODE_ZLIB_SPEED, conn.decode_zlib.add_ns(result.zlib_ns));
        add_app(conn, RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS, 1);
        add_app(conn, RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES, result.lz_in_bytes);
        add_app(conn, RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES, result.lz_out_bytes);
    }
}

void RE_publisher::set_bypass(const RE_server& server, const RE_bypassed_server& entry)
{
    m_writer.set_bypass({server.ip, server.port, RE_bypass_reason::low_compression, entry.since, entry.next_attempt,
                         entry.bytes, entry.connections});
}

void RE_publisher::clear_bypass(const RE_server& server)
{
    m_writer.clear_bypass(server.ip, server.port);
}

void RE_publisher::add(const RE_published_conn& conn, RE_stat_conn_id id, long long delta)
{
    if (delta != 0) {
        m_writer.add_conn_stat(conn.slot, id, delta);
    }
}

void RE_publisher::add_app(const RE_published_conn& conn, RE_stat_app_id id, std::uint64_t amount)
{
    RE_published_app& app = *conn.app;
    const auto index = static_cast<std::size_t>(id);
    const std::uint64_t before = app.published(index);
    app.totals[index] += amount;
    const bool b_counted = app.slot >= 0 && !m_b_no_room_for_apps;
    if (b_counted) {
        m_writer.add_app_stat(app.slot, id, static_cast<std::uint32_t>(app.published(index) - before));
    }
    m_writer.add_global(
        b_counted ? RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT : RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 1);
}

void RE_publisher::count_open(int peer_slot, std::time_t now, int delta)
{
    m_concurrency[static_cast<std::size_t>(peer_slot)].change(now, delta);
}

void RE_publisher::log_nack(const RE_published_conn& conn, const RE_answer& answer, RE_stat_nack_type type)
{
    RE_stat_nack_header entry{};
    entry.m_time = static_cast<std::int32_t>(wall_seconds());
    entry.m_type = static_cast<std::int16_t>(type);
    entry.m_reason = static_cast<std::int16_t>(answer.reason);
    entry.m_peer_id = conn.peer_number;
    entry.m_conn_id = conn.conn_id;
    entry.m_msg_seq_no = static_cast<std::int32_t>(answer.sequence);
    m_writer.add_nack(entry);
}
