// Reads the slots of peers or connections of an image: finds a slot's row, copies its identity consistently, and reads
// its counters as long as the slot has the same tenant.
#pragma once

#include "RE_sequence.h"
#include "RE_stat_image.h"

// The interface reads the fields of an identity one call at a time. All of them come from one copy until a field is
// read again, which takes a new copy. So the fields of one round always belong together.
template <typename Row>
class RE_slot_reader
{
public:
    // A reader without an image has no slots.
    RE_slot_reader() = default;
    // slots_used: the number in the image's header, one above the highest slot ever used.
    RE_slot_reader(const RE_stat_image& image, const RE_image_rows<Row>& rows, const std::uint32_t* slots_used)
        : m_rows(rows), m_slots_used(image.b_saved ? nullptr : slots_used)
    {}

    std::uint32_t rows_in_reach() const
    {
        return m_slots_used == nullptr ? m_rows.rows : std::min(load_acquire(m_slots_used), m_rows.rows);
    }
    // Returns one above the highest slot that a scan has to visit.
    int slots_to_scan() const
    {
        const std::uint32_t count = rows_in_reach();
        return static_cast<int>(is_saved() && count != 0 ? m_rows[count - 1].slot + 1 : count);
    }

    // Copies the slot's identity. Returns false when the slot is vacant.
    bool take(int slot, RE_patience& patience)
    {
        m_slot = slot;
        m_fields_given = 0;
        m_b_valid = false;
        if (find_row(slot)) {
            const Row& row = m_rows[m_row];
            m_b_valid = load_relaxed(&row.b_in_use) != 0 && copy_row(&row, m_copy, patience) && m_copy.b_in_use != 0;
        }
        return m_b_valid;
    }
    // The same for one field. field: a bit, or 0 for what may be read any number of times from one copy.
    bool fetch(int slot, unsigned int field, RE_patience& patience)
    {
        if (m_slot != slot || (m_fields_given & field) != 0) {
            take(slot, patience);
        }
        m_fields_given |= field;
        return m_b_valid;
    }
    // The identity that was copied last.
    const Row& copy() const { return m_copy; }
    std::uint32_t row() const { return m_row; }

    // Reads a counter of the slot taken last. Returns false, and a value of 0, when the slot has got a new tenant
    // since, so that no report shows one tenant's name with another tenant's figures.
    bool read_counter(const RE_image_counters& counters, int id, long long& value) const
    {
        const long long counter = counters.read(m_row, id);
        const bool b_same = load_relaxed(&m_rows[m_row].generation) == m_copy.generation;
        value = b_same ? counter : 0;
        return b_same;
    }

private:
    bool is_saved() const { return m_slots_used == nullptr; }

    // A live image has one row per slot, a saved image only rows for the slots in use. Scans go upwards, so the wanted
    // row is usually the one after the last.
    bool find_row(int slot)
    {
        const std::uint32_t count = rows_in_reach();
        const auto wanted = static_cast<std::uint32_t>(slot);
        if (!is_saved() || slot < 0) {
            m_row = wanted;
            return slot >= 0 && wanted < count;
        }
        std::uint32_t first = 0;
        if (m_row < count && m_rows[m_row].slot < wanted) {
            first = m_row + 1;
        }
        std::uint32_t end = first < count && m_rows[first].slot >= wanted ? first : count;
        while (first < end) {
            const std::uint32_t middle = first + (end - first) / 2;
            if (m_rows[middle].slot < wanted) {
                first = middle + 1;
            } else {
                end = middle;
            }
        }
        m_row = first;
        return first < count && m_rows[first].slot == wanted;
    }

    RE_image_rows<Row> m_rows;
    const std::uint32_t* m_slots_used = nullptr; // null for a saved image
    int m_slot = -1;
    bool m_b_valid = false;
    unsigned int m_fields_given = 0;
    std::uint32_t m_row = 0;
    Row m_copy{};
};
