#include "RE_conn_view.h"

#include "RE_conn_blocks.h"
#include "RE_ip.h"
#include "RE_nack_view.h"
#include "RE_row_writer.h"
#include "RE_value_format.h"
#include "RE_viewer_reader.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace {

struct conn_times
{
    std::time_t open = 0;
    std::time_t close = 0; // 0 or less: the connection is open
};

conn_times read_times(int conn_slot)
{
    conn_times times;
    p_statReader->read_conn_time(conn_slot, times.open, times.close);
    return times;
}

int read_peer(int conn_slot)
{
    int peer = -1;
    p_statReader->read_conn_peer_id(conn_slot, peer);
    return peer;
}

// A connection as the scan reads it: completely, before the first test.
struct scanned_conn
{
    RE_stat_conn_header hdr{};
    SO_stat_conn_header so{};
    int peer;
    conn_times times;

    explicit scanned_conn(int conn_slot)
    {
        p_statReader->read_conn_header(conn_slot, hdr);
        p_statReader->read_conn_so_header(conn_slot, so);
        peer = read_peer(conn_slot);
        times = read_times(conn_slot);
    }
};

struct conn_filter
{
    unsigned int client_ip;     // 0: any
    unsigned int server_ip;     // 0: any
    unsigned short client_port; // 0: any
    unsigned short server_port; // 0: any
    int conn_id;                // negative: any
    int peer_id;                // negative: any
    bool b_active;

    // A connection without a compression type is never listed.
    bool accepts(const scanned_conn& conn) const
    {
        return conn.so.m_comp_type != 0 && (client_ip == 0 || conn.hdr.m_client_ip == client_ip) &&
               (server_ip == 0 || conn.hdr.m_server_ip == server_ip) &&
               (client_port == 0 || conn.hdr.m_client_port == client_port) &&
               (server_port == 0 || conn.hdr.m_server_port == server_port) &&
               (conn_id < 0 || conn.hdr.m_conn_id == conn_id) && (peer_id < 0 || conn.peer == peer_id) &&
               (!b_active || conn.times.close <= 0);
    }
};

// Calls take(id, slot, open_time) for each connection that passes the filter, in slot order.
template <typename Take>
void scan_conns(int MAX_STAT_CONN_SLOT_NUM, const conn_filter& filter, Take take)
{
    for (int i = 0; i < MAX_STAT_CONN_SLOT_NUM; ++i) {
        if (!p_statReader->is_conn_valid(i)) {
            continue;
        }
        const scanned_conn conn(i);
        if (filter.accepts(conn)) {
            take(conn.hdr.m_conn_id, i, conn.times.open);
        }
    }
}

// The listed connections. Memory for every slot is allocated at the start, so the list is never copied to a larger
// array; memory that no connection needs is never touched. If an engine claims more slots than memory allows, the list
// starts as large as possible and grows. No connection is ever left out: without memory for it the program ends with an
// error.
class conn_list
{
public:
    explicit conn_list(int max_conns) : m_capacity(std::max(max_conns, 0))
    {
        while (m_capacity > 0 && !m_ids) {
            m_ids.reset(new (std::nothrow) RE_conn_slot_id[static_cast<std::size_t>(m_capacity)]);
            if (!m_ids) {
                m_capacity /= 2;
            }
        }
    }

    void append(const RE_conn_slot_id& conn)
    {
        if (m_size == m_capacity) {
            grow();
        }
        m_ids[static_cast<std::size_t>(m_size++)] = conn;
    }

    RE_conn_slot_id* begin() const { return m_ids.get(); }
    RE_conn_slot_id* end() const { return m_ids.get() + m_size; }

private:
    void grow()
    {
        m_capacity = std::max(2 * m_capacity, 64);
        std::unique_ptr<RE_conn_slot_id[]> larger(new RE_conn_slot_id[static_cast<std::size_t>(m_capacity)]);
        std::copy_n(m_ids.get(), m_size, larger.get());
        m_ids = std::move(larger);
    }

