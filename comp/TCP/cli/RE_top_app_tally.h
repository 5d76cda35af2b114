// The rows of the top-application report, merged by handle while a log is read. A log may have many times more records
// than memory can hold, but at most 1,024 handles.
#pragma once

#include "RE_statistics.h"
#include "RE_top_app_names.h"

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <vector>

// Gives the result of sorting all records with ClassifierComparatorClass and merging them with
// aggregate_classifier_sorted_vector, without storing the records.
class RE_top_app_tally
{
public:
    // Adds a record that has a handle of the run.
    void add(const RE_stat_app_struct& record);
    // Adds `count` records in the form that they have in a log, at any alignment. Their handles are those of the
    // section that `names` describes.
    void add_section_records(const unsigned char* images, std::size_t count, RE_section_names& names);

    // One row per handle, in ascending order of handles, each with the header of the first record of its handle.
    std::vector<RE_stat_app_struct> rows() const;
    // The sums of all records, indexed by RE_stat_app_id.
    std::array<std::uint64_t, RE_STAT_APP_ID_MAX> totals() const;

private:
    struct tally_row
    {
        std::uint64_t sums[RE_STAT_APP_ID_MAX]; // a row's counter is the low half; the totals use all 64 bits
        RE_stat_app_header header;
    };

    // Record: the type of the record in `image`.
    template <typename Record>
    void add_image(unsigned handle, const unsigned char* image);

    std::array<tally_row, top_app_handle_count> m_rows; // a row is invalid before its first use
    std::bitset<top_app_handle_count> m_b_used;
};
