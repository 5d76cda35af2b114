// The part of a JSON Schema that describes an object.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

namespace kavstat {

// Returns the schema of an object with these members and no others. All are required, except for those that `optional`
// names.
nlohmann::ordered_json closed_object(const nlohmann::ordered_json& members, const std::string& description,
                                     const std::vector<std::string>& optional = {});

} // namespace kavstat
