// Sets the figures of the illnesses for which the engine has no part.
#include "RE_publisher.h"

#include "RE_bypass_table.h"
#include "RE_clock.h"

namespace {

// The servers have ports that no traffic uses.
constexpr std::uint32_t bypassed_network = 0xc6336400U;
constexpr std::uint16_t nacked_port = 9010;
constexpr std::uint16_t first_full_table_port = 9001;

} // namespace

void RE_publisher::stage(const std::vector<std::unique_ptr<RE_peer>>& peers, const RE_illness_set& ills)
{
    const auto has = [&](RE_illness illness) { return ills.has(illness); };
    const auto set_with_maximum = [&](bool b_ill, long long value, RE_stat_global_id current_id,
                                      RE_stat_global_id most_id) {
        m_writer.set_global(current_id, b_ill ? value : 0);
        if (b_ill) {
            m_writer.set_global(most_id, value);
        }
    };
    // The first peer is degraded: all others have a block to write to.
    const bool b_no_sigblock = has(RE_illness::peer_degraded_sigblock);
    const bool b_no_data_unit = has(RE_illness::peer_degraded_dataunit);
    const auto others = static_cast<long long>(peers.size()) - 1;
    set_with_maximum(b_no_sigblock, 1, RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK,
                     RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK);
    set_with_maximum(b_no_sigblock, others, RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_SIG_BLOCK,
                     RE_STAT_GLOBAL_ID_MAX_NUM_PEER_WITH_WRITE_SIG_BLOCK);
    set_with_maximum(b_no_data_unit, 1, RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT,
                     RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT);
    set_with_maximum(b_no_data_unit, others, RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_DATA_UNIT,
                     RE_STAT_GLOBAL_ID_MAX_NUM_PEER_WITH_WRITE_DATA_UNIT);
    for (std::size_t other = ill_peer_number; other < peers.size(); ++other) {
        m_writer.set_peer_stat(static_cast<int>(other), RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK, b_no_sigblock ? 1 : 0);
        m_writer.set_peer_stat(static_cast<int>(other), RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT, b_no_data_unit ? 1 : 0);
    }
    constexpr long long waiting_bytes = 64 * 1024;
    m_writer.set_global(RE_STAT_GLOBAL_ID_WAIT_Q_SIZE, has(RE_illness::wait_queue) ? waiting_bytes : 0);
    m_b_no_room_for_apps = has(RE_illness::app_table_full);
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
        stage_bypass(has(RE_illness::bypass_nacks) ? 1 : 0, RE_bypass_reason::repeated_nacks, nacked_port);
        stage_bypass(has(RE_illness::bypass_table_full) ? RE_bypass_capacity : 0, RE_bypass_reason::low_compression,
                     first_full_table_port);
        m_staged = ills;
    }
}

// Puts this many servers into the auto-bypass table, and removes those of the illness before. A full table takes no
// more.
void RE_publisher::stage_bypass(std::uint32_t servers, RE_bypass_reason reason, std::uint16_t first_port)
{
    constexpr std::uint32_t addresses = 256;
    const std::time_t now = wall_seconds();
    for (std::uint32_t at = 0; at < RE_bypass_capacity; ++at) {
        const std::uint32_t ip = bypassed_network + at % addresses;
        const auto port = static_cast<std::uint16_t>(first_port + at / addresses);
        if (at < servers) {
            m_writer.set_bypass({ip, port, reason, now, 0, 1, 1});
        } else {
            m_writer.clear_bypass(ip, port);
        }
    }
}
