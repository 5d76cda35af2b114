#include "documents/statistics_json.h"

#include "format/json_writer.h"
#include "format/text.h"
#include "model/counter_names.h"
#include "model/record_fields.h"
#include "model/words.h"

#include <memory>
#include <span>
#include <type_traits>

namespace kavstat {

namespace {

struct ScopeWord
{
    std::string_view word;
    bool JsonScopes::*flag;
};
constexpr ScopeWord scope_words[] = {
    {"global", &JsonScopes::b_global}, {"connections", &JsonScopes::b_connections},
    {"peers", &JsonScopes::b_peers},   {"apps", &JsonScopes::b_apps},
    {"nacks", &JsonScopes::b_nacks},   {"config", &JsonScopes::b_config},
    {"bypass", &JsonScopes::b_bypass},
};

// Writes what FieldValue holds.
struct ValueWriter
{
    void operator()(bool b_value) const { json.boolean(b_value); }
    void operator()(long long value) const { json.number(value); }
    void operator()(std::uint64_t value) const { json.number(value); }
    void operator()(Port port) const { json.number(port.number); }
    void operator()(IpAddress address) const { json.text(ip_text(address.ip)); }
    void operator()(const RE_mac_id& mac) const { json.text(mac.getString()); }
    void operator()(const RE_kav_peer_id& identity) const { json.text(identity.getString()); }
    void operator()(const Word& word) const { json.text(word_for(word.words, word.code)); }
    void operator()(std::string_view text) const { json.text(text); }

    JsonWriter& json;
};

// A record's fields as members.
template <typename Record>
void write_fields(JsonWriter& json, Fields<Record> fields, const std::type_identity_t<Record>& record)
{
    for (const Field<Record>& field : fields) {
        json.key(field.key);
        std::visit(ValueWriter{json}, field.value(record));
    }
}

template <typename Record>
void write_record(JsonWriter& json, Fields<Record> fields, const std::type_identity_t<Record>& record)
{
    json.begin_object();
    write_fields(json, fields, record);
    json.end_object();
}

// A section that is an array, written an entry at a time. entry: writes one, given its place in `entries`.
template <typename Entry>
void add_array(Document& document, JsonWriter& json, const char* key, std::size_t entries, const Entry& entry)
{
    document.add_once([&json, key] {
        json.key(key);
        json.begin_array();
    });
    document.add_each(entries, entry);
    document.add_once([&json] { json.end_array(); });
}

// A range of counters is an array, as its members have no names of their own.
template <typename Value>
void write_figures(JsonWriter& json, std::string_view key, CounterScope scope, std::span<const Value> figures)
{
    json.key(key);
    json.begin_object();
    for (const NamedCounter& counter : counters_of(scope)) {
        json.key(counter.key);
        if (counter.is_range()) {
            json.begin_array();
        }
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            json.number(static_cast<long long>(figures[static_cast<std::size_t>(id)]));
        }
        if (counter.is_range()) {
            json.end_array();
        }
    }
    json.end_object();
}

// word: what the statistics come from. file: its name; nothing for the running engine.
void write_head(JsonWriter& json, const char* word, const std::optional<std::string>& file, const Snapshot& snapshot)
{
    json.member("kavstat_json", json_version);
    json.member_text("kavstat_version", KAV_VERSION);
    json.member_text("source", word);
    json.key("file");
    if (file) {
        json.text(*file);
    } else {
        json.null();
    }
    json.member("engine_start_time", snapshot.engine_start_time);
    json.member("capture_time", snapshot.capture_time);
}

void write_global(JsonWriter& json, const Snapshot& snapshot)
{
    json.key("global");
    json.begin_object();
    write_fields(json, engine_fields, snapshot);
    write_figures(json, "counters", CounterScope::engine, std::span<const long long>(snapshot.engine));
    write_figures(json, "connection_counters", CounterScope::connection,
                  std::span<const long long>(snapshot.connections));
    json.end_object();
}

void write_peer(JsonWriter& json, const SnapshotPeer& peer)
{
    json.begin_object();
    write_fields(json, peer_fields, peer);
    write_figures(json, "counters", CounterScope::peer, std::span<const long long>(peer.figures));
    write_figures(json, "connection_counters", CounterScope::connection, std::span<const long long>(peer.connections));
    json.end_object();
}

void write_connection(JsonWriter& json, RE_stat_reader& reader, int slot)
{
    SnapshotConn conn;
    if (!read_connection(reader, slot, conn)) {
        return;
    }
    json.begin_object();
    write_fields(json, connection_fields, conn);
    json.key("transport");
    write_record(json, transport_fields, conn.transport);
    write_figures(json, "counters", CounterScope::connection, std::span<const long long>(conn.figures));
    json.end_object();
}

void write_app(JsonWriter& json, const SnapshotApp& app)
{
    json.begin_object();
    write_fields(json, app_fields, app);
    write_figures(json, "counters", CounterScope::application, std::span<const std::uint32_t>(app.app.m_id_array));
    json.end_object();
}

// The NACK log, oldest entry first.
void add_nacks(Document& document, JsonWriter& json, RE_stat_reader& reader)
{
    document.add([&json, &reader, b_begun = false, cursor = 0]() mutable {
        if (!b_begun) {
            b_begun = true;
            json.key("nacks");
            json.begin_array();
            cursor = reader.get_first_nack();
        } else {
            RE_stat_nack_header nack{};
            cursor = reader.get_next_nack(cursor, nack);
            if (cursor >= 0) {
                write_record(json, nack_fields, nack);
            }
        }
        return cursor >= 0;
    });
    document.add_once([&json] { json.end_array(); });
}

void write_config(JsonWriter& json, RE_stat_reader& reader)
{
    json.key("config");
    const RE_stat_config_param* const config = reader.get_config_param();
    if (config == nullptr) {
        json.null();
        return;
    }
    write_record(json, config_fields, *config);
}

void add_bypass(Document& document, JsonWriter& json, RE_image_reader& reader)
{
    using entries = std::optional<std::vector<RE_bypass_entry>>;
    document.add([&json, &reader, b_begun = false, table = entries(), at = std::size_t{0}]() mutable {
        if (!b_begun) {
            b_begun = true;
            json.key("bypass");
            table = read_bypass(reader);
            if (!table) {
                json.null();
                return false;
            }
            json.begin_array();
        } else if (at < table->size()) {
            write_record(json, bypass_fields, (*table)[at++]);
        } else {
            json.end_array();
            return false;
        }
        return true;
    });
}

} // namespace

