// The statistics model: what an engine counts (RE_stat_counters.def), the records it fills (RE_stat_records.h), and
// RE_stat_reader, through which every viewer reads both. It uses the standard library only.
#pragma once

#include "RE_context_id.h"
#include "RE_stat_ids.h"
#include "RE_stat_records.h"

#include <cstdint>
#include <ctime>

enum RE_stat_reader_type : int
{
    RE_STAT_READER_SHM = 0,  // live statistics of the running engine, in shared memory
    RE_STAT_READER_FILE = 1, // statistics read back from a file that save_stats_binary wrote
};

// Reads an engine's statistics. The order of the virtual functions is a contract with the engine library.
//
// Unless stated otherwise, an int result is 0 or above on success and negative on failure. Output parameters are always
// written: when the slot or id is unknown, with 0, with -1 for a peer number, or with an empty record. Slots are
// storage places, counted from 0; they are neither peer numbers nor connection ids. Two threads must not use the same
// reader at the same time.
class RE_stat_reader
{
public:
    virtual ~RE_stat_reader() = default;

    // Attaches to the shared memory or loads the file. For live statistics, any result other than 0 is a failure; for a
    // file, only a negative result is.
    virtual int open() = 0;
    // Releases what open() acquired; open() may be called again. The destructor does the same.
    virtual int close() = 0;

    // Returns the engine's configuration, or null when the engine has published none. The reader owns it.
    virtual RE_stat_config_param* get_config_param() = 0;

    // id: an RE_stat_global_id.
    virtual int read_global_stat(int id, long long& value) = 0;
    // Reads the sum over all connections, including closed ones. id: an RE_stat_conn_id.
    virtual int read_global_conn_stat(int id, long long& value) = 0;
    virtual int read_global_active_conn_count() = 0;

    // A scan visits the peer slots from 0 to the result minus 1.
    virtual int get_max_peer_slots() = 0;
    virtual bool is_peer_valid(int peer_slot) = 0;
    virtual int read_peer_header(int peer_slot, RE_stat_peer_header& hdr) = 0;
    // Reads the peer's number, which reports show as "Peer-No".
    virtual int read_peer_id(int peer_slot, int& peer_id) = 0;
    // id: an RE_stat_peer_id.
    virtual int read_peer_stat(int peer_slot, int id, long long& value) = 0;
    // Reads the sum over all connections with the peer. id: an RE_stat_conn_id.
    virtual int read_peer_conn_stat(int peer_slot, int id, long long& value) = 0;
    virtual int read_peer_active_conn_count(int peer_slot) = 0;

    virtual int get_max_app_slots() = 0;
    // Points `p` at the slot's record in the reader's memory, or sets it to null when there is no such slot. The record
    // is valid until the next call about an application.
    virtual int read_app_slot(int app_slot, RE_stat_app_struct*& p) = 0;
    // Returns the number of application slots that a scan visits. A scan also ends at the first null record.
    virtual std::uint32_t get_app_slot_shared_memory_header_size() = 0;
    virtual int read_app_header(int app_slot, RE_stat_app_header& hdr) = 0;
    // id: an RE_stat_app_id.
    virtual int read_app_stat(int app_slot, int id, long& value) = 0;
    // Returns the slot's RE_STAT_APP_ID_MAX counters in the reader's memory, or null when there is no such slot. They
    // are valid until the next call about an application.
    virtual const std::uint32_t* get_app_id_array(int app_slot) = 0;

    // A scan visits the connection slots from 0 to the result minus 1.
    virtual int get_max_conn_slots() = 0;
    virtual bool is_conn_valid(int conn_slot) = 0;
    virtual int read_conn_header(int conn_slot, RE_stat_conn_header& hdr) = 0;
    virtual int read_conn_so_header(int conn_slot, SO_stat_conn_header& hdr) = 0;
    // id: an RE_stat_conn_id.
    virtual int read_conn_stat(int conn_slot, int id, long long& value) = 0;
    // Seconds since the epoch; a close time of 0 or less means that the connection is open.
    virtual int read_conn_time(int conn_slot, std::time_t& open_time, std::time_t& close_time) = 0;
    // Reads the number of the connection's peer.
    virtual int read_conn_peer_id(int conn_slot, int& peer_id) = 0;
    virtual int read_conn_stat_for_qlt(RE_stat_conn_handler conn, RE_stat_conn_for_qlt& out) = 0;

    // Returns the cursor of the oldest entry of the NACK log, or a negative value when the log is empty. Cursors are
    // opaque; 0 is a valid one.
    virtual int get_first_nack() = 0;
    // Fills `hdr` with the entry at `cursor` and returns the next cursor, which is not negative even after the last
    // entry. Returns a negative value when there is no entry at `cursor`.
    virtual int get_next_nack(int cursor, RE_stat_nack_header& hdr) = 0;

    // Reset figures to 0: running totals and maxima, and with clear_all() current values as well. On live statistics
    // this needs write permission; without it, nothing changes and the failure is logged.
    virtual void reset_all() = 0;
    virtual void reset_global_stat() = 0;
    virtual void reset_peer_stat(int peer_slot) = 0;
    virtual void reset_all_peers() = 0;
    virtual void reset_all_apps() = 0;
    virtual void reset_conn_stat(int conn_slot) = 0;
    virtual void reset_all_conns() = 0;
    virtual void reset_all_nacks() = 0;
    virtual void clear_all() = 0;

    // Writes all statistics to `path`. Returns a negative value on failure.
    virtual int save_stats_binary(const char* path) = 0;

    // Returns the start of the auto-bypass table's memory, or null when there is no table of exactly `size` bytes. The
    // reader owns the memory.
    virtual void* get_re_auto_bypass_memory_ptr(int size) = 0;

    // Creates a reader, which the caller owns and deletes. path: the name of the file; null for live statistics.
    // Returns null when no reader can be created.
    static RE_stat_reader* create(RE_stat_reader_type type, const char* path);
    // Returns the reader of this type and path that the whole process shares. The first call creates it; the caller
    // must not delete it. Returns null when no reader can be created.
    static RE_stat_reader* only(RE_stat_reader_type type, const char* path);
};
static_assert(sizeof(RE_stat_reader) == sizeof(void*), "a reader's interface holds nothing but its virtual table");
