// Local time as the system's zone file has it, read in one go: the C library takes seven system calls and a page of
// memory for the few dates of a report. What is beyond this reader is left to the C library: a zone named by TZ, leap
// seconds, and the years to come of a zone whose clocks go on changing by a rule.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>

// The bytes of a zone file (TZif, version 2 or later), which the caller keeps. Nothing in them is trusted.
class RE_time_zone
{
public:
    // Of no use by itself: knows no offset.
    RE_time_zone() = default;
    explicit RE_time_zone(std::span<const unsigned char> bytes);

    // Seconds that local time is ahead of UTC at `moment` (seconds since the epoch); nothing where the C library has
    // to be asked.
    std::optional<int> offset_at(std::int64_t moment) const;

private:
    int offset_of_type(std::size_t type) const;

    std::span<const unsigned char> m_times; // of transitions, 8 bytes each, ascending
    std::span<const unsigned char> m_type_at;
    std::span<const unsigned char> m_types; // 6 bytes each: offset, whether it is daylight saving time, name
    bool b_known_after_last = false;        // the last transition's type holds for ever
};

// `moment` (seconds since the epoch) on the clocks of this machine. Reads /etc/localtime at the first call.
std::tm RE_local_time(std::time_t moment);
