// The engine's configuration, in the form of the statistics and as text.
#pragma once

#include "RE_chunker.h"
#include "RE_options.h"
#include "RE_stat_records.h"

RE_chunk_sizes configured_chunk_sizes();
RE_stat_config_param make_config(const RE_options& options);

// Writes "name value" lines, one for each setting. Throws std::runtime_error when the file cannot be written.
void write_config_file(const std::string& path, const RE_options& options);
constexpr const char* installed_config_path = "/sw/vantero/config/re_cfg.txt";
