#include "support/report_figures.h"

#include <regex>
#include <sstream>

namespace {

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// "   Overall: msg:         10, in:    976 KB, out:    244 KB, ratio:  75.00%". Bypass lines have no out and ratio.
bool take_stage(const std::string& line, const std::string& side, figure_map& figures)
{
    static const std::regex stage(
        R"( *([A-Za-z ]+): msg: +(\d+), in: +(\d+ [KMG]?B)(?:, out: +(\d+ [KMG]?B), ratio: +(\S+))?)");
    std::smatch found;
    if (!std::regex_match(line, found, stage)) {
        return false;
    }
    const std::string name = side + " " + found.str(1);
    figures[name + " msg"] = found.str(2);
    figures[name + " in"] = found.str(3);
    if (found[4].matched) {
        figures[name + " out"] = found.str(4);
        figures[name + " ratio"] = found.str(5);
    }
    return true;
}

// "  Nacks: total 3 collision 1 chunk-miss 2"
void take_counts_by_reason(const std::string& name, const std::string& counts, figure_map& figures)
{
    static const std::regex count(R"(([a-z-]+) (\d+))");
    for (std::sregex_iterator found(counts.begin(), counts.end(), count), end; found != end; ++found) {
        figures[name + " " + found->str(1)] = found->str(2);
    }
}

// Stores the only group of `pattern` in `line` under `name`.
void take(const std::string& line, const std::regex& pattern, const std::string& name, figure_map& figures)
{
    std::smatch found;
    if (std::regex_match(line, found, pattern)) {
        figures[name] = found.str(1);
    }
}

} // namespace

figure_map connection_figures(const std::string& report)
{
    static const std::regex connections(R"(Connections:   Total \(cumulative\): (\d+),?  +Active: (\d+))");
    static const std::regex average(R"( Average message size: +(\d+ [KM]?B))");
    static const std::regex distribution(R"( +(0-1K=.*))");
    static const std::regex processed(R"(  Total number of processed messges: (\d+))");
    static const std::regex acks(R"(  Ack: msg (\d+),  size +(\d+ [KM]?B))");
    static const std::regex by_reason(R"(  (Nacks|R-tx): (total .*))");
    static const std::regex peer_nacks(R"(  Out of sync: \d+, Nacks:  (\d+),  R-tx: \d+)");
    static const std::regex peer_retransmissions(R"(  Out of sync: \d+, Nacks:  \d+,  R-tx: (\d+))");

    figure_map figures;
    std::string side;
    for (const std::string& line : lines_of(report)) {
        std::smatch found;
        if (line.starts_with("Encode: ") || line.starts_with("Decode: ")) {
            side = line.substr(0, 6);
        } else if (take_stage(line, side, figures)) {
            continue;
        } else if (std::regex_match(line, found, connections)) {
            figures["total"] = found.str(1);
            figures["active"] = found.str(2);
        } else if (std::regex_match(line, found, acks)) {
            figures["Ack msg"] = found.str(1);
            figures["Ack size"] = found.str(2);
        } else if (std::regex_match(line, found, by_reason)) {
            take_counts_by_reason(found.str(1), found.str(2), figures);
        }
        take(line, average, side + " average", figures);
        take(line, distribution, side + " sizes", figures);
        take(line, processed, "processed", figures);
        take(line, peer_nacks, "peer Nacks", figures);
        take(line, peer_retransmissions, "peer R-tx", figures);
    }
    return figures;
}

std::map<long long, std::string> peers_in(const std::string& report)
{
    const std::string heading = "\nPeer-No : ";
    std::map<long long, std::string> peers;
    for (std::size_t start = report.find(heading); start != std::string::npos;) {
        const std::size_t next = report.find(heading, start + 1);
        peers[std::stoll(report.substr(start + heading.size()))] = report.substr(start, next - start);
        start = next;
    }
    return peers;
}

