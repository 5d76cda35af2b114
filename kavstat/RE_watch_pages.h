// The pages of the live view, from the model.
#pragma once

#include "RE_watch_model.h"
#include "RE_watch_table.h"

enum class RE_watch_page
{
    engine,
    peers,
    connections,
    applications,
};
inline constexpr std::size_t RE_watch_page_count = 4;

// "engine" and so on.
const char* word_of(RE_watch_page page);

// What stands above the engine's table: its state, traffic and sparklines. width: of the screen, 20 at least.
std::vector<std::string> engine_summary(const RE_watch_model& model, std::size_t width, bool b_unicode);

// The page's table. model: outlives the table. On the engine's page the counters that move.
RE_watch_table table_of(RE_watch_page page, const RE_watch_model& model, bool b_unicode);

// The column that the page is ordered by at first.
std::size_t first_order_of(RE_watch_page page);
