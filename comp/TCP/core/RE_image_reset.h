// Setting the figures of an image back to 0 while its engine goes on counting. Single counters are stored atomically;
// what an engine adds at the same moment may fall on either side. Identities, limits and the count of open connections
// are no figures and stay.
#pragma once

#include "RE_stat_image.h"

enum class RE_reset_extent
{
    totals,     // running totals and high-water marks
    everything, // current values as well
};

void reset_global(const RE_stat_image& image, RE_reset_extent extent);
// row: of the peer, in the image.
void reset_peer(const RE_stat_image& image, std::uint32_t row, RE_reset_extent extent);
void reset_peers(const RE_stat_image& image, RE_reset_extent extent);
// row: of the connection, in the image.
void reset_conn(const RE_stat_image& image, std::uint32_t row, RE_reset_extent extent);
void reset_conns(const RE_stat_image& image, RE_reset_extent extent);
// The applications stay in their slots.
void reset_apps(const RE_stat_image& image);
void reset_nacks(const RE_stat_image& image);
