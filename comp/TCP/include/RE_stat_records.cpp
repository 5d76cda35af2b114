#include "RE_stat_records.h"

#include <cstring>

void RE_stat_app_header::set(const RE_kav_peer_id& kav_peer_id, const std::uint16_t& server_port, bool b_src_port)
{
    m_kav_peer_id = kav_peer_id;
    m_server_port = server_port;
    m_b_src_port = b_src_port;
}

void RE_stat_app_header::set_policy_engine_handler(RE_stat_policy_engine_handler handler)
{
    m_policy_engine_handler = handler & 0x3ffU;
}

bool RE_stat_app_header::operator==(const RE_stat_app_header& other) const
{
    return m_policy_engine_handler == other.m_policy_engine_handler && m_server_port == other.m_server_port &&
           m_b_src_port == other.m_b_src_port && m_kav_peer_id == other.m_kav_peer_id;
}

std::uint32_t RE_stat_app_header::hash_u32() const
{
    const auto port_and_flag = static_cast<std::uint32_t>(m_server_port | (m_b_src_port << 16U));
    // The handle is shifted to the high bits, which port and flag do not use.
    const std::uint32_t handler = m_policy_engine_handler;
    return m_kav_peer_id.hash_u32() ^ port_and_flag ^ (handler << 17U);
}

void RE_stat_app_header::reset()
{
    *this = RE_stat_app_header{};
}

bool RE_stat_policy_engine_header::operator<(const RE_stat_policy_engine_header& other) const
{
    const int classifier = std::strncmp(m_policy_engine_classifier_name, other.m_policy_engine_classifier_name,
                                        sizeof m_policy_engine_classifier_name);
    if (classifier != 0) {
        return classifier < 0;
    }
    return std::strncmp(m_policy_engine_application_name, other.m_policy_engine_application_name,
                        sizeof m_policy_engine_application_name) < 0;
}

bool RE_stat_policy_engine_header::operator==(const RE_stat_policy_engine_header& other) const
{
    return std::strncmp(m_policy_engine_classifier_name, other.m_policy_engine_classifier_name,
                        sizeof m_policy_engine_classifier_name) == 0 &&
           std::strncmp(m_policy_engine_application_name, other.m_policy_engine_application_name,
                        sizeof m_policy_engine_application_name) == 0;
}
