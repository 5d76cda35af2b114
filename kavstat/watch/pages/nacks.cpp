#include "format/text.h"
#include "format/units.h"
#include "model/words.h"
#include "watch/pages/pages.h"

#include <memory>

namespace kavstat {

WatchTable nacks_table(const WatchModel& model, const WatchFrame& /*frame*/)
{
    using Nack = WatchNack;
    const std::deque<WatchNack>& nacks = model.nacks();
    const auto direction = [](const Nack& n) {
        return n.nack.m_type == RE_STAT_NACK_AT_RECEIVER ? "sent" : "received";
    };
    const auto reason = [](const Nack& n) { return word_for(nack_reason_words, n.nack.m_reason); };
    WatchTable table;
    table.rows = nacks.size();
    WatchColumn time =
        text_column("time", "TIME", 19, 0, nacks, [](const Nack& n) { return date_and_time(n.nack.m_time); });
    // In the order of arrival, newest first.
    time.b_lowest_first = false;
    time.order = [](std::size_t row) { return static_cast<double>(row); };
    table.columns = {
        time,
        number_column(
            "peer", "PEER", 6, 0, nacks, [](const Nack& n) { return n.nack.m_peer_id; }, whole_text),
        text_column("host", "HOST", 20, 3, nacks, [&model](const Nack& n) { return model.host_of(n.nack.m_peer_id); }),
        number_column(
            "connection", "CONN", 10, 2, nacks, [](const Nack& n) { return n.nack.m_conn_id; }, whole_text),
        text_column("direction", "NACK", 8, 1, nacks, direction),
        text_column("reason", "REASON", 18, 1, nacks, reason),
        number_column(
            "sequence", "SEQUENCE", 11, 3, nacks, [](const Nack& n) { return n.nack.m_msg_seq_no; }, whole_text),
    };
    table.search = [&nacks, &model, direction, reason](std::size_t row) {
        const Nack& nack = nacks[row];
        return date_and_time(nack.nack.m_time) + " " + std::to_string(nack.nack.m_peer_id) + " " +
               model.host_of(nack.nack.m_peer_id) + " " + std::to_string(nack.nack.m_conn_id) + " " + direction(nack) +
               " " + reason(nack);
    };
    table.subject = [&nacks](std::size_t row) {
        const RE_stat_nack_header& nack = nacks[row].nack;
        return WatchSubject{SubjectKind::row, nack.m_peer_id, nack.m_conn_id,
                            std::int64_t{nack.m_time} * 65536 * 65536 + nack.m_msg_seq_no};
    };
    table.mark = [&nacks](std::size_t row) {
        return nacks[row].b_new ? WatchMark{'+', WatchStyle::fresh} : WatchMark();
    };
    return table;
}

} // namespace kavstat
