// What changed between two moments of one engine, as a report.
#pragma once

#include "format/output.h"
#include "model/snapshot.h"

#include <optional>
#include <string>

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

// Writes the report: what changed, or with b_all also what did not.
void write_diff(const DiffSide& before, const DiffSide& after, bool b_all, Output& output);

} // namespace kavstat
