// The fields of the engine's records, each described once: the JSON document, its schema and differences come from
// here.
#pragma once

#include "RE_stat_counters.h"
#include "RE_stat_records.h"
#include "model/snapshot.h"

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

namespace kavstat {

struct IpAddress
{
    std::uint32_t ip; // host order
};

struct Port
{
    std::uint64_t number;
};

// A code with its word; see model/words.h.
struct Word
{
    std::span<const char* const> words;
    long long code;
    bool b_closed = false; // other codes do not exist; otherwise their word is "unknown"
};

// The value of a field. The alternative determines its form in documents. Texts live as long as their record.
using FieldValue =
    std::variant<bool, long long, std::uint64_t, Port, IpAddress, RE_mac_id, RE_kav_peer_id, Word, std::string_view>;

template <typename Value>
FieldValue as_field_value(const Value& value)
{
    if constexpr (std::integral<Value> && !std::same_as<Value, bool> && !std::same_as<Value, std::uint64_t>) {
        return static_cast<long long>(value);
    } else {
        return value;
    }
}

template <typename Record>
struct Field
{
    // get: a lambda without captures that takes a record and returns an alternative of FieldValue, or any integer.
    template <typename Get>
    constexpr Field(const char* field_key, const char* field_meaning, Get,
                    std::optional<RE_stat_unit> field_unit = std::nullopt)
        : key(field_key), meaning(field_meaning), unit(field_unit),
          value([](const Record& record) { return as_field_value(Get{}(record)); })
    {}

    const char* key; // in documents
    const char* meaning;
    std::optional<RE_stat_unit> unit; // of quantities and moments
    FieldValue (*value)(const Record&);
};

template <typename Record>
using Fields = std::span<const Field<Record>>;

// In the order of the document.
extern const Fields<Snapshot> engine_fields;
extern const Fields<SnapshotPeer> peer_fields;
extern const Fields<SnapshotConn> connection_fields;
extern const Fields<SO_stat_conn_header> transport_fields;
extern const Fields<SnapshotApp> app_fields;
extern const Fields<RE_stat_nack_header> nack_fields;
extern const Fields<RE_stat_config_param> config_fields;
extern const Fields<RE_bypass_entry> bypass_fields;

} // namespace kavstat
