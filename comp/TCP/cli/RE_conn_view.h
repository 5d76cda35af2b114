// The connection listing.
#pragma once

#include "RE_stat_records.h"

// A connection of a listing: the engine's id for it and the index of its slot. A listing stores nothing else.
struct RE_conn_slot_id
{
    RE_conn_slot_id() = default; // leaves both uninitialised, so that a large array costs nothing until it is used
    RE_conn_slot_id(int conn_id, int conn_slot) : m_conn_id(conn_id), m_conn_slot(conn_slot) {}

    int m_conn_id;
    int m_conn_slot;
};
static_assert(sizeof(RE_conn_slot_id) == 8);

// The order of a listing: the newest id, which is the largest, comes first.
struct RE_conn_slot_id_compare
{
    bool operator()(const RE_conn_slot_id& a, const RE_conn_slot_id& b) const { return a.m_conn_id > b.m_conn_id; }
};

// Prints the connections that pass the filters, the newest id first and equal ids in slot order. The listing is a
// compact table. Instead, it has one block per connection when the request is narrow (a client address or port, a
// connection id, `conn_last`) or asks for more than the summary. Addresses are in host order. An address or port of 0
// and a negative conn_id or peer_id accept everything. conn_active keeps only open connections; conn_last keeps only
// the connection that was opened last.
void show_conn(unsigned int client_ip, unsigned int server_ip, unsigned short client_port, unsigned short server_port,
               int conn_id, int peer_id, RE_show_type type, bool conn_active, bool conn_last);
