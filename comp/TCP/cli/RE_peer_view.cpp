#include "RE_peer_view.h"

#include "RE_conn_blocks.h"
#include "RE_ip.h"
#include "RE_nack_view.h"
#include "RE_value_format.h"
#include "RE_viewer_reader.h"

#include <cstdio>

namespace {

struct peer_filter
{
    const RE_mac_id* p_mac_id; // null: any
    unsigned int ip;           // 0: any
    int peer_id;               // negative: any; 0 is a valid number
    int ctx;                   // negative: any; 0 is a valid number

    bool accepts(const RE_stat_peer_header& hdr, int pid) const
    {
        return (p_mac_id == nullptr || *p_mac_id == hdr.m_peer_mac_id) && (ip == 0 || ip == hdr.m_peer_ip) &&
               (peer_id < 0 || peer_id == pid) && (ctx < 0 || ctx == hdr.m_context_id.context_number());
    }
};

void print_peer_counters(RE_show_type type)
{
    std::printf("\nCurrent number of peers with active connections:           %lld\n"
                "Maximum number of peers with active connections:           %lld\n"
                "Current number of degraded peers due to writing sig-block: %lld\n"
                "Maximum number of degraded peers due to writing sig-block: %lld\n"
                "Current number of degraded peers due to writing data-unit: %lld\n"
                "Maximum number of degraded peers due to writing data-unit: %lld\n",
                GLOB(RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER), GLOB(RE_STAT_GLOBAL_ID_MAX_NUM_CONNECTED_PEER),
                GLOB(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK),
                GLOB(RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK),
                GLOB(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT),
                GLOB(RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT));
    if (type == RE_SHOW_DETAIL) {
        std::printf("Current number of peers with writing sig-block:            %lld\n"
                    "Maximum number of peers with writing sig-block:            %lld\n"
                    "Current number of peers with writing data-unit:            %lld\n"
                    "Maximum number of peers with writing data-unit:            %lld\n",
                    GLOB(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_SIG_BLOCK),
                    GLOB(RE_STAT_GLOBAL_ID_MAX_NUM_PEER_WITH_WRITE_SIG_BLOCK),
                    GLOB(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_DATA_UNIT),
                    GLOB(RE_STAT_GLOBAL_ID_MAX_NUM_PEER_WITH_WRITE_DATA_UNIT));
    }
}

void print_identity(const RE_stat_peer_header& hdr, int pid, RE_show_type type)
{
    // The blank after the context number is printed even if nothing follows it.
    std::printf("\nPeer-No : %-15d      Context: %d %s\n", pid, hdr.m_context_id.context_number(),
                hdr.m_b_outdated ? "(outdated)" : "");
    std::printf("Peer-ID : %s\n", hdr.m_peer_mac_id.getString().c_str());
    std::printf("KAV-peer-id : %s (%d)\n", hdr.m_kav_peer_id.getString().c_str(), hdr.m_kav_peer_id.hash_u16());
    // The name comes from the peer and may have no final NUL.
    std::printf("Hostname: %.*s\n", static_cast<int>(sizeof hdr.m_peer_host_name),
                hdr.m_peer_host_name[0] != '\0' ? hdr.m_peer_host_name : "not available");
    if (type == RE_SHOW_DETAIL) {
        std::printf("IP reported from peer: %s\n", hdr.m_peer_ip != 0 ? ip_to_string(hdr.m_peer_ip) : "not available");
    }
    std::puts("------------------------------------------------------------------------------");
}

// Prints nothing when the peer has never had a connection.
void print_connections(int peer_slot, RE_show_type type)
{
    if (PEER(peer_slot, RE_STAT_PEER_ID_NUM_TOTAL_CONNS) == 0) {
        return;
    }
    // A comma before "Active" and one line break, unlike the engine's own line. Scripts use this to distinguish the
    // two.
    const int active = p_statReader->read_peer_active_conn_count(peer_slot);
    std::printf("\nConnections:   Total (cumulative): %lld,  Active: %d\n",
                PEER(peer_slot, RE_STAT_PEER_ID_NUM_TOTAL_CONNS), active);
    std::printf("Concurrent Connections (Last 2 min): max %lld, avg %lld\n\n",
                PEER(peer_slot, RE_STAT_PEER_ID_NUM_MAX_CONNS), PEER(peer_slot, RE_STAT_PEER_ID_NUM_AVG_CONNS));

    const RE_peer_conn_slot c_slot(peer_slot);
    show_conn_info(c_slot);
    if (type == RE_SHOW_DETAIL) {
        show_conn_detail(c_slot);
    }
}

// The count is live. It is read for the test and again for the division, and may become 0 in between.
long long average(int peer_slot, RE_stat_peer_id size_id, RE_stat_peer_id count_id)
{
    if (PEER(peer_slot, count_id) == 0) {
        return 0;
    }
    const long long size = PEER(peer_slot, size_id);
    const long long count = PEER(peer_slot, count_id);
    return count == 0 ? 0 : wrapping_quotient(size, count);
}

// Returns the safe clock, or the head clock when the peer has not sent a safe clock yet.
long long safe_clock(int peer_slot, RE_stat_peer_id safe_id, RE_stat_peer_id head_id)
{
    return PEER(peer_slot, safe_id) > 0 ? PEER(peer_slot, safe_id) : PEER(peer_slot, head_id);
}

} // namespace

