// The names of applications as a run of the top-application report knows them, and the names table of one log section.
//
// A record carries a handle that means something only within its section of the log. The report numbers the names
// afresh, so that the same names share one handle whatever their sections called them.
#pragma once

#include "RE_stat_records.h"

#include <array>
#include <bitset>
#include <cstdint>
#include <map>

// What the records of the run are called, by handle. Empty until a log's first record is read, and then the report is
// grouped by classifier; while it is empty, by server port. Constructed empty before main.
extern std::map<unsigned, RE_stat_policy_engine_header> g_stat_handler_policy_engine_map;

// The same the other way around.
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
    // The first names that a handle gets are the ones that hold.
    void add(unsigned handle, const RE_stat_policy_engine_header& names);
    // The run's handle for the names behind a record's `handle` (both below top_app_handle_count). Names that are new
    // to the run join it; a handle that the section does not name has empty names. When a run has more names than there
    // are handles, several share one.
    unsigned run_handle(unsigned handle)
    {
        return m_run_handle[handle] != not_looked_up ? m_run_handle[handle] : look_up(handle);
    }

private:
    static constexpr std::uint16_t not_looked_up = 0xffff;

    unsigned look_up(unsigned handle);

    std::array<RE_stat_policy_engine_header, top_app_handle_count> m_names;
    std::bitset<top_app_handle_count> m_b_named;
    // What look_up gave, so that the run's names are searched once a section and not once a record.
    std::array<std::uint16_t, top_app_handle_count> m_run_handle;
};
