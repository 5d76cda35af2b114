#include "RE_nack_view.h"

#include "RE_row_writer.h"
#include "RE_value_format.h"
#include "RE_viewer_reader.h"

#include <cstdio>
#include <string_view>

namespace {

// The code comes from a record and may be any number. A code without its own word, also a negative one, is "Unknown".
std::string_view reason_word(int reason)
{
    static constexpr std::string_view reason_str[] = {
        "None", "Chunk missed", "Checksum collision", "Disk overloaded", "Cache is not ready", "Unknown",
    };
    constexpr int reason_str_len = sizeof reason_str / sizeof reason_str[0];
    return reason_str[reason >= 0 && reason < reason_str_len ? reason : reason_str_len - 1];
}

bool is_wanted(const RE_stat_nack_header& entry, int conn_id, int peer_id)
{
    return (conn_id < 0 || entry.m_conn_id == conn_id) && (peer_id < 0 || entry.m_peer_id == peer_id);
}

// NACKs come in bursts, many in one second, so the text of each second is formatted only once.
class time_column
{
public:
    // "%-20s" of get_time_str(t)
    char* put(char* at, int t)
    {
        if (t != m_time || m_length == 0) {
            m_length = static_cast<std::size_t>(put_time(m_text, t) - m_text);
            m_time = t;
        }
        return put_text_left(at, {m_text, m_length}, 20);
    }

private:
    int m_time = 0;
    std::size_t m_length = 0;
    char m_text[32];
};

// "%-20s %8d %8d %10d %s %s\n". A log has up to a million of these.
char* put_nack_row(char* at, const RE_stat_nack_header& entry, time_column& times)
{
    at = times.put(at, entry.m_time);
    at = put_char(at, ' ');
    at = put_number_right(at, entry.m_peer_id, 8);
    at = put_char(at, ' ');
    at = put_number_right(at, entry.m_conn_id, 8);
    at = put_char(at, ' ');
    at = put_number_right(at, entry.m_msg_seq_no, 10);
    at = put_text(at, entry.m_type == RE_STAT_NACK_AT_RECEIVER ? " Nack " : " R-Tx ");
    at = put_text(at, reason_word(entry.m_reason));
    return put_char(at, '\n');
}

} // namespace

void show_nack_info(int conn_id, int peer_id)
{
    std::printf("\n%-20s %8s %8s %10s %s %s\n", "Time", "Peer-No", "Conn-ID", "Msg-No", "Type", "Reason");
    // One dash longer than the line in the peer report. Scripts use this to distinguish the two.
    std::puts("-------------------------------------------------------------------------------");

    time_column times;
    RE_row_writer rows;
    int nack_slot = p_statReader->get_first_nack();
    while (nack_slot >= 0) {
        RE_stat_nack_header entry{};
        nack_slot = p_statReader->get_next_nack(nack_slot, entry);
        if (nack_slot >= 0 && is_wanted(entry, conn_id, peer_id)) {
            rows.end_row(put_nack_row(rows.begin_row(), entry, times));
        }
    }
}
