// The figures that the viewer's reports should show, computed only from the demo engine's ledger. They have the names
// and forms of report_figures.h.
#pragma once

#include "support/report_figures.h"

#include <nlohmann/json.hpp>

#include <functional>

// Returns a size as counters in bytes are shown: whole bytes up to 100 KB, whole KB up to 100 MB, whole MB above.
std::string shown_bytes(long long bytes);
// Returns a size as in the connection table: whole bytes up to 1 KB, and so on.
std::string shown_compact(long long bytes);

// Returns the figures of an account, which belongs to the engine, a peer or a connection.
figure_map expected_connection_figures(const nlohmann::json& account);
// Returns a row of the connection table.
std::string expected_connection_row(const nlohmann::json& connection);
// Returns the NACKs of all peers in the form of counts_of_nack_log().
std::map<std::string, long long> expected_nack_counts(const nlohmann::json& ledger);
// Returns the figures of an application's account.
figure_map expected_app_figures(const nlohmann::json& application);
// Returns the row for all applications that `is_in_row` accepts. Open and close are left empty.
figure_map expected_app_row(const nlohmann::json& ledger, const std::function<bool(const nlohmann::json&)>& is_in_row);
figure_map expected_bypass_figures(const nlohmann::json& ledger);
