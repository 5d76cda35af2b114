#include "RE_published_app.h"

bool RE_published_app::has_news() const
{
    bool b_news = opened != logged_opened || closed != logged_closed;
    for (std::size_t id = 0; id < totals.size(); ++id) {
        b_news = b_news || published(id) != logged[id];
    }
    return b_news;
}

RE_stat_app_struct RE_published_app::take_log_record()
{
    RE_stat_app_struct record{};
    for (std::size_t id = 0; id < totals.size(); ++id) {
        record.m_id_array[id] = static_cast<std::uint32_t>(published(id) - logged[id]);
        logged[id] = published(id);
    }
    constexpr std::uint32_t open_count_bits = 0x7fffff;
    constexpr std::uint32_t close_count_bits = 0xffffff;
    record.m_header = key;
    record.m_header.m_open_cnt = (opened - logged_opened) & open_count_bits;
    record.m_header.m_close_cnt = (closed - logged_closed) & close_count_bits;
    logged_opened = opened;
    logged_closed = closed;
    return record;
}
