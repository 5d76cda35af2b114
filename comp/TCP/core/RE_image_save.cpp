#include "RE_image_save.h"

#include "RE_bypass_table.h"
#include "RE_save_target.h"
#include "RE_sequence.h"
#include "RE_stat_error.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace {

// A row to be saved: where it is, and which tenant was there when the list was made.
struct listed_row
{
    std::uint32_t row;
    std::uint32_t generation;
};

// The rows in use, in ascending order. rows is null when there was no memory for it.
struct row_list
{
    std::unique_ptr<listed_row[]> rows;
    std::uint32_t count = 0;
};

template <typename Row>
row_list list_rows_in_use(const Row* rows, std::uint32_t count)
{
    std::uint32_t used = 0;
    for (std::uint32_t at = 0; at < count; ++at) {
        used += load_relaxed(&rows[at].b_in_use) != 0 ? 1U : 0U;
    }
    row_list list;
    list.rows.reset(new (std::nothrow) listed_row[std::max(used, 1U)]);
    // A slot that is taken only now waits for the next time.
    for (std::uint32_t at = 0; list.rows != nullptr && at < count && list.count < used; ++at) {
        if (load_relaxed(&rows[at].b_in_use) != 0) {
            list.rows[list.count++] = {at, load_relaxed(&rows[at].generation)};
        }
    }
    return list;
}

// A row's identity for the file. A slot that has been vacated or let again since it was listed is saved as vacant.
template <typename Row>
Row copy_for_file(const Row* rows, const listed_row& listed, bool b_saved, RE_patience& patience)
{
    Row copy{};
    if (!copy_row(&rows[listed.row], copy, patience) || copy.generation != listed.generation) {
        copy = Row{};
    }
    copy.sequence = 0;
    copy.slot = b_saved ? rows[listed.row].slot : listed.row;
    return copy;
}

// A row's counters for the file, or zeros when the slot has another tenant by now.
template <typename Row, typename Counters>
Counters copy_counters_for_file(const Row* rows, const Counters* counters, const listed_row& listed)
{
    static_assert(sizeof(Counters) % sizeof(std::int64_t) == 0);
    Counters copy{};
    const auto* const words = reinterpret_cast<const std::int64_t*>(&counters[listed.row]);
    auto* const bytes = reinterpret_cast<unsigned char*>(&copy);
    for (std::size_t at = 0; at < sizeof copy / sizeof(std::int64_t); ++at) {
        const std::int64_t word = load_acquire(words + at);
        std::memcpy(bytes + at * sizeof word, &word, sizeof word);
    }
    return load_relaxed(&rows[listed.row].generation) == listed.generation ? copy : Counters{};
}

RE_image_app_row copy_app_for_file(const RE_image_app_row& row)
{
    RE_image_app_row copy{};
    const auto* const words = reinterpret_cast<const std::uint64_t*>(&row);
    auto* const bytes = reinterpret_cast<unsigned char*>(&copy);
    for (std::size_t at = 0; at < sizeof row / sizeof(std::uint64_t); ++at) {
        const std::uint64_t word = load_relaxed(words + at);
        std::memcpy(bytes + at * sizeof word, &word, sizeof word);
    }
    return copy;
}

// Bytes of the auto-bypass table up to its last row in use.
std::uint64_t bypass_bytes_in_use(const RE_stat_image& image)
{
    if (image.b_saved || image.bypass_size < sizeof(RE_bypass_table)) {
        return image.bypass_size;
    }
    const auto* const table = reinterpret_cast<const RE_bypass_table*>(image.bypass);
    const std::uint32_t rows = std::min(load_acquire(&table->rows_used), RE_bypass_capacity);
    return offsetof(RE_bypass_table, rows) + rows * sizeof(RE_bypass_row);
}

// Writes one image. All counts are settled before the first byte, so that the header can tell them even to a pipe.
class image_writer
{
public:
    image_writer(const RE_stat_image& image, RE_save_target& target) : m_image(image), m_target(target) {}

    int write();

private:
    void lay_out();
    void add_section(RE_image_section_id id, std::size_t row_size, std::uint64_t rows, std::uint64_t slots);
    void write_header();
    void write_config();
    void write_global();
    void write_peers();
    void write_conns();
    void write_apps();
    void write_nacks();
    void write_bypass();
    // Fills up to where section `id` starts.
    void pad_to(RE_image_section_id id);

    const RE_stat_image& m_image;
    RE_save_target& m_target;
    RE_patience m_patience = RE_patience::with_engine();
    row_list m_peers;
    row_list m_conns;
    std::uint32_t m_app_count = 0;
    std::uint64_t m_first_nack = 0;
    std::uint64_t m_nack_count = 0;
    RE_image_section m_sections[RE_image_section_count] = {};
    std::uint64_t m_end = 0; // of the last section
};

