#include "RE_moments.h"

#include "RE_stat_error.h"

bool RE_moments::has_room() const
{
    std::size_t bytes = m_alive.back().lock()->bytes();
    for (const std::weak_ptr<RE_moment>& moment : m_alive) {
        bytes += moment.lock()->bytes();
    }
    return bytes <= m_limits.bytes;
}

std::shared_ptr<RE_moment> RE_moments::now(int& error)
{
    // Looked for at every request, so that an engine which is gone is never shown as being there.
    auto source = std::make_unique<RE_source>();
    error = source->open();
    if (error != 0) {
        return nullptr;
    }
    const auto time = std::chrono::steady_clock::now();
    std::erase_if(m_alive, [](const std::weak_ptr<RE_moment>& moment) { return moment.expired(); });
    if (!m_alive.empty()) {
        std::shared_ptr<RE_moment> newest = m_alive.back().lock();
        const bool b_same_engine = newest->snapshot.engine_start_time == source->reader().engine_start_time();
        const bool b_new = time - newest->taken < m_limits.shared_for;
        const bool b_oldest_stays = time - m_alive.front().lock()->taken < m_limits.kept_for;
        if (b_same_engine && !newest->source->reader().is_cut() && (b_new || (b_oldest_stays && !has_room()))) {
            return newest;
        }
    }
    while (!m_alive.empty() && !has_room()) {
        m_end_readers(*m_alive.front().lock());
        m_alive.erase(m_alive.begin());
    }
    auto moment = std::make_shared<RE_moment>(std::move(source));
    if (moment->source->reader().is_cut()) {
        error = RE_STAT_ERR_CUT;
        return nullptr;
    }
    m_alive.push_back(moment);
    return moment;
}
