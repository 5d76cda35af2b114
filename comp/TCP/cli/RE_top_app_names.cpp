#include "RE_top_app_names.h"

std::map<unsigned, RE_stat_policy_engine_header> g_stat_handler_policy_engine_map;
std::map<RE_stat_policy_engine_header, unsigned> g_stat_policy_engine_handler_map;

void RE_section_names::clear()
{
    m_b_named.reset();
    m_run_handle.fill(not_looked_up);
}

void RE_section_names::add(unsigned handle, const RE_stat_policy_engine_header& names)
{
    // A record's handle has 10 bits, so a larger one is never used.
    if (handle < top_app_handle_count && !m_b_named[handle]) {
        m_names[handle] = names;
        m_b_named[handle] = true;
    }
}

unsigned RE_section_names::look_up(unsigned handle)
{
    const RE_stat_policy_engine_header names = m_b_named[handle] ? m_names[handle] : RE_stat_policy_engine_header{};
    const auto next = static_cast<unsigned>(g_stat_handler_policy_engine_map.size());
    const auto [entry, b_new] = g_stat_policy_engine_handler_map.try_emplace(names, next);
    if (b_new) {
        g_stat_handler_policy_engine_map.try_emplace(next, names);
    }
    m_run_handle[handle] = static_cast<std::uint16_t>(entry->second % top_app_handle_count);
    return m_run_handle[handle];
}