    int m_capacity;
    int m_size = 0;
    std::unique_ptr<RE_conn_slot_id[]> m_ids;
};

// Finds the connection that was opened last; of several in the same second, the one with the largest id. The time to
// compare with starts at 1970, so a connection opened before is never found. It is kept in 32 bits, like the engine's
// clocks.
class last_conn
{
public:
    void offer(int conn_id, int conn_slot, std::time_t open_time)
    {
        if (open_time > m_open_time || (open_time == m_open_time && conn_id > m_last.m_conn_id)) {
            m_open_time = low32(open_time);
            m_last = {conn_id, conn_slot};
        }
    }

    // -1 when there is none.
    int slot() const { return m_last.m_conn_slot; }

private:
    int m_open_time = 0;
    RE_conn_slot_id m_last{-1, -1};
};

// A listed connection as it is now. It may have changed or disappeared since the scan found it.
struct conn_record
{
    RE_stat_conn_header hdr{};
    conn_times times;
    int peer;

    explicit conn_record(int conn_slot)
    {
        p_statReader->read_conn_header(conn_slot, hdr);
        times = read_times(conn_slot);
        peer = read_peer(conn_slot);
    }
};

std::string table_head()
{
    char text[256];
    std::snprintf(text, sizeof text,
                  "\n%-5s Peer %15s:%-5s%15s:%-5s  %s/   %s\n"
                  " Id    No%55s%14s\n"
                  "%76s\n",
                  "Conn", "Client-ip", "port", "Server-ip", "port", "Encode-in", "Status", "Decode-out", "(A-Active) ",
                  "(C-Closed)");
    return text;
}

long long read_bytes(int conn_slot, RE_stat_conn_id id)
{
    long long bytes = 0;
    p_statReader->read_conn_stat(conn_slot, id, bytes);
    return bytes;
}

// "%-5d %3d %15s:%-5hu%15s:%-5hu  %s/%s", then "  C(%s)" or "  A". An engine has up to a million of these.
char* put_table_row(RE_row_writer& rows, char* at, int conn_slot)
{
    constexpr std::size_t address_width = 15;
    const conn_record conn(conn_slot);
    at = put_number_left(at, conn.hdr.m_conn_id, 5);
    at = put_char(at, ' ');
    at = put_number_right(at, conn.peer, 3);
    at = put_char(at, ' ');
    // Copied into the row before the next call, which may overwrite it.
    at = rows.put_any_text_right(at, ip_to_string(conn.hdr.m_client_ip), address_width);
    at = put_char(at, ':');
    at = put_number_left(at, conn.hdr.m_client_port, 5);
    at = rows.put_any_text_right(at, ip_to_string(conn.hdr.m_server_ip), address_width);
    at = put_char(at, ':');
    at = put_number_left(at, conn.hdr.m_server_port, 5);

    at = put_text(at, "  ");
    at = put_conn_byte_summary(at, read_bytes(conn_slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES));
    at = put_char(at, '/');
    at = put_conn_byte_summary(at, read_bytes(conn_slot, RE_STAT_CONN_ID_DECODE_OUT_BYTES));

    if (conn.times.close > 0) {
        at = put_text(at, "  C(");
        at = put_age(at, conn.times.close);
        return put_text(at, ")\n");
    }
    return put_text(at, "  A\n");
}

void print_table(const conn_list& slot_id_vect)
{
    constexpr int rows_per_head = 30;
    const std::string head = table_head();
    int rows_to_head = 0;
    RE_row_writer rows;
    for (const RE_conn_slot_id& conn : slot_id_vect) {
        char* at = rows.begin_row();
        if (rows_to_head == 0) {
            at = put_text(at, head);
            rows_to_head = rows_per_head;
        }
        rows.end_row(put_table_row(rows, at, conn.m_conn_slot));
        --rows_to_head;
    }
}

