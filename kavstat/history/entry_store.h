// Stores the entries of one kind: their identities and their figures, each when they changed.
#pragma once

#include "history/database.h"
#include "history/moment.h"
#include "history/rows.h"
#include "history/schema.h"

#include <unordered_map>
#include <vector>

namespace kavstat {

template <typename Record>
class EntryStore
{
public:
    explicit EntryStore(HistoryKind kind) : m_kind(kind) {}

    bool prepare(Database& database)
    {
        m_add_identity = database.prepare(identities_of(m_kind).insertion());
        m_add_figures = database.prepare(figures_of(m_kind).insertion());
        m_end_identity = database.prepare("UPDATE " + identities_of(m_kind).name + " SET gone_sample = ? WHERE id = ?");
        return m_add_identity.is_ready() && m_add_figures.is_ready() && m_end_identity.is_ready();
    }

    // Sets the entries of the last sample in the database; none for a new start of an engine.
    void know(const std::vector<Recorded<Record>>& entries = {})
    {
        m_known.clear();
        for (const Recorded<Record>& entry : entries) {
            m_known[entry_place(entry.record)] = {entry, 0};
        }
    }

    // How many of the entries changed.
    std::size_t changes(const std::vector<Record>& records) const
    {
        std::size_t count = 0;
        for (const Record& record : records) {
            const auto found = m_known.find(entry_place(record));
            count += found == m_known.end() || !is_unchanged(found->second.last.record, record) ? 1U : 0U;
        }
        return count;
    }

    // b_all: also entries that did not change. After an error it returns false, and know() must be called again.
    bool store(Database& database, const std::vector<Record>& records, const HistorySample& sample, bool b_all)
    {
        for (const Record& record : records) {
            Known& known = m_known[entry_place(record)];
            if (known.seen == sample.id) {
                continue; // a damaged image with two entries in one place
            }
            known.seen = sample.id;
            const bool b_unchanged = known.last.identity != 0 && is_unchanged(known.last.record, record);
            if (b_unchanged && !b_all) {
                continue;
            }
            if (known.last.identity == 0 || !is_same_identity(known.last.record, record)) {
                if (!end(known.last.identity, sample.id) || !begin(database, record, sample, known.last.identity)) {
                    return false;
                }
            }
            m_add_figures.bind(sample.id).bind(known.last.identity);
            bind_figures(m_add_figures, record);
            if (!m_add_figures.run()) {
                return false;
            }
            known.last.record = record;
        }
        for (auto entry = m_known.begin(); entry != m_known.end();) {
            if (entry->second.seen == sample.id) {
                ++entry;
            } else if (end(entry->second.last.identity, sample.id)) {
                entry = m_known.erase(entry);
            } else {
                return false;
            }
        }
        return true;
    }

private:
    struct Known
    {
        Recorded<Record> last;
        long long seen = 0; // the last sample with this entry
    };

    static bool is_unchanged(const Record& left, const Record& right)
    {
        return is_same_identity(left, right) && are_same_figures(left, right);
    }

    bool begin(Database& database, const Record& record, const HistorySample& sample, long long& identity)
    {
        m_add_identity.bind_null().bind(sample.engine_start).bind(sample.id).bind_null();
        bind_identity(m_add_identity, record);
        const bool b_ok = m_add_identity.run();
        identity = b_ok ? database.last_row() : 0;
        return b_ok;
    }

    bool end(long long identity, long long sample)
    {
        return identity == 0 || m_end_identity.bind(sample).bind(identity).run();
    }

    HistoryKind m_kind;
    std::unordered_map<std::uint64_t, Known> m_known; // by place
    Statement m_add_identity;
    Statement m_add_figures;
    Statement m_end_identity;
};

} // namespace kavstat
