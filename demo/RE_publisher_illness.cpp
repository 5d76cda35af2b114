// The part of the publisher that sets the figures of illnesses that no part of the engine can really have.
#include "RE_publisher.h"

void RE_publisher::stage(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills)
{
    const auto has = [&](RE_illness illness) { return ills.has(illness); };
    const auto degrade = [&](RE_illness illness, RE_stat_global_id current_id, RE_stat_global_id most_id) {
        m_writer.set_global(current_id, has(illness) ? 1 : 0);
        if (has(illness)) {
            m_writer.set_global(most_id, 1);
        }
    };
    degrade(RE_illness::peer_degraded_sigblock, RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK,
            RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK);
    degrade(RE_illness::peer_degraded_dataunit, RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT,
            RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT);
    if (has(RE_illness::low_memory)) {
        for (const RE_stat_global_id id : {RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR,
                                           RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR, RE_STAT_GLOBAL_ID_LOWMEM_PLZ_OFF}) {
            m_writer.add_global(id, 1);
        }
        m_writer.set_global(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 0);
    }

    constexpr int slot = ill_peer_number - 1;
    RE_stat_peer_header header = peers[slot]->header();
    const bool b_low = has(RE_illness::peer_low_buffer);
    m_writer.set_peer_stat(slot, RE_STAT_PEER_ID_REMOTE_BUF_LOW, b_low ? 1 : 0);
    m_writer.add_peer_stat(slot, RE_STAT_PEER_ID_AGG_FT_BUF_R_FLUSH, b_low ? 1 : 0);
    header.m_b_outdated = has(RE_illness::peer_outdated) ? 1 : header.m_b_outdated;
    if (has(RE_illness::peer_disconnected)) {
        header.m_b_update_from_active_conn = 0;
    }
    if (ills != m_staged) {
        m_writer.update_peer(slot, header);
        m_staged = ills;
    }
}
