#include "RE_nack_view.h"

#include "RE_value_format.h"
#include "RE_viewer_reader.h"

#include <cstdio>

namespace {

// The code comes from a record, so every code without a word of its own, a negative one included, is "Unknown".
const char* reason_word(int reason)
{
    static constexpr const char* reason_str[] = {
        "None", "Chunk missed", "Checksum collision", "Disk overloaded", "Cache is not ready", "Unknown",
    };
    constexpr int reason_str_len = sizeof reason_str / sizeof reason_str[0];
    return reason_str[reason >= 0 && reason < reason_str_len ? reason : reason_str_len - 1];
}

bool is_wanted(const RE_stat_nack_header& entry, int conn_id, int peer_id)
{
    return (conn_id < 0 || entry.m_conn_id == conn_id) && (peer_id < 0 || entry.m_peer_id == peer_id);
}

void print_nack_row(const RE_stat_nack_header& entry)
{
    std::printf("%-20s %8d %8d %10d %s %s\n", get_time_str(entry.m_time), entry.m_peer_id, entry.m_conn_id,
                entry.m_msg_seq_no, entry.m_type == RE_STAT_NACK_AT_RECEIVER ? "Nack" : "R-Tx",
                reason_word(entry.m_reason));
}

} // namespace

void show_nack_info(int conn_id, int peer_id)
{
    std::printf("\n%-20s %8s %8s %10s %s %s\n", "Time", "Peer-No", "Conn-ID", "Msg-No", "Type", "Reason");
    // One dash longer than the rule of the peer report; scripts tell the two apart by it.
    std::puts("-------------------------------------------------------------------------------");

    int nack_slot = p_statReader->get_first_nack();
    while (nack_slot >= 0) {
        RE_stat_nack_header entry{};
        nack_slot = p_statReader->get_next_nack(nack_slot, entry);
        if (nack_slot >= 0 && is_wanted(entry, conn_id, peer_id)) {
            print_nack_row(entry);
        }
    }
}
