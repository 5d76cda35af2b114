#include "page/table_rows.h"

namespace kavstat {

const char* word_of(TableOf table)
{
    static constexpr const char* words[] = {"peers", "applications", "connections", "nacks", "bypass", "configuration"};
    return words[static_cast<std::size_t>(table)];
}

const char* usual_sort(TableOf table)
{
    static constexpr const char* keys[] = {"before_rate", "before_rate", "before_rate", "time", "since", "setting"};
    return keys[static_cast<std::size_t>(table)];
}

bool has_column(TableOf table, const std::string& key)
{
    switch (table) {
    case TableOf::peers:
        return is_peer_column(key);
    case TableOf::applications:
        return is_application_column(key);
    case TableOf::connections:
        return is_connection_column(key);
    case TableOf::nacks:
        return is_nack_column(key);
    case TableOf::bypass:
        return is_bypass_column(key);
    case TableOf::configuration:
        break;
    }
    return is_setting_column(key);
}

} // namespace kavstat
