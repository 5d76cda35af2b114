#include "format/schema_object.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace kavstat {

nlohmann::ordered_json closed_object(const nlohmann::ordered_json& members, const std::string& description,
                                     const std::vector<std::string>& optional)
{
    nlohmann::ordered_json required = nlohmann::ordered_json::array();
    for (const auto& member : members.items()) {
        if (std::find(optional.begin(), optional.end(), member.key()) == optional.end()) {
            required.push_back(member.key());
        }
    }
    return {{"type", "object"},
            {"description", description},
            {"properties", members},
            {"required", required},
            {"additionalProperties", false}};
}

} // namespace kavstat
