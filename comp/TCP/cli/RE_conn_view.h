// The connection listing.
#pragma once

#include "RE_stat_records.h"

// A connection of a listing: the engine's id for it and the index of its slot. All that a listing keeps of it.
struct RE_conn_slot_id
{
    RE_conn_slot_id() = default; // leaves both unset, so that room for many costs nothing until it is used
    RE_conn_slot_id(int conn_id, int conn_slot) : m_conn_id(conn_id), m_conn_slot(conn_slot) {}

    int m_conn_id;
    int m_conn_slot;
};
static_assert(sizeof(RE_conn_slot_id) == 8);

// The order of a listing: the newest id, which is the largest, first.
struct RE_conn_slot_id_compare
{
    bool operator()(const RE_conn_slot_id& a, const RE_conn_slot_id& b) const { return a.m_conn_id > b.m_conn_id; }
};

// Prints the connections that pass the filters, the newest id first and equal ids in slot order: as a compact table, or
// as one block a connection when the request is narrow (a client address or port, a connection id, `conn_last`) or asks
// for more than the summary. Addresses in host order. An address or port of 0 and a negative conn_id or peer_id accept
// everything; conn_active keeps open connections only; conn_last keeps the one that was opened last.
void show_conn(unsigned int client_ip, unsigned int server_ip, unsigned short client_port, unsigned short server_port,
               int conn_id, int peer_id, RE_show_type type, bool conn_active, bool conn_last);