std::string all_json_scopes()
{
    std::string words;
    for (const ScopeWord& scope : scope_words) {
        words += (words.empty() ? "" : ",") + std::string(scope.word);
    }
    return words;
}

std::optional<JsonScopes> parse_json_scopes(std::string_view words, std::string& unknown)
{
    JsonScopes scopes{false, false, false, false, false, false, false};
    for (;;) {
        const std::size_t end = words.find(',');
        const std::string_view word = words.substr(0, end);
        bool b_known = false;
        for (const ScopeWord& scope : scope_words) {
            if (scope.word == word) {
                scopes.*scope.flag = true;
                b_known = true;
            }
        }
        if (!b_known) {
            unknown = word;
            return std::nullopt;
        }
        if (end == std::string_view::npos) {
            return scopes;
        }
        words.remove_prefix(end + 1);
    }
}

Document statistics_json(Source& source, const Snapshot& snapshot, const JsonScopes& scopes, Output& output)
{
    Document document;
    // The last part owns it.
    const auto writer = std::make_shared<JsonWriter>(output);
    JsonWriter& json = *writer;
    RE_image_reader& reader = source.reader();
    document.add_once([&, b_global = scopes.b_global] {
        json.begin_object();
        const char* const word = source.is_live() ? "live" : source.is_recorded() ? "history" : "file";
        write_head(json, word, source.is_live() ? std::nullopt : std::optional(source.name()), snapshot);
        if (b_global) {
            write_global(json, snapshot);
        }
    });
    if (scopes.b_peers) {
        add_array(document, json, "peers", snapshot.peers.size(),
                  [&](std::size_t at) { write_peer(json, snapshot.peers[at]); });
    }
    if (scopes.b_connections) {
        add_array(document, json, "connections", static_cast<std::size_t>(reader.get_max_conn_slots()),
                  [&](std::size_t slot) { write_connection(json, reader, static_cast<int>(slot)); });
    }
    if (scopes.b_apps) {
        add_array(document, json, "apps", snapshot.apps.size(),
                  [&](std::size_t at) { write_app(json, snapshot.apps[at]); });
    }
    if (scopes.b_nacks) {
        add_nacks(document, json, reader);
    }
    if (scopes.b_config) {
        document.add_once([&] { write_config(json, reader); });
    }
    if (scopes.b_bypass) {
        add_bypass(document, json, reader);
    }
    document.add_once([&, writer] {
        writer->end_object();
        if (reader.is_cut()) {
            output.give_up();
        }
    });
    return document;
}

void write_global_json(const std::optional<std::string>& file, const Snapshot& snapshot, Output& output)
{
    JsonWriter json(output);
    json.begin_object();
    write_head(json, file ? "file" : "live", file, snapshot);
    write_global(json, snapshot);
    json.end_object();
}

void write_statistics_json(Source& source, const JsonScopes& scopes, std::time_t now, Output& output)
{
    const Snapshot snapshot = take_snapshot(source.reader(), now);
    Document document = statistics_json(source, snapshot, scopes, output);
    while (document.write_more() && output.is_ok()) {
    }
}

} // namespace kavstat
