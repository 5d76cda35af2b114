#include "RE_ip.h"

#include <arpa/inet.h>

// A text that is no dotted address gives 0, which is_ip_martian then refuses.
unsigned int string_to_ip(const char* s)
{
    in_addr address{};
    if (s == nullptr || inet_pton(AF_INET, s, &address) != 1) {
        return 0;
    }
    return ntohl(address.s_addr);
}

const char* ip_to_string(unsigned int ip)
{
    // Two results may stand in one print call, as a connection's two ends do.
    static char texts[2][INET_ADDRSTRLEN];
    static unsigned int turn = 0;
    turn ^= 1U;
    const in_addr address{htonl(ip)};
    return inet_ntop(AF_INET, &address, texts[turn], sizeof texts[turn]);
}

// Refused are addresses that no host can have: 0/8 ("this network"), multicast and everything above it, broadcast
// included. Loopback is refused when a user typed it (flag 1): no connection through an appliance ever has it, while
// engines of one machine may talk over it among themselves.
bool is_ip_martian(unsigned int ip_network_order, int flag)
{
    const unsigned int first_octet = ntohl(ip_network_order) >> 24U;
    return first_octet == 0 || first_octet >= 224 || (first_octet == 127 && flag == 1);
}
