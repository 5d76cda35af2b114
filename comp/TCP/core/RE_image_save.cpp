#include "RE_image_save.h"

#include "RE_bypass_table.h"
#include "RE_image_sections.h"
#include "RE_save_target.h"
#include "RE_sequence.h"
#include "RE_stat_error.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace {

// A row to be saved, and the generation of its tenant when the list was created.
struct listed_row
{
    std::uint32_t row;
    std::uint32_t generation;
};

// The rows in use, in ascending order. rows: null when there was no memory for them.
struct row_list
{
    std::unique_ptr<listed_row[]> rows;
    std::uint32_t count = 0;
};

template <typename Row>
row_list list_rows_in_use(const RE_image_rows<Row>& rows, std::uint32_t count)
{
    std::uint32_t used = 0;
    for (std::uint32_t at = 0; at < count; ++at) {
        used += load_relaxed(&rows[at].b_in_use) != 0 ? 1U : 0U;
    }
    row_list list;
    list.rows.reset(new (std::nothrow) listed_row[std::max(used, 1U)]);
    // A slot that was taken after the count is not saved.
    for (std::uint32_t at = 0; list.rows != nullptr && at < count && list.count < used; ++at) {
        if (load_relaxed(&rows[at].b_in_use) != 0) {
            list.rows[list.count++] = {at, load_relaxed(&rows[at].generation)};
        }
    }
    return list;
}

// Returns how many bytes of the auto-bypass table to save: up to its last row in use.
std::uint64_t bypass_bytes_in_use(const RE_stat_image& image)
{
    if (image.b_saved || image.bypass.rows < sizeof(RE_bypass_table)) {
        return image.bypass.rows;
    }
    const auto* const table = reinterpret_cast<const RE_bypass_table*>(image.bypass.base);
    const std::uint32_t rows = std::min(load_acquire(&table->rows_used), RE_bypass_capacity);
    return offsetof(RE_bypass_table, rows) + rows * sizeof(RE_bypass_row);
}

// Writes one image. Rows keep the size that they have in the image, so the file contains the same counters, whichever
// build created the image. Sections that this build does not know are left out. All counts are determined before the
// first byte is written, because the header comes first and a pipe cannot be rewritten.
class image_writer
{
public:
    image_writer(const RE_stat_image& image, RE_save_target& target) : m_image(image), m_target(target) {}

    int write();

private:
    bool lay_out();
    void write_header();
    void write_config();
    void write_global();
    template <typename Row>
    void write_records(const RE_image_rows<Row>& rows, const row_list& listed);
    template <typename Row>
    void write_counters(const RE_image_view& counters, const RE_image_rows<Row>& rows, const row_list& listed);
    void write_apps();
    void write_nacks();
    void write_bypass();
    // Appends zeros up to the start of section `id`.
    void pad_to(RE_image_section_id id);
    // Copies a row that begins with a sequence counter to m_row. Returns false when no consistent copy was possible.
    bool take_record(const unsigned char* row, std::uint32_t size);
    void append_row(std::uint32_t size) { m_target.append(m_row.get(), size); }
    void clear_row(std::uint32_t size) { std::memset(m_row.get(), 0, size); }

    const RE_stat_image& m_image;
    RE_save_target& m_target;
    RE_patience m_patience = RE_patience::with_engine();
    row_list m_peers;
    row_list m_conns;
    std::uint32_t m_app_count = 0;
    std::uint64_t m_first_nack = 0;
    std::uint64_t m_nack_count = 0;
    RE_image_section m_sections[RE_image_section_count] = {};
    std::uint64_t m_end = 0;                // of the last section
    std::unique_ptr<unsigned char[]> m_row; // the row being written; as large as the largest row
};

int image_writer::write()
{
    m_peers = list_rows_in_use(m_image.peers, m_image.peer_rows_in_reach());
    m_conns = list_rows_in_use(m_image.conns, m_image.conn_rows_in_reach());
    if (m_peers.rows == nullptr || m_conns.rows == nullptr || !lay_out()) {
        return RE_STAT_ERR_NO_MEMORY;
    }
    write_header();
    write_config();
    write_global();
    pad_to(RE_IMAGE_PEERS);
    write_records(m_image.peers, m_peers);
    pad_to(RE_IMAGE_PEER_COUNTERS);
    write_counters(m_image.peer_counters, m_image.peers, m_peers);
    pad_to(RE_IMAGE_CONNS);
    write_records(m_image.conns, m_conns);
    pad_to(RE_IMAGE_CONN_COUNTERS);
    write_counters(m_image.conn_counters, m_image.conns, m_conns);
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
        return RE_STAT_ERR_CUT; // the target's destructor removes the unfinished file
    }
    return m_target.finish();
}

