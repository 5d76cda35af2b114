// Resets the figures of an image to 0 while its engine continues to count. Each counter is stored atomically; what the
// engine adds at the same moment may count before or after the reset. Identities, limits and the number of open
// connections are not reset.
#pragma once

#include "RE_stat_image.h"

enum class RE_reset_extent
{
    totals,     // running totals and high-water marks
    everything, // current values as well
};

void reset_global(const RE_stat_image& image, RE_reset_extent extent);
// row: the peer's row in the image.
void reset_peer(const RE_stat_image& image, std::uint32_t row, RE_reset_extent extent);
void reset_peers(const RE_stat_image& image, RE_reset_extent extent);
// row: the connection's row in the image.
void reset_conn(const RE_stat_image& image, std::uint32_t row, RE_reset_extent extent);
void reset_conns(const RE_stat_image& image, RE_reset_extent extent);
// The applications keep their slots.
void reset_apps(const RE_stat_image& image);
void reset_nacks(const RE_stat_image& image);
