// The figures in the viewer's reports, picked out as an operator's script picks them: by their labels. A figure keeps
// the form in which it is shown, without the blanks that only align it ("976 KB", "75.00%").
#pragma once

#include <map>
#include <string>
#include <vector>

// By name, such as "Encode KAV in" or "Nacks collision".
using figure_map = std::map<std::string, std::string>;

// Of a report, or a part of one, with one summary block of connections and perhaps a detail block.
figure_map connection_figures(const std::string& report);

// The parts of a peer report by peer number.
std::map<long long, std::string> peers_in(const std::string& report);

// The rows of a connection table by connection id, each as "peer client server encode-in decode-out status".
std::map<long long, std::string> rows_of_connection_table(const std::string& report);

// How many entries of each kind a NACK log has: "peer type reason".
std::map<std::string, long long> counts_of_nack_log(const std::string& report);

struct app_entry
{
    std::string peer_identity;
    long long port;
    figure_map figures;
};
// The entries of a top-application report in detail.
std::vector<app_entry> entries_of_top_app(const std::string& report);

struct app_row
{
    std::string label; // "Total", a port or a classifier
    figure_map figures;
};
// The summary table of a top-application report, its total first.
std::vector<app_row> rows_of_top_app(const std::string& report);

// The entries of an auto-bypass table: "bytes connections" by "address:port"; and its sums as "sum".
figure_map bypass_figures(const std::string& report);

// Ages move on while all other figures of a quiet engine stand still; this replaces each by "AGE".
std::string without_ages(const std::string& report);
