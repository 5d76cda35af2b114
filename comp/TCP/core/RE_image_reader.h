// Implements RE_stat_reader for a statistics image. Derived classes supply the image.
#pragma once

#include "RE_sequence.h"
#include "RE_slot_reader.h"
#include "RE_stat_image.h"

#include <memory>

class RE_image_reader : public RE_stat_reader
{
public:
    // A writable image of the same statistics, for the duration of one reset. Its section table is read again, so it
    // may have fewer rows than the image that is read.
    class writable_image
    {
    public:
        virtual ~writable_image() = default;
        RE_stat_image image;
    };

    RE_stat_config_param* get_config_param() override;
    int read_global_stat(int id, long long& value) override;
    int read_global_conn_stat(int id, long long& value) override;
    int read_global_active_conn_count() override;
    int get_max_peer_slots() override;
    bool is_peer_valid(int peer_slot) override;
    int read_peer_header(int peer_slot, RE_stat_peer_header& hdr) override;
    int read_peer_id(int peer_slot, int& peer_id) override;
    int read_peer_stat(int peer_slot, int id, long long& value) override;
    int read_peer_conn_stat(int peer_slot, int id, long long& value) override;
    int read_peer_active_conn_count(int peer_slot) override;
    int get_max_app_slots() override;
    int read_app_slot(int app_slot, RE_stat_app_struct*& p) override;
    std::uint32_t get_app_slot_shared_memory_header_size() override;
    int read_app_header(int app_slot, RE_stat_app_header& hdr) override;
    int read_app_stat(int app_slot, int id, long& value) override;
    const std::uint32_t* get_app_id_array(int app_slot) override;
    int get_max_conn_slots() override;
    bool is_conn_valid(int conn_slot) override;
    int read_conn_header(int conn_slot, RE_stat_conn_header& hdr) override;
    int read_conn_so_header(int conn_slot, SO_stat_conn_header& hdr) override;
    int read_conn_stat(int conn_slot, int id, long long& value) override;
    int read_conn_time(int conn_slot, std::time_t& open_time, std::time_t& close_time) override;
    int read_conn_peer_id(int conn_slot, int& peer_id) override;
    int read_conn_stat_for_qlt(RE_stat_conn_handler conn, RE_stat_conn_for_qlt& out) override;
    int get_first_nack() override;
    int get_next_nack(int cursor, RE_stat_nack_header& hdr) override;
    void reset_all() override;
    void reset_global_stat() override;
    void reset_peer_stat(int peer_slot) override;
    void reset_all_peers() override;
    void reset_all_apps() override;
    void reset_conn_stat(int conn_slot) override;
    void reset_all_conns() override;
    void reset_all_nacks() override;
    void clear_all() override;
    int save_stats_binary(const char* path) override;
    void* get_re_auto_bypass_memory_ptr(int size) override;

    // Return when the engine of these statistics was started, and when they were saved (0 for live statistics): seconds
    // since the epoch, as stored in the image's header. Both are 0 when the reader is not open.
    std::time_t engine_start_time() const { return is_open() ? m_image.header->engine_start_time : 0; }
    std::time_t capture_time() const { return is_open() ? m_image.header->capture_time : 0; }

    // Returns how many NACKs were logged since the engine's start, as of the last get_first_nack(). Cursors of NACKs
    // are the low 31 bits of their numbers.
    std::uint64_t nacks_end() const { return m_nacks_end; }

    // How long to wait for an engine that is changing records. open() sets the time for a report; a caller that must
    // not wait that long replaces it.
    RE_patience& patience() { return m_patience; }

    // Whether the statistics were truncated while they were read. If so, values may have been read as zeros and must be
    // discarded. Must be called after the last read.
    bool is_cut() const { return m_image.is_cut(); }

protected:
    // Start and end the reading of an attached image.
    void begin(const RE_stat_image& image);
    void end();
    bool is_open() const { return m_image.header != nullptr; }
    const RE_stat_image& image() const { return m_image; }

    // Opens the image for writing. Returns null on failure; a missing write permission is logged.
    virtual std::unique_ptr<writable_image> open_writable() = 0;

private:
    bool fetch_peer(int peer_slot, unsigned int field) { return m_peer.fetch(peer_slot, field, m_patience); }
    bool fetch_conn(int conn_slot, unsigned int field) { return m_conn.fetch(conn_slot, field, m_patience); }
    int read_peer_counter(int peer_slot, const RE_image_counters& counters, int id, long long& value);
    // Prefetches the row of counters that a walk with this step reaches soon. Rows are far apart, and a table of a
    // million connections would otherwise wait for memory at each row. Only the start of the row is prefetched; it
    // contains the counters that tables show.
    void walk_counters_to(std::uint32_t row);
    bool fetch_app(int app_slot);

    RE_stat_image m_image;
    RE_slot_reader<RE_image_peer_row> m_peer;
    RE_slot_reader<RE_image_conn_row> m_conn;
    std::uint32_t m_counters_row = 0; // the row of the connection whose counters were read last
    RE_image_config_row m_config{};
    RE_stat_app_struct m_app{};
    std::uint64_t m_nacks_end = 0; // where the walk through the NACK log ends, so that a busy engine cannot prolong it
    RE_patience m_patience;
    std::unique_ptr<unsigned char[]> m_bypass_copy; // a saved table, extended to its full size
};
