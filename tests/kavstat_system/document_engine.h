// An engine that is created from the JSON document of another engine.
#pragma once

#include "RE_stat_writer.h"

#include <nlohmann/json.hpp>

// Publishes the document's content under the name in KAV_STAT_SEGMENT.
void publish_document(const nlohmann::json& document, RE_stat_writer& writer);
