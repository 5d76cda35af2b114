#include "RE_terminal_filter.h"

namespace {

unsigned int bytes_after(unsigned char lead)
{
    if (lead >= 0xc2 && lead <= 0xdf) {
        return 1;
    }
    if (lead >= 0xe0 && lead <= 0xef) {
        return 2;
    }
    return lead >= 0xf0 && lead <= 0xf4 ? 3 : 0;
}

// Whether `byte` may be the second byte of a character. Overlong encodings are not characters.
bool is_second_byte(unsigned char lead, unsigned char byte)
{
    const unsigned char least = lead == 0xe0 ? 0xa0 : (lead == 0xf0 ? 0x90 : 0x80);
    return byte >= least && byte <= 0xbf;
}

} // namespace

char RE_terminal_filter::filtered(unsigned char byte)
{
    constexpr char mark = '?';
    const bool b_continues = byte >= 0x80 && byte <= 0xbf;
    if (m_rest > 0 && (m_b_second_next ? is_second_byte(m_lead, byte) : b_continues)) {
        const bool b_control = m_lead == 0xc2 && byte < 0xa0;
        --m_rest;
        m_b_second_next = false;
        return b_control ? mark : static_cast<char>(byte);
    }
    m_lead = byte;
    m_rest = bytes_after(byte);
    m_b_second_next = true;
    const bool b_low = byte < ' ' && byte != '\n' && byte != '\t';
    const bool b_high = byte >= 0x7f && byte < 0xa0;
    return b_low || b_high ? mark : static_cast<char>(byte);
}

void RE_terminal_filter::copy(const char* from, std::size_t size, char* to)
{
    for (std::size_t at = 0; at < size; ++at) {
        to[at] = filtered(static_cast<unsigned char>(from[at]));
    }
}
