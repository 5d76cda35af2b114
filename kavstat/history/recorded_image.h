// A recorded moment as an image in memory, with the interface of live statistics and saved files.
#pragma once

#include "RE_image_reader.h"
#include "history/moment.h"

#include <memory>
#include <vector>

namespace kavstat {

class RecordedReader : public RE_image_reader
{
public:
    explicit RecordedReader(const RecordedMoment& moment);

    int open() override;
    int close() override;

protected:
    // The past does not change.
    std::unique_ptr<writable_image> open_writable() override { return nullptr; }

private:
    void add_engine(const RecordedMoment& moment);
    void add_peers(const RecordedMoment& moment);
    void add_conns(const RecordedMoment& moment);
    void add_apps(const RecordedMoment& moment);
    void add_nacks(const RecordedMoment& moment);
    void add_bypass(const RecordedMoment& moment);

    RE_stat_image m_moment;
    RE_image_header m_header{};
    RE_image_config_row m_config{};
    RE_image_global_row m_global{};
    std::vector<RE_image_peer_row> m_peers;
    std::vector<RE_image_peer_counters> m_peer_counters;
    std::vector<RE_image_conn_row> m_conns;
    std::vector<RE_image_conn_counters> m_conn_counters;
    std::vector<RE_image_app_row> m_apps;
    std::vector<RE_image_nack_row> m_nacks;
    std::unique_ptr<RE_bypass_table> m_bypass;
};

} // namespace kavstat
