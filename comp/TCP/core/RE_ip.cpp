#include "RE_ip.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>

namespace {

// An octet of an address with the dot that follows it, such as "7.", and the length of both.
struct octet_text
{
    char text[4];
    unsigned int length;
};

constexpr std::array<octet_text, 256> make_octet_texts()
{
    std::array<octet_text, 256> texts{};
    for (unsigned int octet = 0; octet < texts.size(); ++octet) {
        octet_text& t = texts[octet];
        for (unsigned int power = octet >= 100 ? 100 : octet >= 10 ? 10 : 1; power > 0; power /= 10) {
            t.text[t.length++] = static_cast<char>('0' + octet / power % 10);
        }
        t.text[t.length++] = '.';
    }
    return texts;
}

constexpr std::array<octet_text, 256> octet_texts = make_octet_texts();

char* put_octet(char* at, unsigned int octet)
{
    std::memcpy(at, octet_texts[octet].text, sizeof octet_texts[octet].text);
    return at + octet_texts[octet].length;
}

} // namespace

// Returns 0 for a text that is not a dotted address. is_ip_martian refuses 0.
unsigned int string_to_ip(const char* s)
{
    in_addr address{};
    if (s == nullptr || inet_pton(AF_INET, s, &address) != 1) {
        return 0;
    }
    return ntohl(address.s_addr);
}

// Uses a table because a report of a million connections needs two million texts.
const char* ip_to_string(unsigned int ip)
{
    // Two results may be used in one print call, for the two ends of a connection.
    static char texts[2][INET_ADDRSTRLEN];
    static unsigned int turn = 0;
    turn ^= 1U;
    char* const text = texts[turn];
    char* end = put_octet(text, ip >> 24U);
    end = put_octet(end, ip >> 16U & 255U);
    end = put_octet(end, ip >> 8U & 255U);
    end = put_octet(end, ip & 255U);
    end[-1] = '\0'; // the last octet's dot
    return text;
}

// Refuses addresses that no host can have: 0/8 ("this network"), multicast, and everything above it, including
// broadcast. Refuses loopback addresses that a user typed (flag 1): no connection through an appliance has one, but
// engines on one machine may use them among themselves.
bool is_ip_martian(unsigned int ip_network_order, int flag)
{
    const unsigned int first_octet = ntohl(ip_network_order) >> 24U;
    return first_octet == 0 || first_octet >= 224 || (first_octet == 127 && flag == 1);
}