int image_writer::write()
{
    m_peers = list_rows_in_use(m_image.peers, m_image.peer_rows_in_reach());
    m_conns = list_rows_in_use(m_image.conns, m_image.conn_rows_in_reach());
    if (m_peers.rows == nullptr || m_conns.rows == nullptr) {
        return RE_STAT_ERR_NO_MEMORY;
    }
    lay_out();
    write_header();
    write_config();
    write_global();
    write_peers();
    write_conns();
    write_apps();
    write_nacks();
    write_bypass();
    m_target.fill_to(m_end);

    RE_image_trailer trailer{};
    std::memcpy(trailer.magic, RE_image_trailer_magic, sizeof trailer.magic);
    m_target.append(&trailer.magic, sizeof trailer.magic);
    trailer.checksum = m_target.checksum();
    m_target.append(&trailer.checksum, sizeof trailer.checksum);
    if (m_image.is_cut()) {
        return RE_STAT_ERR_CUT; // the unfinished file goes with the target
    }
    return m_target.finish();
}

void image_writer::lay_out()
{
    m_app_count = m_image.app_rows_in_reach();
    const std::uint64_t logged = load_acquire(&m_image.header->nacks_logged);
    const std::uint64_t kept = logged > m_image.nack_rows ? logged - m_image.nack_rows : 0;
    m_first_nack = std::max(kept, load_relaxed(&m_image.header->nacks_reset));
    m_nack_count = logged > m_first_nack ? logged - m_first_nack : 0;

    m_end = sizeof(RE_image_header) + sizeof m_sections;
    add_section(RE_IMAGE_CONFIG, sizeof(RE_image_config_row), m_image.config != nullptr ? 1 : 0, 1);
    add_section(RE_IMAGE_GLOBAL, sizeof(RE_image_global_row), 1, 1);
    add_section(RE_IMAGE_PEERS, sizeof(RE_image_peer_row), m_peers.count, m_image.peer_slots);
    add_section(RE_IMAGE_PEER_COUNTERS, sizeof(RE_image_peer_counters), m_peers.count, m_image.peer_slots);
    add_section(RE_IMAGE_CONNS, sizeof(RE_image_conn_row), m_conns.count, m_image.conn_slots);
    add_section(RE_IMAGE_CONN_COUNTERS, sizeof(RE_image_conn_counters), m_conns.count, m_image.conn_slots);
    add_section(RE_IMAGE_APPS, sizeof(RE_image_app_row), m_app_count, m_image.app_slots);
    add_section(RE_IMAGE_NACKS, sizeof(RE_image_nack_row), m_nack_count, m_image.nack_slots);
    add_section(RE_IMAGE_BYPASS, 1, bypass_bytes_in_use(m_image), m_image.bypass_room);
}

void image_writer::add_section(RE_image_section_id id, std::size_t row_size, std::uint64_t rows, std::uint64_t slots)
{
    m_sections[id - 1] = {id, static_cast<std::uint32_t>(row_size), m_end, rows, slots};
    m_end = (m_end + rows * row_size + 7) / 8 * 8;
}

void image_writer::write_header()
{
    RE_image_header header{};
    std::memcpy(header.magic, RE_image_magic, sizeof header.magic);
    header.byte_order = RE_image_byte_order;
    header.layout_version = RE_image_layout_version;
    header.state = RE_IMAGE_SAVED;
    header.section_count = RE_image_section_count;
    header.total_size = m_end + sizeof(RE_image_trailer);
    header.engine_start_time = m_image.header->engine_start_time;
    header.capture_time = m_image.b_saved ? m_image.header->capture_time : std::time(nullptr);
    header.global_counters = RE_STAT_GLOBAL_ID_MAX;
    header.peer_counters = RE_STAT_PEER_ID_MAX;
    header.conn_counters = RE_STAT_CONN_ID_MAX;
    header.app_counters = RE_STAT_APP_ID_MAX;
    header.peer_slots_used = m_peers.count;
    header.conn_slots_used = m_conns.count;
    header.app_slots_used = m_app_count;
    header.nacks_logged = m_nack_count;
    m_target.append(&header, sizeof header);
    m_target.append(m_sections, sizeof m_sections);
}

void image_writer::pad_to(RE_image_section_id id)
{
    m_target.fill_to(m_sections[id - 1].offset);
}

