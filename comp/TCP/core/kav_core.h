/**
 * @file kav_core.h
 * Publishes an engine's statistics, for engines in C and in every language that can call C.
 *
 * An engine creates a writer, tells it of peers and connections, and adds to their counters. Viewers read the figures
 * from shared memory. They never slow down or block the engine.
 *
 * Functions with an `int` result return 0 or a slot, or a negative #kav_error. After an error, nothing has changed. A
 * null pointer, a slot that was never used, or an id or value that is out of range gives #KAV_ERROR_ARGUMENT. No
 * function throws or ends the process. Records are copied during the call.
 *
 * Slots are storage places, counted from 0. Counter ids are those of `RE_stat_ids.h`; `RE_stat_counters.def` states
 * unit, kind and meaning of every counter. All times are seconds since the epoch. IPv4 addresses and ports are in host
 * order: 192.0.2.10 is 0xc000020a.
 *
 * Each function states what several threads may do. A writer may be used by any thread, not only by the one that
 * created it.
 */
#ifndef KAV_CORE_H
#define KAV_CORE_H

#include "RE_stat_ids.h"

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Why a call failed. */
enum kav_error
{
    KAV_ERROR_ARGUMENT = -1,   /**< an argument is null or out of range, or KAV_STAT_SEGMENT is not a valid name */
    KAV_ERROR_BUSY = -2,       /**< another engine uses the name */
    KAV_ERROR_FULL = -3,       /**< no slot is free, or the table is full */
    KAV_ERROR_NOT_FOUND = -4,  /**< the server is not in the auto-bypass table */
    KAV_ERROR_MEMORY = -5,     /**< not enough memory */
    KAV_ERROR_PERMISSION = -6, /**< this user may not do that */
    KAV_ERROR_SPACE = -7,      /**< the file system is full, or a quota or size limit is reached */
    KAV_ERROR_FILE = -8,       /**< the statistics cannot be saved in this file */
    KAV_ERROR_SYSTEM = -9      /**< another error of the system */
};

/** An engine's published statistics. */
typedef struct kav_writer kav_writer;

/** The capacity of a writer. */
typedef struct kav_limits
{
    int32_t peers;        /**< 1 to 4,096 */
    int32_t connections;  /**< 1 to 1,000,000 */
    int32_t applications; /**< 1 to 65,536 */
    int32_t nacks;        /**< entries of the NACK log before it wraps, 1 to 1,000,000 */
} kav_limits;

/** Values of the counter `RE_STAT_GLOBAL_ID_CACHE_STATE`. */
enum kav_cache_state
{
    KAV_CACHE_NOT_USABLE = 0,
    KAV_CACHE_INITIALIZING = 1,
    KAV_CACHE_USABLE = 2,
    KAV_CACHE_TEMPORARILY_FAILED = 3,
    KAV_CACHE_FAILED = 4
};

/** The identity of a peer. */
typedef struct kav_peer
{
    uint8_t context_id[20];      /**< MAC addresses of both devices, then 8 bytes that tell their contexts apart */
    uint8_t mac_id[6];           /**< MAC address of the peer's device */
    uint8_t kav_peer_id[16];     /**< identity of the peer's engine; begins with a MAC address of its device */
    uint32_t ip;                 /**< as the peer reported it; 0 when it did not */
    const char* host_name;       /**< cut after 256 bytes; null or empty when it is not known */
    bool outdated;               /**< what is known of the peer is out of date */
    bool from_active_connection; /**< it came from a connection that is open; false while the peer is disconnected */
} kav_peer;

/** What works on a connection. */
enum kav_compression
{
    KAV_COMPRESSION_UNUSED = 0,     /**< connections without compression are not listed in reports */
    KAV_COMPRESSION_REDUNDANCY = 1, /**< redundancy elimination only */
    KAV_COMPRESSION_LZ = 2,         /**< LZ only */
    KAV_COMPRESSION_BOTH = 3,
    KAV_COMPRESSION_NONE = 4
};

/** The identity of a connection. */
typedef struct kav_connection
{
    int32_t id; /**< the engine's number for it */
    uint32_t client_ip;
    uint32_t server_ip;
    uint16_t client_port;
    uint16_t server_port;
} kav_connection;

/** What one side requests from the engine for a connection. */
typedef struct kav_hints
{
    uint8_t latency;         /**< 0 to 15 */
    uint8_t compression_off; /**< 0 to 15 */
    uint8_t mode;            /**< 0 to 3 */
} kav_hints;

