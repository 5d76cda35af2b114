// An application as the publisher stores it: exact sums for counters that contain whole kilobytes.
#pragma once

#include "RE_statistics.h"

#include <array>
#include <cstdint>

struct RE_published_app
{
    int slot = -1; // negative when the statistics have no room for it
    RE_stat_app_header key{};
    // Bytes or messages, by RE_stat_app_id.
    std::array<std::uint64_t, RE_STAT_APP_ID_MAX> totals{};
    std::uint32_t opened = 0;
    std::uint32_t closed = 0;
    // The published values when the log was last written.
    std::array<std::uint64_t, RE_STAT_APP_ID_MAX> logged{};
    std::uint32_t logged_opened = 0;
    std::uint32_t logged_closed = 0;

    // The counter's value: whole kilobytes, or messages.
    std::uint64_t published(std::size_t id) const
    {
        return id < RE_STAT_APP_ID_ENCODE_NUM_MSGS ? totals[id] / 1024 : totals[id];
    }

    // Whether anything has been published since the log was last written.
    bool has_news() const;
    // Returns a record of everything that has been published since the last call.
    RE_stat_app_struct take_log_record();
};
