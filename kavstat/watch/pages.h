// The pages of the live view, from the model.
#pragma once

#include "watch/model.h"
#include "watch/table.h"

namespace kavstat {

enum class WatchPage
{
    engine,
    peers,
    connections,
    applications,
};
inline constexpr std::size_t watch_page_count = 4;

// "engine" and so on.
const char* word_of(WatchPage page);

// What stands above the engine's table: its state, traffic and sparklines. width: of the screen, 20 at least.
std::vector<std::string> engine_summary(const WatchModel& model, std::size_t width, bool b_unicode);

// The page's table. model: outlives the table. On the engine's page the counters that move.
WatchTable table_of(WatchPage page, const WatchModel& model, bool b_unicode);

// The column that the page is ordered by at first.
std::size_t first_order_of(WatchPage page);

} // namespace kavstat
