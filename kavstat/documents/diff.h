// What changed between two moments of one engine, as a report or as JSON.
#pragma once

#include "format/output.h"
#include "model/snapshot.h"

#include <optional>
#include <string>
#include <string_view>

namespace kavstat {

// One of the two moments.
struct DiffSide
{
    std::string name; // the file's, or "the running engine"
    Snapshot snapshot;
    // The engine's own identity, when its configuration tells.
    std::optional<RE_kav_peer_id> engine;
};

DiffSide take_side(RE_image_reader& reader, const std::string& name, std::time_t now);

// Why the two cannot be compared, as a sentence; nothing when they can.
std::optional<std::string> why_not_comparable(const DiffSide& before, const DiffSide& after);

// Whether the engine was started anew between the two.
bool is_restarted(const DiffSide& before, const DiffSide& after);

// Which of it is shown.
struct DiffChoice
{
    bool b_all = false; // also what did not change
    bool b_engine = true;
    bool b_connections = true; // the sums over all of them
    bool b_peers = true;       // with the sums over their connections
    bool b_applications = true;
    std::string search = {}; // part of a counter's key or meaning, ignoring case
};

// "engine,connections,peers,applications": words for the scopes, for help texts.
std::string all_diff_scopes();
// Reads words joined by commas into the choice. False when one is unknown or empty; `unknown` is then that word.
bool parse_diff_scopes(std::string_view words, DiffChoice& choice, std::string& unknown);

void write_diff(const DiffSide& before, const DiffSide& after, const DiffChoice& choice, Output& output);
// The same as one JSON document; docs/kavstat.md describes its keys.
void write_diff_json(const DiffSide& before, const DiffSide& after, const DiffChoice& choice, Output& output);

// Version of the document's form, its "kavstat_diff" member: goes up when a key changes its meaning or goes away.
constexpr int diff_json_version = 1;

} // namespace kavstat
