// IPv4 addresses as text and as numbers. An implementation of the engine library supplies these.
#pragma once

// The address of a dotted text in host order (first octet most significant); what a text that is no address gives is
// the implementation's.
unsigned int string_to_ip(const char* s);

// The dotted text of an address in host order. The library owns the result, which holds until the next call or longer.
const char* ip_to_string(unsigned int ip);

// Whether an address, here in network byte order, must be refused as the address of a host. flag: 1 for an address
// that a user typed.
bool is_ip_martian(unsigned int ip_network_order, int flag);
