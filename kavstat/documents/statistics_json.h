// Statistics as one JSON document. Its keys are a contract; the schema describes them.
#pragma once

#include "format/document.h"
#include "format/output.h"
#include "model/snapshot.h"
#include "model/source.h"

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace kavstat {

// Which sections the document has; the head is always there.
struct JsonScopes
{
    bool b_global = true;
    bool b_connections = true;
    bool b_peers = true;
    bool b_apps = true;
    bool b_nacks = true;
    bool b_config = true;
    bool b_bypass = true;
};

// "global,connections,peers,apps,nacks,config,bypass": words as the scopes' keys, for help texts.
std::string all_json_scopes();

// Reads words joined by commas. Nothing when one is unknown or empty; `unknown` is then that word.
std::optional<JsonScopes> parse_json_scopes(std::string_view words, std::string& unknown);

// The document, for `output`. source: open, and what the snapshot was taken from; connections and NACKs are read from
// it when they are written. Everything but the scopes outlives the document. It ends without its end, and gives up the
// output, when the statistics were cut short while they were read.
Document statistics_json(Source& source, const Snapshot& snapshot, const JsonScopes& scopes, Output& output);

// Writes the whole of it. now: the capture time of live statistics. Stops early once the output takes no more.
void write_statistics_json(Source& source, const JsonScopes& scopes, std::time_t now, Output& output);

// Writes the section of the engine alone. file: the saved file's name; nothing for the running engine.
void write_global_json(const std::optional<std::string>& file, const Snapshot& snapshot, Output& output);

// The JSON Schema of the document.
std::string statistics_json_schema();

// Version of the document's form, its "kavstat_json" member: goes up when a key changes its meaning or goes away.
constexpr int json_version = 1;

} // namespace kavstat
