// The segment of a running engine: a name and a lock, an image laid out for the engine's limits, and memory for the
// rows in use. RE_stat_writer fills the rows.
#pragma once

#include "RE_descriptor.h"
#include "RE_stat_image.h"
#include "RE_watched_mapping.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class RE_starting_engine;
struct RE_stat_limits;

class RE_live_segment
{
public:
    RE_live_segment() = default;
    ~RE_live_segment() { withdraw(); }
    RE_live_segment(const RE_live_segment&) = delete;
    RE_live_segment& operator=(const RE_live_segment&) = delete;

    // See RE_stat_writer::create().
    int create(const RE_stat_limits& limits, std::time_t start_time, unsigned int mode);
    // Marks the segment as withdrawn, for viewers that read it, and removes it.
    void withdraw();
    bool is_made() const { return m_mapping.base() != nullptr; }

    void publish();
    // Whether the segment is where viewers look for it, and is intact.
    bool is_in_place() const { return has_name() && is_whole(); }
    // If the segment is not in place, publishes a new one with the same contents and logs that. restore: is called
    // before viewers see the new segment, to write again what truncation may have removed from the rows. Returns 0,
    // -EBUSY or -errno.
    int publish_again(const std::function<void()>& restore);

    const RE_stat_image& image() const { return m_image; }
    // Allocates memory for row `row` of a section and of the sections paired with it. Returns false when there is no
    // memory; writing to such a row would kill the engine.
    bool ensure_row(RE_image_section_id section, std::uint32_t row);

private:
    int make(RE_starting_engine& start, const RE_stat_limits& limits, std::time_t start_time);
    int lay_out(const RE_stat_limits& limits, std::time_t start_time);
    int make_again(const std::function<void()>& restore);
    int move_memory_to(int new_descriptor);
    int back(const RE_image_view& rows, std::uint64_t first, std::uint64_t count) const;
    bool has_name() const;
    bool has_head() const;
    bool is_whole() const;

    RE_descriptor m_descriptor;
    std::string m_name;
    std::string m_path; // folder and name; empty until the segment is in place
    unsigned int m_mode = 0;
    int m_last_error = 0;         // of publish_again(); logged when it changes
    RE_watched_mapping m_mapping; // a process that may write to the segment may truncate it
    std::optional<RE_cut_silence> m_silence;
    RE_stat_image m_image;
    std::vector<unsigned char> m_head;                   // a copy of header and section table, to restore them
    std::uint32_t m_backed[RE_image_section_count] = {}; // rows with allocated memory, by section
};
