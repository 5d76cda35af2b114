// The tables of NACKs, bypassed servers and settings.
#include "page/table_rows.h"

#include "model/record_fields.h"
#include "model/words.h"

#include <memory>

namespace kavstat {

namespace {

constexpr TableColumn<RE_stat_nack_header> nack_columns[] = {
    {"time", "Time", "time", [](const RE_stat_nack_header& n) { return TableCell(static_cast<long long>(n.m_time)); }},
    {"type", "Type", "text",
     [](const RE_stat_nack_header& n) {
         return TableCell(std::string(n.m_type == RE_STAT_NACK_AT_RECEIVER ? "sent a NACK" : "sent again"));
     }},
    {"reason", "Reason", "text",
     [](const RE_stat_nack_header& n) { return TableCell(spaced(word_for(nack_reason_words, n.m_reason))); }},
    {"peer", "Peer", "number",
     [](const RE_stat_nack_header& n) { return TableCell(static_cast<long long>(n.m_peer_id)); }},
    {"connection", "Connection", "number",
     [](const RE_stat_nack_header& n) { return TableCell(static_cast<long long>(n.m_conn_id)); }},
    {"message", "Message", "number",
     [](const RE_stat_nack_header& n) { return TableCell(static_cast<long long>(n.m_msg_seq_no)); }},
};

constexpr TableColumn<RE_bypass_entry> bypass_columns[] = {
    {"server", "Server", "text",
     [](const RE_bypass_entry& b) { return TableCell(end_of_connection(b.server_ip, b.server_port)); }},
    {"reason", "Reason", "text",
     [](const RE_bypass_entry& b) {
         return TableCell(spaced(word_for(bypass_reason_words, static_cast<int>(b.reason))));
     }},
    {"since", "Since", "time", [](const RE_bypass_entry& b) { return TableCell(static_cast<long long>(b.since)); }},
    {"next_attempt", "Next attempt", "time",
     [](const RE_bypass_entry& b) {
         return b.next_attempt != 0 ? TableCell(static_cast<long long>(b.next_attempt)) : TableCell();
     }},
    {"bytes", "Bypassed", "bytes", [](const RE_bypass_entry& b) { return TableCell(static_cast<double>(b.bytes)); }},
    {"connections", "Connections", "count",
     [](const RE_bypass_entry& b) { return TableCell(static_cast<double>(b.connections)); }},
};

struct SettingRow
{
    const char* key;
    const char* meaning;
    const char* unit;
    TableCell value;
};

constexpr TableColumn<SettingRow> setting_columns[] = {
    {"setting", "Setting", "text", [](const SettingRow& s) { return TableCell(std::string(s.key)); }},
    {"value", "Value", "value", [](const SettingRow& s) { return s.value; }},
    {"unit", "Unit", "text", [](const SettingRow& s) { return TableCell(std::string(s.unit)); }},
    {"meaning", "Meaning", "text", [](const SettingRow& s) { return TableCell(std::string(s.meaning)); }},
};

// A field of a record as a cell.
struct CellOfField
{
    TableCell operator()(bool b_value) const { return std::string(b_value ? "yes" : "no"); }
    TableCell operator()(long long value) const { return value; }
    TableCell operator()(std::uint64_t value) const { return static_cast<double>(value); }
    TableCell operator()(Port port) const { return static_cast<double>(port.number); }
    TableCell operator()(IpAddress address) const { return ip_text(address.ip); }
    TableCell operator()(const RE_mac_id& mac) const { return mac.getString(); }
    TableCell operator()(const RE_kav_peer_id& identity) const { return identity.getString(); }
    TableCell operator()(const Word& word) const { return spaced(word_for(word.words, word.code)); }
    TableCell operator()(std::string_view text) const { return clean_text(text); }
};

const char* word_of_unit(RE_stat_unit unit)
{
    static constexpr const char* words[] = {
#define RE_STAT_UNIT(word) #word,
#include "RE_stat_counters.def"
    };
    return words[static_cast<std::size_t>(unit)];
}

// A table of NACKs that is being made.
struct NacksInWork
{
    NacksInWork(const TableQuery& query, Output& output) : selection(nack_columns, query), json(output) {}

    RowSelection<RE_stat_nack_header> selection;
    JsonWriter json;
    std::size_t total = 0;
    int cursor = 0;
    bool b_begun = false;
};

} // namespace

bool is_nack_column(const std::string& key)
{
    return has_column_in<RE_stat_nack_header>(nack_columns, key);
}

bool is_bypass_column(const std::string& key)
{
    return has_column_in<RE_bypass_entry>(bypass_columns, key);
}

bool is_setting_column(const std::string& key)
{
    return has_column_in<SettingRow>(setting_columns, key);
}

Document nacks_document(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output)
{
    constexpr int nacks_at_once = 4096;
    const auto work = std::make_shared<NacksInWork>(query, output);
    Document document;
    document.add_once([work, &snapshot] { write_table_head(work->json, TableOf::nacks, snapshot, 0); });
    document.add([work, &reader, &output] {
        if (!work->b_begun) {
            work->b_begun = true;
            work->cursor = reader.get_first_nack();
        }
        RE_stat_nack_header nack{};
        for (int count = 0; count < nacks_at_once && work->cursor >= 0; ++count) {
            work->cursor = reader.get_next_nack(work->cursor, nack);
            if (work->cursor >= 0) {
                ++work->total;
                work->selection.add(nack);
            }
        }
        output.add('\n');
        output.flush();
        return work->cursor >= 0;
    });
    document.add_once([work, &reader, &output] {
        work->selection.write(work->json, work->total);
        work->json.end_object();
        if (reader.is_cut()) {
            output.give_up();
        }
    });
    return document;
}

void write_bypass(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output)
{
    const auto entries = read_bypass(reader).value_or(std::vector<RE_bypass_entry>());
    RowSelection<RE_bypass_entry> selection(bypass_columns, query);
    for (const RE_bypass_entry& entry : entries) {
        selection.add(entry);
    }
    selection.write_table(output, TableOf::bypass, snapshot, 0, entries.size());
}

void write_configuration(RE_image_reader& reader, const Snapshot& snapshot, const TableQuery& query, Output& output)
{
    const RE_stat_config_param* const config = reader.get_config_param();
    RowSelection<SettingRow> selection(setting_columns, query);
    const Fields<RE_stat_config_param> fields = config != nullptr ? config_fields : Fields<RE_stat_config_param>();
    for (const Field<RE_stat_config_param>& field : fields) {
        const char* const unit = field.unit ? word_of_unit(*field.unit) : "";
        selection.add({field.key, field.meaning, unit, std::visit(CellOfField(), field.value(*config))});
    }
    selection.write_table(output, TableOf::configuration, snapshot, 0, fields.size());
}

} // namespace kavstat
