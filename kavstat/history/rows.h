// Records as rows of the history's tables, and rows as records.
#pragma once

#include "history/database.h"
#include "history/moment.h"
#include "model/counter_names.h"
#include "model/record_fields.h"

#include <span>
#include <type_traits>

namespace kavstat {

// Bind a record's fields, one column each. Texts become valid UTF-8 without control characters.
struct FieldBinder
{
    void operator()(bool b_value) const { statement.bind(b_value ? 1 : 0); }
    void operator()(long long value) const { statement.bind(value); }
    // Values above 2^63, as in a damaged image, become negative, and are restored when they are read.
    void operator()(std::uint64_t value) const { statement.bind(static_cast<long long>(value)); }
    void operator()(Port port) const { statement.bind(static_cast<long long>(port.number)); }
    void operator()(IpAddress address) const;
    void operator()(const RE_mac_id& mac) const { statement.bind(mac.getString()); }
    void operator()(const RE_kav_peer_id& identity) const { statement.bind(identity.getString()); }
    void operator()(const Word& word) const;
    void operator()(std::string_view text) const;

    Statement& statement;
};

template <typename Record>
void bind_fields(Statement& statement, Fields<Record> fields, const std::type_identity_t<Record>& record)
{
    for (const Field<Record>& field : fields) {
        std::visit(FieldBinder{statement}, field.value(record));
    }
}

// Bind the figures of a scope, in the order of counter_columns().
template <typename Value>
void bind_counters(Statement& statement, CounterScope scope, std::span<const Value> figures)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            statement.bind(static_cast<long long>(figures[static_cast<std::size_t>(id)]));
        }
    }
}

// Reads them from the columns from `column` on, which is then the column after them.
template <typename Value>
void read_counters(const Statement& row, int& column, CounterScope scope, std::span<Value> figures)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            figures[static_cast<std::size_t>(id)] = static_cast<Value>(row.integer(column++));
        }
    }
}

// The same for the identities and figures of a kind: the columns of its tables after the tables' own.
void bind_identity(Statement& statement, const SnapshotPeer& peer);
void bind_identity(Statement& statement, const SnapshotApp& app);
void bind_identity(Statement& statement, const RE_bypass_entry& entry);
void bind_figures(Statement& statement, const SnapshotPeer& peer);
void bind_figures(Statement& statement, const SnapshotApp& app);
void bind_figures(Statement& statement, const RE_bypass_entry& entry);
void read_identity(const Statement& row, int column, SnapshotPeer& peer);
void read_identity(const Statement& row, int column, SnapshotApp& app);
void read_identity(const Statement& row, int column, RE_bypass_entry& entry);
void read_figures(const Statement& row, int column, SnapshotPeer& peer);
void read_figures(const Statement& row, int column, SnapshotApp& app);
void read_figures(const Statement& row, int column, RE_bypass_entry& entry);

// Unique among the entries of one moment.
std::uint64_t entry_place(const SnapshotPeer& peer);
std::uint64_t entry_place(const SnapshotApp& app);
std::uint64_t entry_place(const RE_bypass_entry& entry);

// Whether the rows would be equal.
bool is_same_identity(const SnapshotPeer& left, const SnapshotPeer& right);
bool is_same_identity(const SnapshotApp& left, const SnapshotApp& right);
bool is_same_identity(const RE_bypass_entry& left, const RE_bypass_entry& right);
bool are_same_figures(const SnapshotPeer& left, const SnapshotPeer& right);
bool are_same_figures(const SnapshotApp& left, const SnapshotApp& right);
bool are_same_figures(const RE_bypass_entry& left, const RE_bypass_entry& right);

// Reduces a peer's header to what a row stores: cleans the text of the host name, and clears the padding.
void clean_header(RE_stat_peer_header& header);

void bind_connection(Statement& statement, const SnapshotConn& conn);
void read_connection_row(const Statement& row, int column, SnapshotConn& conn);
void read_nack_row(const Statement& row, int column, RE_stat_nack_header& nack);

} // namespace kavstat
