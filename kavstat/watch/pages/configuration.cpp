#include "format/text.h"
#include "model/record_fields.h"
#include "watch/pages/pages.h"

#include <memory>
#include <type_traits>

namespace kavstat {

namespace {

struct ConfigRow
{
    const Field<RE_stat_config_param>* field;
    std::string value;
};

std::string value_text(const FieldValue& value)
{
    return std::visit(
        [](const auto& one) -> std::string {
            using Value = std::decay_t<decltype(one)>;
            if constexpr (std::is_same_v<Value, bool>) {
                return one ? "yes" : "no";
            } else if constexpr (std::is_arithmetic_v<Value>) {
                return std::to_string(one);
            } else if constexpr (std::is_same_v<Value, Port>) {
                return std::to_string(one.number);
            } else if constexpr (std::is_same_v<Value, IpAddress>) {
                return ip_text(one.ip);
            } else if constexpr (std::is_same_v<Value, Word>) {
                const bool b_known = one.code >= 0 && static_cast<std::size_t>(one.code) < one.words.size();
                return b_known ? one.words[static_cast<std::size_t>(one.code)] : std::to_string(one.code);
            } else if constexpr (std::is_same_v<Value, std::string_view>) {
                return plain_text(one);
            } else {
                return one.getString();
            }
        },
        value);
}

const char* unit_text(const ConfigRow& row)
{
    return row.field->unit ? get_stat_unit_word(*row.field->unit) : "";
}

} // namespace

WatchTable config_table(const WatchModel& model, const WatchFrame& /*frame*/)
{
    const auto shared = std::make_shared<std::vector<ConfigRow>>();
    if (model.config()) {
        for (const Field<RE_stat_config_param>& field : config_fields) {
            shared->push_back({&field, value_text(field.value(*model.config()))});
        }
    }
    const std::vector<ConfigRow>& rows = *shared;
    WatchTable table;
    table.rows = rows.size();
    WatchColumn key = text_column("key", "PARAMETER", 27, 0, rows, [](const ConfigRow& r) { return r.field->key; });
    key.order = [](std::size_t row) { return static_cast<double>(row); };
    table.columns = {
        key,
        text_column("value", "VALUE", 28, 0, rows, [](const ConfigRow& r) { return r.value; }),
        text_column("unit", "UNIT", 11, 1, rows, unit_text),
        text_column("meaning", "MEANING", 20, 2, rows, [](const ConfigRow& r) { return r.field->meaning; }),
    };
    table.search = [shared](std::size_t row) {
        const ConfigRow& r = (*shared)[row];
        return std::string(r.field->key) + " " + r.value + " " + unit_text(r) + " " + r.field->meaning;
    };
    table.subject = [](std::size_t row) {
        return WatchSubject{SubjectKind::row, 0, static_cast<std::int64_t>(row), 0};
    };
    return table;
}

} // namespace kavstat
