// What changed between two moments of one engine, as a report.
#pragma once

#include "RE_output.h"
#include "RE_snapshot.h"

#include <optional>
#include <string>

// One of the two moments.
struct RE_diff_side
{
    std::string name; // the file's, or "the running engine"
    RE_snapshot snapshot;
    // The engine's own identity, when its configuration tells.
    std::optional<RE_kav_peer_id> engine;
};

RE_diff_side take_side(RE_image_reader& reader, const std::string& name, std::time_t now);

// Why the two cannot be compared, as a sentence; nothing when they can.
std::optional<std::string> why_not_comparable(const RE_diff_side& before, const RE_diff_side& after);

// Whether the engine was started anew between the two.
bool is_restarted(const RE_diff_side& before, const RE_diff_side& after);

// Writes the report: what changed, or with b_all also what did not.
void write_diff(const RE_diff_side& before, const RE_diff_side& after, bool b_all, RE_output& output);