bool image_writer::lay_out()
{
    m_app_count = m_image.app_rows_in_reach();
    const std::uint64_t logged = load_acquire(&m_image.header->nacks_logged);
    const std::uint64_t kept = logged > m_image.nacks.rows ? logged - m_image.nacks.rows : 0;
    m_first_nack = std::max(kept, load_relaxed(&m_image.header->nacks_reset));
    m_nack_count = logged > m_first_nack ? logged - m_first_nack : 0;

    const std::uint64_t rows[RE_image_section_count] = {m_image.config.rows,
                                                        1,
                                                        m_peers.count,
                                                        m_peers.count,
                                                        m_conns.count,
                                                        m_conns.count,
                                                        m_app_count,
                                                        m_nack_count,
                                                        bypass_bytes_in_use(m_image)};
    std::uint32_t largest_row = 0;
    for (const RE_image_section_rule& rule : RE_image_section_rules) {
        const RE_image_view& view = m_image.view(rule.id);
        m_sections[rule.id - 1] = {rule.id, view.stride, 0, rows[rule.id - 1], view.slots};
        largest_row = std::max(largest_row, view.stride);
    }
    constexpr std::uint64_t alignment = 8;
    m_end = (place_image_sections(m_sections, alignment) + alignment - 1) / alignment * alignment;
    m_row.reset(new (std::nothrow) unsigned char[largest_row]);
    return m_row != nullptr;
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
    header.set_counts(m_image.counts);
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

bool image_writer::take_record(const unsigned char* row, std::uint32_t size)
{
    const auto copy = [&] { load_words(row, m_row.get(), size); };
    return (copy_as_one(reinterpret_cast<const std::uint32_t*>(row), copy, m_patience) & 1U) == 0;
}

void image_writer::write_config()
{
    pad_to(RE_IMAGE_CONFIG);
    const std::uint32_t size = m_image.config.stride;
    if (m_image.config.rows == 0) {
        return;
    }
    if (!take_record(m_image.config.base, size)) {
        clear_row(size);
    }
    reinterpret_cast<RE_image_config_row*>(m_row.get())->sequence = 0;
    append_row(size);
}

void image_writer::write_global()
{
    pad_to(RE_IMAGE_GLOBAL);
    load_words(m_image.global.base, m_row.get(), m_image.global.stride);
    append_row(m_image.global.stride);
}

// Writes identities. A slot that was vacated or reused since it was listed is saved as vacant.
template <typename Row>
void image_writer::write_records(const RE_image_rows<Row>& rows, const row_list& listed)
{
    auto* const copy = reinterpret_cast<Row*>(m_row.get());
    for (std::uint32_t at = 0; at < listed.count; ++at) {
        const auto [row, generation] = listed.rows[at];
        if (!take_record(rows.row(row), rows.stride) || copy->generation != generation) {
            clear_row(rows.stride);
        }
        copy->sequence = 0;
        copy->slot = m_image.b_saved ? rows[row].slot : row;
        append_row(rows.stride);
    }
}

// Writes zeros when the slot was vacated or reused since it was listed.
template <typename Row>
void image_writer::write_counters(const RE_image_view& counters, const RE_image_rows<Row>& rows, const row_list& listed)
{
    for (std::uint32_t at = 0; at < listed.count; ++at) {
        const auto [row, generation] = listed.rows[at];
        load_words(counters.row(row), m_row.get(), counters.stride);
        if (load_relaxed(&rows[row].generation) != generation) {
            clear_row(counters.stride);
        }
        append_row(counters.stride);
    }
}

void image_writer::write_apps()
{
    pad_to(RE_IMAGE_APPS);
    for (std::uint32_t at = 0; at < m_app_count; ++at) {
        load_words(m_image.apps.row(at), m_row.get(), m_image.apps.stride);
        append_row(m_image.apps.stride);
    }
}

// Numbers the entries anew from 0. The number of an entry that was overwritten in the meantime is left out, so that
// readers skip it.
void image_writer::write_nacks()
{
    pad_to(RE_IMAGE_NACKS);
    const std::uint32_t size = m_image.nacks.stride;
    for (std::uint64_t at = 0; at < m_nack_count; ++at) {
        const std::uint64_t entry = m_first_nack + at;
        const RE_image_nack_row& row = m_image.nacks[entry % m_image.nacks.rows];
        clear_row(size);
        if (load_acquire(&row.sequence) == RE_nack_sequence(entry)) {
            load_words(&row, m_row.get(), size);
        }
        const bool b_whole = load_relaxed(&row.sequence) == RE_nack_sequence(entry);
        reinterpret_cast<RE_image_nack_row*>(m_row.get())->sequence = b_whole ? RE_nack_sequence(at) : 0;
        append_row(size);
    }
}

void image_writer::write_bypass()
{
    pad_to(RE_IMAGE_BYPASS);
    const std::uint64_t size = m_sections[RE_IMAGE_BYPASS - 1].rows;
    if (m_image.b_saved || size < offsetof(RE_bypass_table, rows)) {
        m_target.append(m_image.bypass.base, size);
        return;
    }
    const auto* const table = reinterpret_cast<const RE_bypass_table*>(m_image.bypass.base);
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
    // Declared before the target, so that the unfinished file is removed before a truncation may end the program again.
    const RE_cut_silence silence(image.mapping);
    RE_save_target target;
    if (const int error = target.open(path)) {
        return error;
    }
    return image_writer(image, target).write();
}