void show_peer(RE_mac_id* p_peer_mac_id, unsigned int peer_ip, int filter_pid, int ctx, RE_show_type type)
{
    const peer_filter filter{p_peer_mac_id, peer_ip, filter_pid, ctx};
    const int MAX_STAT_PEER_NUM = p_statReader->get_max_peer_slots();

    print_peer_counters(type);
    std::puts("\nActive peer details:");

    for (int i = 0; i < MAX_STAT_PEER_NUM; ++i) {
        if (!p_statReader->is_peer_valid(i)) {
            continue;
        }
        RE_stat_peer_header hdr{};
        p_statReader->read_peer_header(i, hdr);
        int pid = -1;
        p_statReader->read_peer_id(i, pid);
        if (!filter.accepts(hdr, pid)) {
            continue;
        }

        print_identity(hdr, pid, type);
        if (type == RE_SHOW_NACK) {
            show_nack_info(-1, pid);
            continue;
        }
        show_peer_info(i);
        if (type == RE_SHOW_DETAIL) {
            show_peer_detail(i);
        }
        print_connections(i, type);
    }
}

void show_peer_info(int peer_slot)
{
    std::printf("\nCache:  Used disk: Sigblock %6lld MB, Age: %s\n",
                PEER(peer_slot, RE_STAT_PEER_ID_SIGBLOCK_DISK_SPACE),
                get_age_str(PEER(peer_slot, RE_STAT_PEER_ID_CACHE_SIGBLOCK_AGE)));
    std::printf("                   Dataunit %6lld MB, Age: %s\n", PEER(peer_slot, RE_STAT_PEER_ID_DATAUNIT_DISK_SPACE),
                get_age_str(PEER(peer_slot, RE_STAT_PEER_ID_CACHE_DATAUNIT_AGE)));
    std::printf("Peer version:  %lld.%lld%s\n", PEER(peer_slot, RE_STAT_PEER_ID_MAJOR_VERSION),
                PEER(peer_slot, RE_STAT_PEER_ID_MINOR_VERSION),
                PEER(peer_slot, RE_STAT_PEER_ID_ORV) != 0 ? " (ORV)" : "");
    std::printf("Ack-queue size:  %s\n", get_data_size_str(PEER(peer_slot, RE_STAT_PEER_ID_ACK_Q_SIZE)).c_str());

    std::puts("Buffer surge control:");
    const long long delay_average = average(peer_slot, RE_STAT_PEER_ID_DELAY_BUF_SIZE, RE_STAT_PEER_ID_DELAY_BUF_CNT);
    std::printf("   Delay:   avg-size %10lld B, conn: %10lld, flush: %10lld\n", delay_average,
                PEER(peer_slot, RE_STAT_PEER_ID_DELAY_BUF_CNT), PEER(peer_slot, RE_STAT_PEER_ID_DELAY_BUF_FLUSH));
    const long long agg_average = average(peer_slot, RE_STAT_PEER_ID_AGG_FT_BUF_SIZE, RE_STAT_PEER_ID_AGG_FT_BUF_CNT);
    std::printf("   Agg-ft:  avg-size %10lld B, conn: %10lld, flush: %10lld\n", agg_average,
                PEER(peer_slot, RE_STAT_PEER_ID_AGG_FT_BUF_CNT), PEER(peer_slot, RE_STAT_PEER_ID_AGG_FT_BUF_FLUSH));
    std::printf("            remote low-buff: %2lld, received flush: %10lld\n",
                PEER(peer_slot, RE_STAT_PEER_ID_REMOTE_BUF_LOW), PEER(peer_slot, RE_STAT_PEER_ID_AGG_FT_BUF_R_FLUSH));
}

