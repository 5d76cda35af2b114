// The statistics model: what an engine counts (RE_stat_counters.def), the records it fills (RE_stat_records.h), and
// RE_stat_reader, the one way in which every viewer reaches both. Standard library only.
#pragma once

#include "RE_context_id.h"
#include "RE_stat_records.h"

#include <cstdint>
#include <ctime>

// Counters of the engine as a whole, the ids of read_global_stat.
enum RE_stat_global_id : int
{
#define RE_STAT_GLOBAL(value, enumerator, ...) enumerator = (value),
#define RE_STAT_GLOBAL_RANGE(first, last, enumerator, ...) enumerator = (first),
#include "RE_stat_counters.def"
    SO_STAT_RC_MAX = 123,
    SO_STAT_HWFQ_BYTES_MAX = 383,
    RE_STAT_GLOBAL_ID_MAX = 384,
};

// Counters of one peer, the ids of read_peer_stat.
enum RE_stat_peer_id : int
{
#define RE_STAT_PEER(value, enumerator, ...) enumerator = (value),
#include "RE_stat_counters.def"
    RE_STAT_PEER_ID_MAX = 42,
};

// Counters of connections, the ids of read_conn_stat, read_peer_conn_stat and read_global_conn_stat. Bytes, times and
// sizes come first, counts of events from RE_STAT_CONN_ID_MAX_LONG_LONG on.
enum RE_stat_conn_id : int
{
#define RE_STAT_CONN(value, enumerator, ...) enumerator = (value),
#include "RE_stat_counters.def"
    RE_STAT_CONN_ID_MAX_LONG_LONG = 81,
    RE_STAT_CONN_ID_MAX = 166,
};

// Counters of one application, indexes into RE_stat_app_struct::m_id_array.
enum RE_stat_app_id : int
{
#define RE_STAT_APP(value, enumerator, ...) enumerator = (value),
#include "RE_stat_counters.def"
    RE_STAT_APP_ID_MAX = 18,
};

static_assert(RE_STAT_GLOBAL_ID_SEGMENT_PADDING_SIZE == 84 && SO_STAT_JOB_NUM_F_IO == 85);
static_assert(SO_STAT_RESET_CONN_NUM == 103 && SO_STAT_RC_NONE == 104);
static_assert(SO_STAT_HWFQ_BYTES_DSCP_BASE == 123 && SO_STAT_HWFQ_BYTES_CLASS_BASE == 127);
static_assert(SO_STAT_DECODE_BYPASS_BYTES == 80 && RE_STAT_CONN_ID_ENCODE_NUM_MSGS == RE_STAT_CONN_ID_MAX_LONG_LONG);
static_assert(sizeof(RE_stat_app_struct::m_id_array) / sizeof(std::uint32_t) == RE_STAT_APP_ID_MAX);

enum RE_stat_reader_type : int
{
    RE_STAT_READER_SHM = 0,  // live statistics of the running engine, in shared memory
    RE_STAT_READER_FILE = 1, // statistics read back from a file that save_stats_binary wrote
};

// Reads an engine's statistics. The order of the virtual operations is a contract with the engine library.
//
// Unless said otherwise an int result is 0 or above for success and negative for failure, and out-values are written
// in either case: 0, -1 for a peer number, or an empty record when the slot or id is unknown. Slots are storage places
// counted from 0; they are neither peer numbers nor connection ids. Nothing here is safe to call from two threads at
// once on one reader.
class RE_stat_reader
{
public:
    virtual ~RE_stat_reader() = default;

    // Attaches to the shared memory or loads the file. For live statistics any result but 0 means failure; for a file
    // only a negative one does.
    virtual int open() = 0;
    // Lets go of what open() took; open() may be called again. Destruction does the same.
    virtual int close() = 0;

    // The engine's configuration, or null when it published none. The reader owns it.
    virtual RE_stat_config_param* get_config_param() = 0;

    // id: an RE_stat_global_id.
    virtual int read_global_stat(int id, long long& value) = 0;
    // id: an RE_stat_conn_id; the sum over all connections, closed ones included.
    virtual int read_global_conn_stat(int id, long long& value) = 0;
    virtual int read_global_active_conn_count() = 0;