/** Bits of kav_transport::end_of_traffic. Those with SINGLE are about the traffic of a single side. */
enum kav_end_of_traffic
{
    KAV_END_REQUEST_SENT = 1,
    KAV_END_REQUEST_RECEIVED = 2,
    KAV_END_ACK_SENT = 4,
    KAV_END_ACK_RECEIVED = 8,
    KAV_END_SINGLE_REQUEST_SENT = 16,
    KAV_END_SINGLE_REQUEST_RECEIVED = 32,
    KAV_END_SINGLE_ACK_SENT = 64,
    KAV_END_SINGLE_ACK_RECEIVED = 128
};

/** Bits of kav_transport::application_socket and kav_transport::wan_socket. */
enum kav_socket
{
    KAV_SOCKET_READ_SHUT = 1,
    KAV_SOCKET_WRITE_SHUT = 2,
    KAV_SOCKET_CLOSED = 4,
    KAV_SOCKET_PEER_CHOKED = 8,
    KAV_SOCKET_AWAITS_READ = 16,
    KAV_SOCKET_AWAITS_WRITE = 32,
    KAV_SOCKET_ENVOY = 64
};

/** A connection as the transport optimizer sees it. An engine without one sets `compression` and leaves the rest 0. */
typedef struct kav_transport
{
    uint8_t type;               /**< 0 to 15 */
    uint8_t compression;        /**< a #kav_compression, 0 to 15 */
    uint8_t end_of_traffic;     /**< bits of #kav_end_of_traffic */
    uint8_t application_socket; /**< bits of #kav_socket */
    uint8_t wan_socket;         /**< bits of #kav_socket */
    kav_hints local_hints;
    kav_hints remote_hints;
    kav_hints active_hints;
    uint8_t local_mode;   /**< configured here, 0 to 3 */
    uint8_t remote_mode;  /**< configured at the peer, 0 to 3 */
    uint8_t applied_mode; /**< 0 to 3 */
    bool mode_negotiated;
    uint8_t reset_code;
    uint8_t class_id;
    uint8_t dscp;
    uint8_t wan_insert_type;
    int32_t wan_descriptor;
    int32_t application_descriptor;
    int64_t end_of_traffic_remote_bytes;
    int64_t end_of_traffic_local_bytes;
} kav_transport;

/** The identity of an application. */
typedef struct kav_application
{
    uint8_t kav_peer_id[16];
    uint16_t handle; /**< number that stands for the application's names, 0 to 1,023 */
    uint16_t port;
    bool is_source_port; /**< the port is the client's, not the server's */
} kav_application;

/** Values of kav_nack::type. */
enum kav_nack_type
{
    KAV_NACK_AT_RECEIVER = 0, /**< this engine could not decode and sent the NACK */
    KAV_NACK_AT_SENDER = 1    /**< this engine received the NACK and sends the message again */
};

/** Values of kav_nack::reason. */
enum kav_nack_reason
{
    KAV_NACK_NO_REASON = 0,
    KAV_NACK_CHUNK_MISSED = 1,
    KAV_NACK_CHECKSUM_COLLISION = 2,
    KAV_NACK_DISK_OVERLOADED = 3,
    KAV_NACK_CACHE_NOT_READY = 4
};

/** An entry of the NACK log. */
typedef struct kav_nack
{
    int32_t time;
    int16_t type;    /**< a #kav_nack_type */
    int16_t reason;  /**< a #kav_nack_reason */
    int32_t peer_id; /**< the peer's number */
    int32_t connection_id;
    int32_t message;
} kav_nack;

/** Values of kav_bypass::reason. */
enum kav_bypass_reason
{
    KAV_BYPASS_LOW_COMPRESSION = 1, /**< the engine removed too little redundancy to be worth the work */
    KAV_BYPASS_CONFIGURED = 2,      /**< the configuration says so */
    KAV_BYPASS_REPEATED_NACKS = 3   /**< the peer failed to decode too often */
};

/** A server whose traffic bypasses the engine. */
typedef struct kav_bypass
{
    uint32_t server_ip;
    uint16_t server_port;
    uint16_t reason;      /**< a #kav_bypass_reason */
    int64_t since;        /**< when the bypass began */
    int64_t next_attempt; /**< when the engine tries the server again; 0 for never */
    uint64_t bytes;       /**< that bypassed the engine since then */
    uint64_t connections; /**< that bypassed the engine since then */
} kav_bypass;

