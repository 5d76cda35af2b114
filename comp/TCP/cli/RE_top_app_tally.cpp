#include "RE_top_app_tally.h"

#include <algorithm>
#include <cstring>

namespace {

template <typename Record>
RE_stat_app_header header_of(const unsigned char* image)
{
    RE_stat_app_header header;
    std::memcpy(&header, image + offsetof(Record, m_header), sizeof header);
    return header;
}

} // namespace

// Most of the time for a long log is spent here. So a record's counters are read once and added in 64 bits once, and
// the record is not copied.
template <typename Record>
inline void RE_top_app_tally::add_image(unsigned handle, const unsigned char* image)
{
    tally_row& row = m_rows[handle];
    if (!m_b_used[handle]) {
        m_b_used[handle] = true;
        row = {{}, header_of<Record>(image)};
        row.header.set_policy_engine_handler(handle);
    }
    constexpr std::size_t count = std::min(sizeof(Record::m_id_array), sizeof(RE_stat_app_struct::m_id_array)) / 4;
    std::uint32_t counters[count];
    std::memcpy(counters, image, sizeof counters);
    for (std::size_t k = 0; k < count; ++k) {
        row.sums[k] += counters[k];
    }
}

void RE_top_app_tally::add(const RE_stat_app_struct& record)
{
    add_image<RE_stat_app_struct>(record.m_header.m_policy_engine_handler,
                                  reinterpret_cast<const unsigned char*>(&record));
}

void RE_top_app_tally::add_section_records(const unsigned char* images, std::size_t count, RE_section_names& names)
{
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned char* const image = images + i * sizeof(RE_stat_app_log_record);
        const RE_stat_app_header header = header_of<RE_stat_app_log_record>(image);
        add_image<RE_stat_app_log_record>(names.run_handle(header.m_policy_engine_handler), image);
    }
}

std::vector<RE_stat_app_struct> RE_top_app_tally::rows() const
{
    std::vector<RE_stat_app_struct> rows;
    rows.reserve(m_b_used.count());
    for (unsigned handle = 0; handle < top_app_handle_count; ++handle) {
        if (m_b_used[handle]) {
            RE_stat_app_struct& row = rows.emplace_back();
            row.m_header = m_rows[handle].header;
            for (int k = 0; k < RE_STAT_APP_ID_MAX; ++k) {
                row.m_id_array[k] = static_cast<std::uint32_t>(m_rows[handle].sums[k]);
            }
        }
    }
    return rows;
}

std::array<std::uint64_t, RE_STAT_APP_ID_MAX> RE_top_app_tally::totals() const
{
    std::array<std::uint64_t, RE_STAT_APP_ID_MAX> totals{};
    for (unsigned handle = 0; handle < top_app_handle_count; ++handle) {
        if (m_b_used[handle]) {
            for (std::size_t k = 0; k < totals.size(); ++k) {
                totals[k] += m_rows[handle].sums[k];
            }
        }
    }
    return totals;
}
