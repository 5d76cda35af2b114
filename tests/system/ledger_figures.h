// The figures that the viewer's reports should show, drawn up from the demo engine's ledger alone, under the names and
// in the forms of report_figures.h.
#pragma once

#include "support/report_figures.h"

#include <nlohmann/json.hpp>

#include <functional>

// A size as counters in bytes are shown: whole bytes up to 100 KB, whole KB up to 100 MB, whole MB above.
std::string shown_bytes(long long bytes);
// As in the table of connections: whole bytes up to 1 KB, and so on.
std::string shown_compact(long long bytes);

// Of an account: the engine's, a peer's or a connection's.
figure_map expected_connection_figures(const nlohmann::json& account);
// The row of the table of connections.
std::string expected_connection_row(const nlohmann::json& connection);
// All peers' NACKs, as counts_of_nack_log() has them.
std::map<std::string, long long> expected_nack_counts(const nlohmann::json& ledger);
// Of an application's account.
figure_map expected_app_figures(const nlohmann::json& application);
// Of the row that stands for all applications that `is_in_row` accepts; open and close stay empty.
figure_map expected_app_row(const nlohmann::json& ledger, const std::function<bool(const nlohmann::json&)>& is_in_row);
figure_map expected_bypass_figures(const nlohmann::json& ledger);