std::map<long long, std::string> rows_of_connection_table(const std::string& report)
{
    static const std::regex row(
        R"((\d+) +(\d+) +([\d.]+:\d+) +([\d.]+:\d+) +(\d+[KMG]?B)/ *(\d+[KMG]?B)  (A|C\([0-9dhms]+\)))");
    std::map<long long, std::string> rows;
    for (const std::string& line : lines_of(report)) {
        std::smatch found;
        if (std::regex_match(line, found, row)) {
            rows[std::stoll(found.str(1))] = found.str(2) + " " + found.str(3) + " " + found.str(4) + " " +
                                             found.str(5) + " " + found.str(6) + " " + found.str(7).front();
        }
    }
    return rows;
}

std::map<std::string, long long> counts_of_nack_log(const std::string& report)
{
    static const std::regex row(R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d +(\d+) +\d+ +\d+ (Nack|R-Tx) (.*))");
    std::map<std::string, long long> counts;
    for (const std::string& line : lines_of(report)) {
        std::smatch found;
        if (std::regex_match(line, found, row)) {
            ++counts[found.str(1) + " " + found.str(2) + " " + found.str(3)];
        }
    }
    return counts;
}

std::vector<app_entry> entries_of_top_app(const std::string& report)
{
    static const std::regex heading(
        R"(App-Slot: \d+, KAV_peer_id: (\S+) \(\d+\), Port: (\d+), Open-cnt: (\d+), Close-cnt: (\d+))");
    std::vector<app_entry> entries;
    std::string side;
    for (const std::string& line : lines_of(report)) {
        std::smatch found;
        if (line == "Total:") {
            break;
        }
        if (line == "Encode:" || line == "Decode:") {
            side = line.substr(0, 6);
        } else if (std::regex_match(line, found, heading)) {
            entries.push_back({found.str(1), std::stoll(found.str(2)), {}});
            entries.back().figures["open"] = found.str(3);
            entries.back().figures["close"] = found.str(4);
        } else if (!entries.empty()) {
            take_stage(line, side, entries.back().figures);
        }
    }
    return entries;
}

std::vector<app_row> rows_of_top_app(const std::string& report)
{
    static const std::regex row(
        R"( *(\S+) +(\d+ .B) +(\S+%) +(\d+|N/A) +(\d+|N/A) +(\d+ .B) +(\d+ .B) +(\d+ .B) +(\d+ .B) +(\S+%) +(\d+ .B) +(\d+ .B) +(\S+%))");
    static constexpr const char* columns[] = {"Overall", "share",   "open",      "close",  "Encode-In", "Decode-Out",
                                              "KAV LAN", "KAV WAN", "KAV ratio", "LZ LAN", "LZ WAN",    "LZ ratio"};
    std::vector<app_row> rows;
    for (const std::string& line : lines_of(report)) {
        std::smatch found;
        if (std::regex_match(line, found, row)) {
            app_row& taken = rows.emplace_back();
            taken.label = found.str(1);
            std::size_t group = 2;
            for (const char* column : columns) {
                taken.figures[column] = found.str(group++);
            }
        }
    }
    return rows;
}

figure_map bypass_figures(const std::string& report)
{
    static const std::regex sum(R"(  Bypassed: (\d+) bytes, (\d+) connections)");
    static const std::regex row(R"( +([\d.]+:\d+) +low compression  \S+ \S+ +(\d+) +(\d+)  .*)");
    figure_map figures;
    for (const std::string& line : lines_of(report)) {
        std::smatch found;
        if (std::regex_match(line, found, sum)) {
            figures["sum"] = found.str(1) + " " + found.str(2);
        } else if (std::regex_match(line, found, row)) {
            figures[found.str(1)] = found.str(2) + " " + found.str(3);
        }
    }
    return figures;
}

std::string without_ages(const std::string& report)
{
    static const std::regex age(R"(([Aa]ge: |\(age\): )[0-9dhms]+)");
    static const std::regex closed(R"(  C\([0-9dhms]+\))");
    return std::regex_replace(std::regex_replace(report, age, "$1AGE"), closed, "  C(AGE)");
}
