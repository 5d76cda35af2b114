// Publishes an engine's statistics: creates the shared-memory segment that every viewer reads, and keeps the figures in
// it up to date.
//
// Counters are updated with relaxed atomic operations, records under a sequence counter per slot, so that no reader
// slows down or blocks the engine. All functions except create(), publish_again() and close() may be called from
// several threads at the same time. Slots are storage places, counted from 0. Functions with an int result return 0 or
// a slot. A call with a slot, id or size that is out of range, or before create(), changes nothing: functions with an
// int result then return -EINVAL, and get functions return 0. Debug builds of the library abort on an id that is out of
// range.
#pragma once

#include "RE_bypass_table.h"
#include "RE_statistics.h"

#include <ctime>
#include <memory>

// The capacity of a segment.
struct RE_stat_limits
{
    int peers = 256;         // 1 to 4,096
    int connections = 1024;  // 1 to 1,000,000
    int applications = 1024; // 1 to 65,536
    int nacks = 4096;        // entries of the NACK log before it wraps, 1 to 1,000,000
};

class RE_stat_writer
{
public:
    RE_stat_writer();
    // Removes the segment, as close() does.
    ~RE_stat_writer();
    RE_stat_writer(const RE_stat_writer&) = delete;
    RE_stat_writer& operator=(const RE_stat_writer&) = delete;

    // Creates the segment, named by KAV_STAT_SEGMENT or with the built-in name, in /run/kav if that belongs to this
    // user, otherwise in $XDG_RUNTIME_DIR/kav, otherwise in /dev/shm/kav-UID. Holds the segment's lock until close(). A
    // segment of a killed engine is replaced. start_time: when the engine started, seconds since the epoch. mode: who
    // may read the segment (0400, 0040, 0004), and who may write to it, which a reset needs (0200, 0020); the owner may
    // always do both. Returns 0, -EINVAL for an invalid name, limit or mode or when the segment is already created,
    // -EBUSY when another engine uses the name, or -errno. Viewers can read nothing before publish().
    int create(const RE_stat_limits& limits, std::time_t start_time, unsigned int mode = 0640);
    // Allows viewers to read the segment.
    int publish();
    // Whether the segment is still where viewers look for it, and is intact. Another process may have removed, replaced
    // or truncated it, which does not end the engine. An engine calls this about once a second; it costs three system
    // calls.
    bool is_in_place() const;
    // If the segment is not in place, publishes a new one with the same figures and logs that. What was lost by
    // truncation is no longer published: counters start at 0, and connections are missing; peers remain. Returns 0,
    // -EBUSY when another engine has taken the name, or -errno. After an error, the figures are unchanged and the
    // engine may try again later. Other threads must not change figures during the call; their changes would be lost.
    int publish_again();
    // Removes the segment. Viewers that are reading it can finish their reports.
    void close();

    int set_config(const RE_stat_config_param& config);

    int add_global(RE_stat_global_id id, long long delta);
    int set_global(RE_stat_global_id id, long long value);
    long long get_global(RE_stat_global_id id) const;

    // Adds a peer and returns its slot, or -ENOSPC when there is no room.
    int add_peer(int peer_id, const RE_stat_peer_header& header);
    int update_peer(int peer_slot, const RE_stat_peer_header& header);
    // Removes a peer. Its connections keep their figures and its number; the global sums do not change.
    int remove_peer(int peer_slot);
    int add_peer_stat(int peer_slot, RE_stat_peer_id id, long long delta);
    int set_peer_stat(int peer_slot, RE_stat_peer_id id, long long value);
    long long get_peer_stat(int peer_slot, RE_stat_peer_id id) const;

    // Adds a connection with the peer in `peer_slot` and returns its slot. When all slots are taken, the slot of the
    // connection that was closed first is reused. Returns -ENOSPC when all connections are open. Updates the numbers of
    // total and active connections of the engine and of the peer, and the current and highest number of peers with
    // active connections. open_time: seconds since the epoch.
    int open_conn(int peer_slot, const RE_stat_conn_header& header, const SO_stat_conn_header& so_header,
                  std::time_t open_time);
    int update_conn_so_header(int conn_slot, const SO_stat_conn_header& so_header);
    // Marks an open connection as closed. It stays in the list until its slot is reused for another connection. An
    // engine that opens connections in several threads must not use a slot after it has closed it. close_time: seconds
    // since the epoch, 1 or later.
    int close_conn(int conn_slot, std::time_t close_time);
    // Removes a connection from the list at once, whether it is open or closed.
    int release_conn(int conn_slot);

    // Adds to a connection's counter and to the sums of its peer and of the engine, so that the three agree.
    int add_conn_stat(int conn_slot, RE_stat_conn_id id, long long delta);
    // Sets a connection's current value, such as its pending bytes. The two sums change by the difference.
    int set_conn_stat(int conn_slot, RE_stat_conn_id id, long long value);
    long long get_conn_stat(int conn_slot, RE_stat_conn_id id) const;

    // Returns the slot of the application that `key` identifies (by handle, server port, source-port flag and peer).
    // The first call for an application adds it. Returns -ENOSPC when all slots are taken.
    int find_or_add_app(const RE_stat_app_header& key);
    // Adds to an application's counter, which wraps at 2^32.
    int add_app_stat(int app_slot, RE_stat_app_id id, std::uint32_t delta);
    // Adds to the application's connections opened and closed, which wrap at 2^23 and 2^24.
    int add_app_conns(int app_slot, std::uint32_t opened, std::uint32_t closed);

    // Appends to the NACK log. When the log is full, the oldest entry is overwritten. Returns 0, or -ENOSPC when the
    // log has no memory.
    int add_nack(const RE_stat_nack_header& entry);

    // Adds a server to the auto-bypass table, or updates the entry with the same address and port. Returns 0, or
    // -ENOSPC when the table is full.
    int set_bypass(const RE_bypass_entry& entry);
    // Removes a server from the table. server_ip: host order. Returns 0, or -ENOENT when the server is not in the
    // table.
    int clear_bypass(std::uint32_t server_ip, std::uint16_t server_port);

private:
    struct implementation;
    std::unique_ptr<implementation> m_impl;
};