/** The engine's configuration. A field is in the unit that its name ends in, otherwise in bytes or a plain count. */
typedef struct kav_configuration
{
    uint8_t own_mac_id[6];
    uint8_t local_kav_peer_id[16];
    bool replication_acceleration;
    int32_t compression; /**< a #kav_compression */
    int32_t max_peer_slots;
    int32_t max_current_connections;
    int32_t max_connection_slots;
    int32_t max_fan_out;
    int32_t worker_threads;
    int32_t total_disk_mb;
    int32_t total_memory_mb;
    int32_t hash_table_memory_mb;
    int32_t plz_memory_mb;
    int32_t plz_buffer_queue_size;
    int32_t total_weq_buffer_mb;
    int32_t cache_data_version;
    int32_t ack_queue_weq_cap_mb;
    int32_t ack_queue_disk_cap_mb;
    int32_t wait_queue_cap_mb;
    int32_t max_signature_blocks;
    int32_t max_data_units;
    int32_t signature_read_pool_size;
    int32_t data_read_pool_size;
    int32_t anchor_distance;
    int32_t section_size;
    int32_t average_chunk_size;
    int32_t min_chunk_size;
    bool partial_lookup;
    uint16_t write_threshold;
    uint16_t cold_pass_threshold;
    const char* lz_algorithm; /**< cut after 31 bytes; null for an empty text */
    int32_t lz_min_message_size;
    int32_t lz_memory_level;
    int32_t lz_window_bits;
    int32_t lz_compression_level;
    bool lz_adaptive;
    int32_t lz_adaptive_threshold;
    bool lz_adaptive_uses_entropy;
    bool big_message_checksum;
    int32_t plz_high_watermark;
    int32_t plz_low_watermark;
    bool plz_enabled;
    int32_t iov_block_size;
    int32_t auto_bypass_threshold_mb;
} kav_configuration;

/**
 * Returns a text for an error: lower case, no full stop, never null.
 * @param error  the result of a function of this file
 *
 * Any thread may call it at any time.
 */
const char* kav_error_text(int error);

/**
 * Creates the segment of shared memory that holds the statistics. Viewers can read nothing before kav_writer_publish().
 *
 * The segment is named by KAV_STAT_SEGMENT, or has the built-in name. It is in /run/kav if that folder belongs to this
 * user, otherwise in $XDG_RUNTIME_DIR/kav, otherwise in /dev/shm/kav-UID. The segment of a killed engine is replaced.
 * @param writer      receives the writer, null after an error
 * @param limits      its capacity; null for 256 peers, 1,024 connections, 1,024 applications and 4,096 NACKs
 * @param start_time  when the engine started
 * @param mode        who may read the segment (0400, 0040, 0004), and who may write to it, which a reset needs (0200,
 *                    0020); the owner may always do both
 *
 * Several threads may create writers at the same time, each under a name of its own.
 */
int kav_writer_create(kav_writer** writer, const kav_limits* limits, int64_t start_time, unsigned int mode);

/**
 * Removes the segment and frees the writer. Viewers that are reading it can finish their reports. Does nothing with
 * null.
 *
 * No other thread may use the writer during the call or after it.
 */
void kav_writer_close(kav_writer* writer);

/** Allows viewers to read the segment. Several threads may use the writer at the same time. */
int kav_writer_publish(kav_writer* writer);

/**
 * Returns 1 when the segment is still where viewers look for it and is intact, otherwise 0. Another process may have
 * removed, replaced or truncated it, which does not end the engine. An engine calls this about once a second; it costs
 * three system calls.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_is_in_place(const kav_writer* writer);

/**
 * Publishes a new segment with the same figures when the segment is not in place. What was lost by truncation is no
 * longer published: counters start at 0, and connections are missing; peers remain. After an error, the engine may try
 * again later.
 *
 * Other threads must not change figures during the call; their changes would be lost.
 */
int kav_writer_publish_again(kav_writer* writer);

/**
 * Saves the published statistics in a file, which viewers read as they read a running engine. A file of this name is
 * replaced as a whole or not at all. It takes the segment that KAV_STAT_SEGMENT names at the time of the call.
 * @param writer  must have been published
 * @param path    name of the file
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_save(kav_writer* writer, const char* path);

/** Publishes the engine's configuration. Several threads may use the writer at the same time. */
int kav_writer_set_configuration(kav_writer* writer, const kav_configuration* configuration);

