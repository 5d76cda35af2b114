#include "RE_ip.h"

#include <arpa/inet.h>

#include <array>
#include <cstddef>
#include <cstring>

// A text that is no dotted address gives 0, which is_ip_martian then refuses.
unsigned int string_to_ip(const char* s)
{
    in_addr address{};
    if (s == nullptr || inet_pton(AF_INET, s, &address) != 1) {
        return 0;
    }
    return ntohl(address.s_addr);
}

namespace {

struct octet_text
{
    char text[4]; // "7.", "255."
    std::size_t length;
};

// Every octet with the dot behind it: a listing of connections makes two addresses a row, and has a million rows.
constexpr auto octet_texts = [] {
    std::array<octet_text, 256> octets{};
    for (unsigned int octet = 0; octet < octets.size(); ++octet) {
        octet_text& t = octets[octet];
        for (unsigned int unit = octet >= 100 ? 100 : octet >= 10 ? 10 : 1; unit > 0; unit /= 10) {
            t.text[t.length++] = static_cast<char>('0' + octet / unit % 10);
        }
        t.text[t.length++] = '.';
    }
    return octets;
}();

} // namespace

const char* ip_to_string(unsigned int ip)
{
    // Two results may stand in one print call, as a connection's two ends do.
    static char texts[2][INET_ADDRSTRLEN + 1];
    static unsigned int turn = 0;
    turn ^= 1U;
    char* const text = texts[turn];
    char* end = text;
    for (unsigned int shift = 32; shift > 0; shift -= 8) {
        const octet_text& octet = octet_texts[(ip >> (shift - 8)) & 255U];
        std::memcpy(end, octet.text, sizeof octet.text);
        end += octet.length;
    }
    end[-1] = '\0';
    return text;
}

// Refused are addresses that no host can have: 0/8 ("this network"), multicast and everything above it, broadcast
// included. Loopback is refused when a user typed it (flag 1): no connection through an appliance ever has it, while
// engines of one machine may talk over it among themselves.
bool is_ip_martian(unsigned int ip_network_order, int flag)
{
    const unsigned int first_octet = ntohl(ip_network_order) >> 24U;
    return first_octet == 0 || first_octet >= 224 || (first_octet == 127 && flag == 1);
}
