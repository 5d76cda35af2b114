// Finds the figures in the viewer's reports by their labels, as an operator's script does. A figure is kept as shown,
// without the blanks that only align it ("976 KB", "75.00%").
#pragma once

#include <map>
#include <string>
#include <vector>

// Key: the name, such as "Encode KAV in" or "Nacks collision".
using figure_map = std::map<std::string, std::string>;

// Returns the figures of a report, or of a part of it, with one summary block of connections and optionally a detail
// block.
figure_map connection_figures(const std::string& report);

// Returns the parts of a peer report by peer number.
std::map<long long, std::string> peers_in(const std::string& report);

// Returns the rows of a connection table by connection id, each as "peer client server encode-in decode-out status".
std::map<long long, std::string> rows_of_connection_table(const std::string& report);

// Counts the entries of each kind in a NACK log. Key: "peer type reason".
std::map<std::string, long long> counts_of_nack_log(const std::string& report);

struct app_entry
{
    std::string peer_identity;
    long long port;
    figure_map figures;
};
// Returns the entries of a detailed top-application report.
std::vector<app_entry> entries_of_top_app(const std::string& report);

struct app_row
{
    std::string label; // "Total", a port or a classifier
    figure_map figures;
};
// Returns the summary table of a top-application report, with the total first.
std::vector<app_row> rows_of_top_app(const std::string& report);

// Returns the entries of an auto-bypass table as "bytes connections" by "address:port", and the totals as "sum".
figure_map bypass_figures(const std::string& report);

// Replaces each age by "AGE", because ages change even when all other figures of an idle engine stay the same.
std::string without_ages(const std::string& report);
