// IPv4 addresses as text and as numbers. Each implementation of the engine library provides these functions.
#pragma once

// Returns the address of a dotted text in host order (first octet most significant). The result for any other text
// depends on the implementation.
unsigned int string_to_ip(const char* s);

// Returns the dotted text of an address in host order. The library owns the result, which is valid at least until the
// next call.
const char* ip_to_string(unsigned int ip);

// Whether an address must be refused as the address of a host. ip_network_order: the address in network byte order.
// flag: 1 for an address that a user typed.
bool is_ip_martian(unsigned int ip_network_order, int flag);