    // Peer slots to scan are 0 to the result less one.
    virtual int get_max_peer_slots() = 0;
    virtual bool is_peer_valid(int peer_slot) = 0;
    virtual int read_peer_header(int peer_slot, RE_stat_peer_header& hdr) = 0;
    // The peer's number, shown as "Peer-No".
    virtual int read_peer_id(int peer_slot, int& peer_id) = 0;
    // id: an RE_stat_peer_id.
    virtual int read_peer_stat(int peer_slot, int id, long long& value) = 0;
    // id: an RE_stat_conn_id; the sum over all connections with the peer.
    virtual int read_peer_conn_stat(int peer_slot, int id, long long& value) = 0;
    virtual int read_peer_active_conn_count(int peer_slot) = 0;

    virtual int get_max_app_slots() = 0;
    // Points `p` at the slot's record in the reader's memory, or sets it to null when there is no such slot. The record
    // holds until the next call about an application.
    virtual int read_app_slot(int app_slot, RE_stat_app_struct*& p) = 0;
    // The number of application slots that a scan visits; a scan also ends at the first null record.
    virtual std::uint32_t get_app_slot_shared_memory_header_size() = 0;
    virtual int read_app_header(int app_slot, RE_stat_app_header& hdr) = 0;
    // id: an RE_stat_app_id.
    virtual int read_app_stat(int app_slot, int id, long& value) = 0;
    // The slot's counters, RE_STAT_APP_ID_MAX of them, in the reader's memory; null when there is no such slot. They
    // hold until the next call about an application.
    virtual const std::uint32_t* get_app_id_array(int app_slot) = 0;

    // Connection slots to scan are 0 to the result less one.
    virtual int get_max_conn_slots() = 0;
    virtual bool is_conn_valid(int conn_slot) = 0;
    virtual int read_conn_header(int conn_slot, RE_stat_conn_header& hdr) = 0;
    virtual int read_conn_so_header(int conn_slot, SO_stat_conn_header& hdr) = 0;
    // id: an RE_stat_conn_id.
    virtual int read_conn_stat(int conn_slot, int id, long long& value) = 0;
    // Seconds since the epoch; a close time of 0 or less means that the connection is open.
    virtual int read_conn_time(int conn_slot, std::time_t& open_time, std::time_t& close_time) = 0;
    // The number of the connection's peer.
    virtual int read_conn_peer_id(int conn_slot, int& peer_id) = 0;
    virtual int read_conn_stat_for_qlt(RE_stat_conn_handler conn, RE_stat_conn_for_qlt& out) = 0;

    // Cursor of the oldest entry of the NACK log, negative when the log is empty. Cursors are opaque; 0 is a valid one.
    virtual int get_first_nack() = 0;
    // Fills `hdr` with the entry at `cursor` and returns the next cursor, which is not negative even for the last
    // entry; negative when there is no entry at `cursor`.
    virtual int get_next_nack(int cursor, RE_stat_nack_header& hdr) = 0;

    // Set figures back to 0. On live statistics they need write permission; without it they change nothing and say so
    // in the system log.
    virtual void reset_all() = 0;
    virtual void reset_global_stat() = 0;
    virtual void reset_peer_stat(int peer_slot) = 0;
    virtual void reset_all_peers() = 0;
    virtual void reset_all_apps() = 0;
    virtual void reset_conn_stat(int conn_slot) = 0;
    virtual void reset_all_conns() = 0;
    virtual void reset_all_nacks() = 0;
    virtual void clear_all() = 0;

    // Writes all statistics to `path`; negative on failure.
    virtual int save_stats_binary(const char* path) = 0;

    // Start of the auto-bypass table's memory, `size` bytes of it, or null when there is none of that size.
    virtual void* get_re_auto_bypass_memory_ptr(int size) = 0;

    // Makes a reader that the caller owns and deletes. path: null for live statistics, the file's name otherwise. Null
    // when no reader can be made.
    static RE_stat_reader* create(RE_stat_reader_type type, const char* path);
    // The one reader of this kind and path that the whole process shares, made at the first call and never deleted by
    // the caller; null when no reader can be made.
    static RE_stat_reader* only(RE_stat_reader_type type, const char* path);
};
static_assert(sizeof(RE_stat_reader) == sizeof(void*), "a reader's interface holds nothing but its virtual table");
