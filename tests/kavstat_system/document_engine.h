// An engine made after a JSON document of another.
#pragma once

#include "RE_stat_writer.h"

#include <nlohmann/json.hpp>

// Publishes what the document says, under the name in KAV_STAT_SEGMENT.
void publish_document(const nlohmann::json& document, RE_stat_writer& writer);
