#include "model/record_fields.h"
#include "watch/pages/pages.h"

#include <memory>
#include <type_traits>

namespace kavstat {

namespace {

struct field
{
    std::string key;
    std::string value;
};

template <typename Value>
std::string value_text(const Value& value)
{
    if constexpr (std::is_same_v<Value, bool>) {
        return value ? "yes" : "no";
    } else if constexpr (std::is_arithmetic_v<Value>) {
        return std::to_string(value);
    } else {
        return plain_text(value);
    }
}

} // namespace

WatchTable config_table(const WatchModel& model, const WatchFrame& /*frame*/)
{
    const auto fields = std::make_shared<std::vector<field>>();
    if (model.config()) {
        visit_config(*model.config(), [&](const char* key, const auto& value) {
            fields->push_back({key, value_text(value)});
        });
    }
    WatchTable table;
    table.rows = fields->size();
    WatchColumn key = text_column("key", "PARAMETER", 30, 0, *fields, [](const field& f) { return f.key; });
    key.order = [](std::size_t row) { return static_cast<double>(row); };
    table.columns = {
        key,
        text_column("value", "VALUE", 26, 1, *fields, [](const field& f) { return f.value; }),
    };
    table.search = [fields](std::size_t row) { return (*fields)[row].key + " " + (*fields)[row].value; };
    table.subject = [](std::size_t row) {
        return WatchSubject{SubjectKind::row, 0, static_cast<std::int64_t>(row), 0};
    };
    return table;
}

} // namespace kavstat
