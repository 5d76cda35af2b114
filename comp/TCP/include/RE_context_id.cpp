#include "RE_context_id.h"

#include "RE_syslog.h"

#include <cstdio>
#include <cstring>

namespace {

// File, lines and message id with which the system log reports an invalid MAC text. Log filters match on them, so they
// do not change when the lines of this file move.
constexpr const char* log_file = "comp/TCP/include/RE_context_id";
constexpr int log_line_null = 81;
constexpr int log_line_short = 86;
constexpr int log_line_scan = 97;
constexpr int log_id_invalid_mac = 690410;

template <typename Word>
Word xor_of_little_endian_words(const unsigned char* bytes, std::size_t size)
{
    Word result = 0;
    for (std::size_t at = 0; at < size; ++at) {
        const auto shifted = static_cast<std::uint32_t>(bytes[at]) << (8 * (at % sizeof(Word)));
        result = static_cast<Word>(result ^ shifted);
    }
    return result;
}

// Returns two digits per byte. separators: the character after each byte but the last; a blank means none.
template <std::size_t Size>
std::string hex_text(const unsigned char (&bytes)[Size], const char (&separators)[Size])
{
    constexpr char digits[] = "0123456789abcdef";
    char text[3 * Size];
    char* end = text;
    for (std::size_t at = 0; at < Size; ++at) {
        *end++ = digits[bytes[at] >> 4U];
        *end++ = digits[bytes[at] & 15U];
        if (at + 1 < Size && separators[at] != ' ') {
            *end++ = separators[at];
        }
    }
    return {text, end};
}

} // namespace

RE_mac_id::RE_mac_id(const unsigned char* bytes) : RE_mac_id_t{}
{
    std::memcpy(m_data, bytes, sizeof m_data);
}

RE_mac_id::RE_mac_id(const RE_mac_id_t& id) : RE_mac_id_t(id)
{}

RE_mac_id::RE_mac_id(const char* str) : RE_mac_id_t{}
{
    set(str);
}

bool RE_mac_id::set(const char* str)
{
    if (str == nullptr) {
        __re_syslog(log_file, log_line_null, KAV_CORE, RE_SYSLOG_ERROR, log_id_invalid_mac,
                    "Invalid MAC address: NULL pointer for mac id string");
        return false;
    }
    // The two texts below differ by one blank after the colon; log filters match both.
    if (std::strlen(str) < text_length) {
        __re_syslog(log_file, log_line_short, KAV_CORE, RE_SYSLOG_ERROR, log_id_invalid_mac,
                    "Invalid MAC address: Invalid mac id string:%s", str);
        return false;
    }
    unsigned int group[6] = {};
    if (std::sscanf(str, "%2x:%2x:%2x:%2x:%2x:%2x", &group[0], &group[1], &group[2], &group[3], &group[4], &group[5]) <
        6) {
        __re_syslog(log_file, log_line_scan, KAV_CORE, RE_SYSLOG_ERROR, log_id_invalid_mac,
                    "Invalid MAC address: Invalid mac id string: %s", str);
        return false;
    }
    for (std::size_t at = 0; at < sizeof m_data; ++at) {
        m_data[at] = static_cast<unsigned char>(group[at]);
    }
    return true;
}

void RE_mac_id::set(const RE_mac_id_t& id)
{
    RE_mac_id_t::operator=(id);
}

void RE_mac_id::copy_to(unsigned char* bytes) const
{
    std::memcpy(bytes, m_data, sizeof m_data);
}

int RE_mac_id::compare(const RE_mac_id_t& other) const
{
    return std::memcmp(m_data, other.m_data, sizeof m_data);
}

std::string RE_mac_id::getString() const
{
    return hex_text(m_data, ":::::");
}

RE_kav_peer_id::RE_kav_peer_id(const RE_kav_peer_id_t& id) : RE_kav_peer_id_t(id)
{}

void RE_kav_peer_id::copy_to(unsigned char* bytes) const
{
    std::memcpy(bytes, m_data, sizeof m_data);
}

int RE_kav_peer_id::compare(const RE_kav_peer_id_t& other) const
{
    return std::memcmp(m_data, other.m_data, sizeof m_data);
}

std::uint32_t RE_kav_peer_id::hash_u32() const
{
    return xor_of_little_endian_words<std::uint32_t>(m_data, sizeof m_data);
}

std::uint16_t RE_kav_peer_id::hash_u16() const
{
    return static_cast<std::uint16_t>(hash_u32());
}

std::string RE_kav_peer_id::getString() const
{
    return hex_text(m_data, ":::::-     -   ");
}

RE_context_id::RE_context_id(const RE_mac_id& first, const RE_mac_id& second, const RE_param_id& param)
{
    first.copy_to(m_data);
    second.copy_to(m_data + sizeof first);
    std::memcpy(m_data + sizeof first + sizeof second, param.m_data, sizeof param.m_data);
}

bool RE_context_id::operator==(const RE_context_id& other) const
{
    return std::memcmp(m_data, other.m_data, sizeof m_data) == 0;
}

std::uint16_t RE_context_id::hash() const
{
    return xor_of_little_endian_words<std::uint16_t>(m_data, sizeof m_data);
}

std::uint32_t RE_context_id::hash32() const
{
    return xor_of_little_endian_words<std::uint32_t>(m_data, sizeof m_data);
}

bool RE_context_id::extract_mac_id(const RE_mac_id& known, RE_mac_id& other) const
{
    const RE_mac_id first(m_data);
    const RE_mac_id second(m_data + sizeof first);
    if (known == first) {
        other = second;
        return true;
    }
    if (known == second) {
        other = first;
        return true;
    }
    return false;
}
