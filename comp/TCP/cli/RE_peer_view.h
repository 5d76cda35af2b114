// The report on the engine's peers.
#pragma once

#include "RE_stat_records.h"

// Prints the engine's peer counters, then every peer that passes the filters, in slot order. A null MAC, an address of
// 0, a negative peer number and a negative context number each accept every peer.
void show_peer(RE_mac_id* p_peer_mac_id, unsigned int peer_ip, int filter_pid, int ctx, RE_show_type type);

// Prints a peer's cache and buffer summary.
void show_peer_info(int peer_slot);

// Prints a peer's synchronisation, latency and error detail.
void show_peer_detail(int peer_slot);
