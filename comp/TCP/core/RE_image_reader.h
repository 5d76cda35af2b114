// All of RE_stat_reader over a statistics image; where the image comes from is the derived classes' part.
#pragma once

#include "RE_sequence.h"
#include "RE_slot_reader.h"
#include "RE_stat_image.h"

#include <memory>

class RE_image_reader : public RE_stat_reader
{
public:
    // An image of the same statistics that may be written to, for the length of one reset. Its table is read anew, so
    // it may have fewer rows than the image that is read.
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

    // When the engine that these statistics are of was started, and when they were saved (0 for live ones): seconds
    // since the epoch, as the image's header has them. 0 when not open.
    std::time_t engine_start_time() const { return is_open() ? m_image.header->engine_start_time : 0; }
    std::time_t capture_time() const { return is_open() ? m_image.header->capture_time : 0; }

    // With an engine that is changing records. open() sets it to that of a report; a reader that must not wait for so
    // long replaces it.
    RE_patience& patience() { return m_patience; }

    // Whether the statistics were cut short while they were read: what was read may be zeros then, and is to be thrown
    // away. To be asked after the last read.
    bool is_cut() const { return m_image.is_cut(); }

protected:
    // Starts and ends the reading of an image that has been attached to.
    void begin(const RE_stat_image& image);
    void end();
    bool is_open() const { return m_image.header != nullptr; }
    const RE_stat_image& image() const { return m_image; }

    // Opens the image for writing; null when it must not be changed, which has then been logged.
    virtual std::unique_ptr<writable_image> open_writable() = 0;

private:
    bool fetch_peer(int peer_slot, unsigned int field) { return m_peer.fetch(peer_slot, field, m_patience); }
    bool fetch_conn(int conn_slot, unsigned int field) { return m_conn.fetch(conn_slot, field, m_patience); }
    int read_peer_counter(int peer_slot, const RE_image_counters& counters, int id, long long& value);
    // Rows of counters are far apart, and a table of a million connections waits for memory at every one; so the row is
    // asked for early that a walk at this step comes to soon. A hint, whose first counters are those that tables show.
    void walk_counters_to(std::uint32_t row);
    bool fetch_app(int app_slot);

    RE_stat_image m_image;
    RE_slot_reader<RE_image_peer_row> m_peer;
    RE_slot_reader<RE_image_conn_row> m_conn;
    std::uint32_t m_counters_row = 0; // where counters of a connection were last read
    RE_image_config_row m_config{};
    RE_stat_app_struct m_app{};
    std::uint64_t m_nacks_end = 0; // where the walk through the NACK log ends, so that a busy engine cannot prolong it
    RE_patience m_patience;
    std::unique_ptr<unsigned char[]> m_bypass_copy; // of a saved table, at its full size
};