/** Adds to a counter of the engine. `id`: an #RE_stat_global_id. Several threads may use the writer at the same time.
 */
int kav_writer_add_global(kav_writer* writer, int id, int64_t delta);
/** Sets a counter of the engine. `id`: an #RE_stat_global_id. Several threads may use the writer at the same time. */
int kav_writer_set_global(kav_writer* writer, int id, int64_t value);

/**
 * Adds a peer and returns its slot.
 * @param writer   the writer
 * @param peer_id  its number, which reports show as "Peer-No"
 * @param peer     its identity
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_add_peer(kav_writer* writer, int32_t peer_id, const kav_peer* peer);
/** Changes the identity of a peer. Several threads may use the writer at the same time. */
int kav_writer_update_peer(kav_writer* writer, int peer_slot, const kav_peer* peer);
/**
 * Removes a peer. Its connections keep their figures and its number; the sums of the engine do not change.
 *
 * Several threads may use the writer at the same time. None of them may use the slot after this call.
 */
int kav_writer_remove_peer(kav_writer* writer, int peer_slot);
/** Adds to a counter of a peer. `id`: an #RE_stat_peer_id. Several threads may use the writer at the same time. */
int kav_writer_add_peer_stat(kav_writer* writer, int peer_slot, int id, int64_t delta);
/** Sets a counter of a peer. `id`: an #RE_stat_peer_id. Several threads may use the writer at the same time. */
int kav_writer_set_peer_stat(kav_writer* writer, int peer_slot, int id, int64_t value);

/**
 * Adds a connection and returns its slot. When all slots are taken, the slot of the connection that was closed first is
 * reused. Updates the numbers of total and active connections of the engine and of the peer.
 * @param writer      the writer
 * @param peer_slot   the connection's peer
 * @param connection  its identity
 * @param transport   its state
 * @param open_time   when it was opened
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_open_connection(kav_writer* writer, int peer_slot, const kav_connection* connection,
                               const kav_transport* transport, int64_t open_time);
/** Changes the state of a connection. Several threads may use the writer at the same time. */
int kav_writer_update_transport(kav_writer* writer, int connection_slot, const kav_transport* transport);
/**
 * Marks an open connection as closed. It stays in the list until its slot is reused.
 * @param writer           the writer
 * @param connection_slot  the connection
 * @param close_time       1 or later
 *
 * Several threads may use the writer at the same time. None of them may use the slot after this call.
 */
int kav_writer_close_connection(kav_writer* writer, int connection_slot, int64_t close_time);
/**
 * Removes a connection from the list at once, whether it is open or closed.
 *
 * Several threads may use the writer at the same time. None of them may use the slot after this call.
 */
int kav_writer_release_connection(kav_writer* writer, int connection_slot);
/**
 * Adds to a counter of a connection and to the sums of its peer and of the engine, so that the three agree. `id`: an
 * #RE_stat_conn_id.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_add_connection_stat(kav_writer* writer, int connection_slot, int id, int64_t delta);
/**
 * Sets a connection's current value, such as its pending bytes. The two sums change by the difference. `id`: an
 * #RE_stat_conn_id.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_set_connection_stat(kav_writer* writer, int connection_slot, int id, int64_t value);

/**
 * Returns the slot of an application. The first call for an application adds it.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_find_or_add_application(kav_writer* writer, const kav_application* application);
/**
 * Adds to a counter of an application, which wraps at 2^32. `id`: an #RE_stat_app_id.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_add_application_stat(kav_writer* writer, int application_slot, int id, uint32_t delta);
/**
 * Adds to an application's connections opened and closed, which wrap at 2^23 and 2^24.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_add_application_connections(kav_writer* writer, int application_slot, uint32_t opened, uint32_t closed);

/**
 * Appends to the NACK log. When the log is full, the oldest entry is overwritten.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_add_nack(kav_writer* writer, const kav_nack* nack);

/**
 * Adds a server to the auto-bypass table, or updates the entry with the same address and port.
 *
 * Several threads may use the writer at the same time.
 */
int kav_writer_set_bypass(kav_writer* writer, const kav_bypass* bypass);
/** Removes a server from the auto-bypass table. Several threads may use the writer at the same time. */
int kav_writer_clear_bypass(kav_writer* writer, uint32_t server_ip, uint16_t server_port);

#ifdef __cplusplus
}
#endif

#endif