void show_peer_detail(int peer_slot)
{
    std::puts("Cache details:"); // no blank line before it, unlike the engine's own detail
    std::printf("  Usable cache size: %6lld MB, Usable cache age: %s\n",
                PEER(peer_slot, RE_STAT_PEER_ID_USABLE_SIGBLOCK_SIZE),
                get_age_str(PEER(peer_slot, RE_STAT_PEER_ID_USABLE_SIGBLOCK_AGE)));
    // This counter is in bytes; the engine's own evicted cache is in kilobytes.
    std::printf("  Evicted cache: %s\n", get_data_size_str(PEER(peer_slot, RE_STAT_PEER_ID_NUM_FIFO_DATA)).c_str());
    if (low32(PEER(peer_slot, RE_STAT_PEER_ID_REMOTE_CACHE_CREATE_TIME)) != 0) {
        std::printf("  Remote cache created at: %s\n",
                    get_time_str(low32(PEER(peer_slot, RE_STAT_PEER_ID_REMOTE_CACHE_CREATE_TIME))));
    }

    std::printf("  4.4.1 Sync-clock: remote-head %lld (safe: %lld)\n",
                PEER(peer_slot, RE_STAT_PEER_ID_REMOTE_HEAD_SYNC_CLK),
                safe_clock(peer_slot, RE_STAT_PEER_ID_REMOTE_SAFE_HEAD_SYNC_CLK, RE_STAT_PEER_ID_REMOTE_HEAD_SYNC_CLK));
    std::printf("  Pre 4.4.1 Cache: Sigblock %lld MB, Data unit %lld MB\n",
                PEER(peer_slot, RE_STAT_PEER_ID_PRE_NG_SIGBLOCK_DISK_SPACE),
                PEER(peer_slot, RE_STAT_PEER_ID_PRE_NG_DATAUNIT_DISK_SPACE));
    std::printf("  Pre 4.4.1 Sync-clock: local-head %lld, local-tail %lld, remote-head %lld (safe: %lld)\n",
                PEER(peer_slot, RE_STAT_PEER_ID_PRE_NG_HEAD_SYNC_CLK),
                PEER(peer_slot, RE_STAT_PEER_ID_PRE_NG_TAIL_SYNC_CLK),
                PEER(peer_slot, RE_STAT_PEER_ID_PRE_NG_REMOTE_HEAD_SYNC_CLK),
                safe_clock(peer_slot, RE_STAT_PEER_ID_PRE_NG_REMOTE_SAFE_HEAD_SYNC_CLK,
                           RE_STAT_PEER_ID_PRE_NG_REMOTE_HEAD_SYNC_CLK));

    constexpr long long usec_per_msec = 1000;
    std::printf("  RTT: max %lld ms,   avg %lld ms (remote: %lld ms)\n",
                PEER(peer_slot, RE_STAT_PEER_ID_ACK_Q_MAX_RTT) / usec_per_msec,
                PEER(peer_slot, RE_STAT_PEER_ID_ACK_Q_AVG_RTT) / usec_per_msec,
                PEER(peer_slot, RE_STAT_PEER_ID_REMOTE_ACK_Q_AVG_RTT) / usec_per_msec);
    std::printf("  Per connection decode throughput: kav: %s/s,   bypass: %s/s\n",
                get_data_size_str(PEER(peer_slot, RE_STAT_PEER_ID_TOT_KAV_DECODE_THRPUT)).c_str(),
                get_data_size_str(PEER(peer_slot, RE_STAT_PEER_ID_TOT_BYPASS_DECODE_THRPUT)).c_str());
    std::printf("  Current bypass ratio: %d %%\n", low32(PEER(peer_slot, RE_STAT_PEER_ID_BYPASS_RATIO)));
    std::printf("  Out of sync: %lld, Nacks:  %lld,  R-tx: %lld\n",
                PEER(peer_slot, RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC), PEER(peer_slot, RE_STAT_PEER_ID_NUM_NACKS),
                PEER(peer_slot, RE_STAT_PEER_ID_NUM_RTXS));
    std::printf("  Allocated write sig-block: %lld\n", PEER(peer_slot, RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK));
    std::printf("  Allocated write data-unit: %lld\n", PEER(peer_slot, RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT));
}
