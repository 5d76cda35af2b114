// The connection listing.
#pragma once

#include "RE_stat_records.h"

// Prints the connections that pass the filters, the newest id first: as a compact table, or as one block a connection
// when the request is narrow (a client address or port, a connection id, `conn_last`) or asks for more than the
// summary. Addresses in host order. An address or port of 0 and a negative conn_id or peer_id accept everything;
// conn_active keeps open connections only; conn_last keeps the one that was opened last.
void show_conn(unsigned int client_ip, unsigned int server_ip, unsigned short client_port, unsigned short server_port,
               int conn_id, int peer_id, RE_show_type type, bool conn_active, bool conn_last);
