// What an engine publishes its statistics with: it makes the shared-memory segment that every viewer reads and keeps
// the figures in it up to date.
//
// Counters are updated with relaxed atomic operations, records under a sequence counter per slot, so that no reader
// ever slows or blocks the engine. All operations but create(), publish_again() and close() may be called from several
// threads at once. Slots are storage places counted from 0. A slot, an id or a size that is out of range changes
// nothing; operations with an int result then return -EINVAL. Debug builds of the library stop at an id that is out of
// range.
#pragma once

#include "RE_bypass_table.h"
#include "RE_statistics.h"

#include <ctime>
#include <memory>

// How much room a segment has.
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
    // Withdraws the statistics, as close() does.
    ~RE_stat_writer();
    RE_stat_writer(const RE_stat_writer&) = delete;
    RE_stat_writer& operator=(const RE_stat_writer&) = delete;

    // Makes the segment (named by KAV_STAT_SEGMENT or the built-in name) in /run/kav, when that is this user's, else in
    // $XDG_RUNTIME_DIR/kav, else in /dev/shm/kav-UID, and holds its lock until close(). A segment that a killed engine
    // left behind is replaced. start_time: seconds since the epoch. mode: who may read it (0400, 0040, 0004), or write
    // to it, which resetting takes (0200, 0020); its owner always may. Returns 0, -EINVAL for limits or a mode out of
    // range, -EBUSY when another engine runs on that name, or -errno. Nothing can be read before publish().
    int create(const RE_stat_limits& limits, std::time_t start_time, unsigned int mode = 0640);
    // Lets viewers in.
    void publish();
    // Whether the segment is still where viewers look for it, and whole. Somebody may have removed, replaced or cut it,
    // which ends no engine; an engine asks once a second or so. Costs three system calls.
    bool is_in_place() const;
    // Puts a new segment with the same figures there when it is not, and says so in the system log. After a cut, what
    // was cut is published no more: counters start at 0, and connections are missing; peers stay. Returns 0, -EBUSY
    // when another engine has taken the name, or -errno; then the figures stay as they are, and trying again later is
    // fine. What other threads count meanwhile would be lost, so they do not.
    int publish_again();
    // Removes the segment. Viewers that are reading it finish their report.
    void close();

    void set_config(const RE_stat_config_param& config);

    void add_global(RE_stat_global_id id, long long delta);
    void set_global(RE_stat_global_id id, long long value);
    long long get_global(RE_stat_global_id id) const;

    // Adds a peer and returns its slot, or -ENOSPC.
    int add_peer(int peer_id, const RE_stat_peer_header& header);
    void update_peer(int peer_slot, const RE_stat_peer_header& header);
    // Retires a peer; its connections keep their figures and its number, the global figures stay.
    void remove_peer(int peer_slot);
    void add_peer_stat(int peer_slot, RE_stat_peer_id id, long long delta);
    void set_peer_stat(int peer_slot, RE_stat_peer_id id, long long value);
    long long get_peer_stat(int peer_slot, RE_stat_peer_id id) const;

    // Adds a connection with the peer in `peer_slot` and returns its slot. When all are taken, the connection that
    // closed first gives up its place; -ENOSPC when all are open. Counts it: the total and active connections of the
    // engine and of the peer, and the peers with active connections, now and at most.
    int open_conn(int peer_slot, const RE_stat_conn_header& header, const SO_stat_conn_header& so_header,
                  std::time_t open_time);
    void update_conn_so_header(int conn_slot, const SO_stat_conn_header& so_header);
    // The connection stays in the list as closed until its slot is needed. From then on the slot is another
    // connection's, so an engine whose connections come and go in several threads is done with a slot when it has
    // closed it. close_time: 1 or later.
    void close_conn(int conn_slot, std::time_t close_time);
    // Takes a connection out of the list at once, open or closed.
    void release_conn(int conn_slot);

    // Adds to a connection's figure, and with the same call to its peer's and to the engine's sum, so that the three
    // always agree.
    void add_conn_stat(int conn_slot, RE_stat_conn_id id, long long delta);
    // Sets a connection's current value (bytes pending, say); the two sums move by the difference.
    void set_conn_stat(int conn_slot, RE_stat_conn_id id, long long value);
    long long get_conn_stat(int conn_slot, RE_stat_conn_id id) const;

    // The slot of the application that `key` names (handle, server port, source-port flag, peer), made at the first
    // call for it; -ENOSPC when all slots are taken.
    int find_or_add_app(const RE_stat_app_header& key);
    // Application counters wrap at 2^32.
    void add_app_stat(int app_slot, RE_stat_app_id id, std::uint32_t delta);
    // Connections of the application opened and closed.
    void add_app_conns(int app_slot, std::uint32_t opened, std::uint32_t closed);

    // Appends to the NACK log; the oldest entry goes when it is full.
    void add_nack(const RE_stat_nack_header& entry);

    // Puts a server into the auto-bypass table, or updates its entry (same address and port). -ENOSPC when it is full.
    int set_bypass(const RE_bypass_entry& entry);
    // Takes a server out of the table; -ENOENT when it is not in it.
    int clear_bypass(std::uint32_t server_ip, std::uint16_t server_port);

private:
    struct implementation;
    std::unique_ptr<implementation> m_impl;
};
