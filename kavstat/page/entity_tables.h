// What an engine has many of, as tables for programs that show them: a row each, with what it does now and what it has
// done. Rows are ordered and chosen here, since there may be a million connections.
#pragma once

#include "format/document.h"
#include "format/output.h"
#include "health/evaluation.h"
#include "model/snapshot.h"
#include "page/live_history.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

enum class TableOf
{
    peers,
    applications,
    connections,
    nacks,
    bypass,        // the auto-bypass table
    configuration, // a row for each setting
};
// "peers", "applications", "connections" ...
const char* word_of(TableOf table);

// Which rows of a table, and in which order.
struct TableQuery
{
    static constexpr std::size_t most_rows = 5000;

    std::size_t top = 100;   // rows at most
    std::string search = {}; // only rows with this in a text of theirs, ignoring case
    std::string sort = {};   // the key of a column: highest first, texts in the order of the alphabet
    bool b_reverse = false;
};
// What rows are ordered by unless somebody asks for something else.
const char* usual_sort(TableOf table);
// Whether the table has a column of that key.
bool has_column(TableOf table, const std::string& key);

// moments.now: not null. findings: of then.
void write_peers(const TwoMoments& moments, const std::vector<Finding>& findings, const TableQuery& query,
                 Output& output);
void write_applications(const TwoMoments& moments, const TableQuery& query, Output& output);

// What connections had moved when they were last looked at, so that the next look tells their rates.
class ConnectionRates
{
public:
    using clock = std::chrono::steady_clock;
    // Rates over less than this say little.
    static constexpr std::chrono::milliseconds least_time{1000};

    struct Volumes
    {
        long long before = 0; // bytes
        long long after = 0;
    };
    struct Rates
    {
        float before = 0; // bytes per second; negative while not known
        float after = 0;
    };

    // Takes a connection's volumes of now. identity: tells it from others that have had its slot.
    Rates update(std::size_t slot, std::uint32_t identity, const Volumes& volumes, clock::time_point at);
    // Forgets everything when nobody has asked for long.
    void forget_unless_used(clock::time_point at);

private:
    struct Earlier
    {
        std::uint32_t identity = 0;
        bool b_there = false;
        clock::time_point at;
        Volumes volumes;
        Rates rates{-1, -1};
    };
    std::vector<Earlier> m_earlier; // by slot
    clock::time_point m_used;
};

// The tables of connections and of NACKs, made a part at a time. Everything outlives the document. snapshot: what was
// taken from the reader.
Document connections_document(RE_image_reader& reader, const Snapshot& snapshot, ConnectionRates& rates,
                              const TableQuery& query, Output& output);
Document nacks_document(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output);

// Without rows when the engine has published none.
void write_bypass(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output);
void write_configuration(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output);

constexpr int table_json_version = 1;

} // namespace kavstat
