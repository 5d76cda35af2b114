// The NACK log as a table.
#pragma once

// Prints the log, oldest entry first. A negative conn_id or peer_id accepts every connection or peer.
void show_nack_info(int conn_id, int peer_id);
