// The JSON Schemas of everything that kavstat gives as JSON.
#pragma once

#include <string>
#include <vector>

namespace kavstat {

// The words for schema_of().
const std::vector<std::string>& schema_words();
// The schema for one of schema_words(), as text.
std::string schema_of(const std::string& word);

} // namespace kavstat