void print_conn_block(int conn_slot, RE_show_type type)
{
    const conn_record conn(conn_slot);
    const bool b_closed = conn.times.close > 0;
    std::printf("\nConn-ID: %d %s:%hu --", conn.hdr.m_conn_id, ip_to_string(conn.hdr.m_client_ip),
                conn.hdr.m_client_port);
    std::printf(" %s:%hu  Peer No:%3d Status: %s\n", ip_to_string(conn.hdr.m_server_ip), conn.hdr.m_server_port,
                conn.peer, b_closed ? "Closed" : "Active");
    std::puts("------------------------------------------------------------------------------");
    if (type == RE_SHOW_NACK) {
        show_nack_info(conn.hdr.m_conn_id, -1);
        return;
    }

    std::printf("Open at %s,", get_time_str(low32(conn.times.open)));
    if (b_closed) {
        std::printf(" Close at %s, Duration: %ld secs\n", get_time_str(low32(conn.times.close)),
                    static_cast<long>(wrapping_difference(conn.times.close, conn.times.open)));
    } else {
        std::puts(" Still active");
    }

    const RE_conn_conn_slot c_slot(conn_slot);
    show_conn_info(c_slot);
    if (type == RE_SHOW_DETAIL) {
        show_conn_detail(c_slot);
    }
}

void show_last_conn(const conn_filter& filter, RE_show_type type)
{
    last_conn last;
    scan_conns(p_statReader->get_max_conn_slots(), filter, [&last](int conn_id, int conn_slot, std::time_t open_time) {
        last.offer(conn_id, conn_slot, open_time);
    });
    if (last.slot() != -1) {
        print_conn_block(last.slot(), type);
    }
}

conn_list find_conns(const conn_filter& filter)
{
    const int MAX_STAT_CONN_SLOT_NUM = p_statReader->get_max_conn_slots();
    conn_list slot_id_vect(MAX_STAT_CONN_SLOT_NUM);
    scan_conns(MAX_STAT_CONN_SLOT_NUM, filter, [&slot_id_vect](int conn_id, int conn_slot, std::time_t) {
        slot_id_vect.append({conn_id, conn_slot});
    });
    // Equal ids are in slot order, so that the same engine always gives the same listing.
    const auto is_before = [](const RE_conn_slot_id& a, const RE_conn_slot_id& b) {
        return a.m_conn_id != b.m_conn_id ? RE_conn_slot_id_compare()(a, b) : a.m_conn_slot < b.m_conn_slot;
    };
    // Until a slot is used a second time, ids rise with the slots, and reversing the list is enough.
    std::reverse(slot_id_vect.begin(), slot_id_vect.end());
    if (!std::is_sorted(slot_id_vect.begin(), slot_id_vect.end(), is_before)) {
        std::sort(slot_id_vect.begin(), slot_id_vect.end(), is_before);
    }
    return slot_id_vect;
}

} // namespace

void show_conn(unsigned int client_ip, unsigned int server_ip, unsigned short client_port, unsigned short server_port,
               int conn_id, int peer_id, RE_show_type type, bool conn_active, bool conn_last)
{
    const conn_filter filter{client_ip, server_ip, client_port, server_port, conn_id, peer_id, conn_active};
    if (conn_last) {
        show_last_conn(filter, type);
        return;
    }

    const conn_list slot_id_vect = find_conns(filter);
    // A request for a client or a connection id selects few connections; one for a server, a peer or the open
    // connections selects many.
    const bool b_summary = type == RE_SHOW_INFO && client_ip == 0 && conn_id < 0 && client_port == 0;
    if (b_summary) {
        print_table(slot_id_vect);
        return;
    }
    for (const RE_conn_slot_id& conn : slot_id_vect) {
        print_conn_block(conn.m_conn_slot, type);
    }
}