void image_writer::write_config()
{
    pad_to(RE_IMAGE_CONFIG);
    if (m_image.config == nullptr) {
        return;
    }
    RE_image_config_row row{};
    if (!copy_row(m_image.config, row, m_patience)) {
        std::memset(static_cast<void*>(&row), 0, sizeof row);
    }
    row.sequence = 0;
    m_target.append(&row, sizeof row);
}

void image_writer::write_global()
{
    pad_to(RE_IMAGE_GLOBAL);
    RE_image_global_row row{};
    for (std::size_t at = 0; at < RE_STAT_GLOBAL_ID_MAX; ++at) {
        row.stats[at] = load_relaxed(&m_image.global->stats[at]);
    }
    for (std::size_t at = 0; at < RE_STAT_CONN_ID_MAX; ++at) {
        row.conn_stats[at] = load_relaxed(&m_image.global->conn_stats[at]);
    }
    row.active_conns = load_relaxed(&m_image.global->active_conns);
    m_target.append(&row, sizeof row);
}

void image_writer::write_peers()
{
    pad_to(RE_IMAGE_PEERS);
    for (std::uint32_t at = 0; at < m_peers.count; ++at) {
        const auto row = copy_for_file(m_image.peers, m_peers.rows[at], m_image.b_saved, m_patience);
        m_target.append(&row, sizeof row);
    }
    pad_to(RE_IMAGE_PEER_COUNTERS);
    for (std::uint32_t at = 0; at < m_peers.count; ++at) {
        const auto row = copy_counters_for_file(m_image.peers, m_image.peer_counters, m_peers.rows[at]);
        m_target.append(&row, sizeof row);
    }
}

void image_writer::write_conns()
{
    pad_to(RE_IMAGE_CONNS);
    for (std::uint32_t at = 0; at < m_conns.count; ++at) {
        const auto row = copy_for_file(m_image.conns, m_conns.rows[at], m_image.b_saved, m_patience);
        m_target.append(&row, sizeof row);
    }
    pad_to(RE_IMAGE_CONN_COUNTERS);
    for (std::uint32_t at = 0; at < m_conns.count; ++at) {
        const auto row = copy_counters_for_file(m_image.conns, m_image.conn_counters, m_conns.rows[at]);
        m_target.append(&row, sizeof row);
    }
}

void image_writer::write_apps()
{
    pad_to(RE_IMAGE_APPS);
    for (std::uint32_t at = 0; at < m_app_count; ++at) {
        const RE_image_app_row row = copy_app_for_file(m_image.apps[at]);
        m_target.append(&row, sizeof row);
    }
}

// Entries are numbered anew from 0. One that was overwritten while the file was being written keeps no number, so that
// readers pass over it.
void image_writer::write_nacks()
{
    pad_to(RE_IMAGE_NACKS);
    for (std::uint64_t at = 0; at < m_nack_count; ++at) {
        const std::uint64_t entry = m_first_nack + at;
        const RE_image_nack_row* const row = &m_image.nacks[entry % m_image.nack_rows];
        RE_image_nack_row copy{};
        if (load_acquire(&row->sequence) == RE_nack_sequence(entry)) {
            load_words(row, copy);
        }
        const bool b_whole = load_relaxed(&row->sequence) == RE_nack_sequence(entry);
        copy.sequence = b_whole ? RE_nack_sequence(at) : 0;
        m_target.append(&copy, sizeof copy);
    }
}

void image_writer::write_bypass()
{
    pad_to(RE_IMAGE_BYPASS);
    const std::uint64_t size = m_sections[RE_IMAGE_BYPASS - 1].rows;
    if (m_image.b_saved || size < offsetof(RE_bypass_table, rows)) {
        m_target.append(m_image.bypass, size);
        return;
    }
    const auto* const table = reinterpret_cast<const RE_bypass_table*>(m_image.bypass);
    const auto rows = static_cast<std::uint32_t>((size - offsetof(RE_bypass_table, rows)) / sizeof(RE_bypass_row));
    const std::uint32_t head[4] = {load_relaxed(&table->magic), load_relaxed(&table->capacity), rows, 0};
    m_target.append(head, sizeof head);
    for (std::uint32_t at = 0; at < rows; ++at) {
        RE_bypass_row row{};
        if (!copy_row(&table->rows[at], row, m_patience)) {
            row = {};
        }
        row.sequence = 0;
        m_target.append(&row, sizeof row);
    }
}

} // namespace

int save_image(const RE_stat_image& image, const char* path)
{
    // Before the target, so that the unfinished file is gone when a cut may end the program again.
    const RE_cut_silence silence(image.mapping);
    RE_save_target target;
    if (const int error = target.open(path)) {
        return error;
    }
    return image_writer(image, target).write();
}
