// The names of applications in a run of the top-application report, and the names table of one log section.
//
// A record's handle is valid only within its section of the log. The report assigns new handles, so that the same
// names have the same handle even if their sections use different ones.
#pragma once

#include "RE_stat_records.h"

#include <array>
#include <bitset>
#include <cstdint>
#include <map>

// The names of the run's records, by handle. Empty until the first record of a log is read. The report is grouped by
// server port while this map is empty, otherwise by classifier. Constructed empty before main.
extern std::map<unsigned, RE_stat_policy_engine_header> g_stat_handler_policy_engine_map;

// The reverse map: the handles by name.
extern std::map<RE_stat_policy_engine_header, unsigned> g_stat_policy_engine_handler_map;

// A record's handle has 10 bits.
constexpr unsigned top_app_handle_count = 1024;

// The names table of one section of a log.
class RE_section_names
{
public:
    RE_section_names() { clear(); }

    // Starts the next section.
    void clear();
    // The first names that a handle gets apply; later ones are ignored.
    void add(unsigned handle, const RE_stat_policy_engine_header& names);
    // Returns the run's handle for the names of a record's `handle` (both below top_app_handle_count). Names that are
    // new to the run are added to it; a handle that the section does not name has empty names. When a run has more
    // names than there are handles, several names share one handle.
    unsigned run_handle(unsigned handle)
    {
        return m_run_handle[handle] != not_looked_up ? m_run_handle[handle] : look_up(handle);
    }

private:
    static constexpr std::uint16_t not_looked_up = 0xffff;

    unsigned look_up(unsigned handle);

    std::array<RE_stat_policy_engine_header, top_app_handle_count> m_names;
    std::bitset<top_app_handle_count> m_b_named;
    // The results of look_up, so that the run's names are searched once per section and not once per record.
    std::array<std::uint16_t, top_app_handle_count> m_run_handle;
};
