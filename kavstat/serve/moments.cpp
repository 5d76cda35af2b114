#include "serve/moments.h"

#include "RE_stat_error.h"

namespace kavstat {

bool Moments::has_room() const
{
    std::size_t bytes = m_alive.back().lock()->bytes();
    for (const std::weak_ptr<Moment>& moment : m_alive) {
        bytes += moment.lock()->bytes();
    }
    return bytes <= m_limits.bytes;
}

void Moments::drop_old()
{
    if (m_newest != nullptr && std::chrono::steady_clock::now() - m_newest->taken >= m_limits.shared_for) {
        m_newest.reset();
    }
    std::erase_if(m_alive, [](const std::weak_ptr<Moment>& moment) { return moment.expired(); });
}

int Moments::take(std::shared_ptr<Moment>& moment)
{
    // Opened at every request, so that an engine which is gone is never shown as running.
    auto source = std::make_unique<Source>();
    if (const int error = source->open()) {
        return error;
    }
    drop_old();
    if (!m_alive.empty()) {
        std::shared_ptr<Moment> newest = m_alive.back().lock();
        const bool b_same_engine = newest->source->is_same_engine(*source);
        const bool b_oldest_stays =
            std::chrono::steady_clock::now() - m_alive.front().lock()->taken < m_limits.kept_for;
        if (b_same_engine && !newest->source->reader().is_cut() &&
            (newest == m_newest || (b_oldest_stays && !has_room()))) {
            moment = newest;
            return 0;
        }
    }
    // All clients wait while a snapshot is taken.
    source->reader().patience() = RE_patience::with_engine(RE_patience::second / 20);
    m_newest.reset();
    drop_old();
    while (!m_alive.empty() && !has_room()) {
        m_end_readers(*m_alive.front().lock());
        m_alive.erase(m_alive.begin());
    }
    auto made = std::make_shared<Moment>(std::move(source));
    if (made->source->reader().is_cut()) {
        return RE_STAT_ERR_CUT;
    }
    made->exposition.set_longest_silence(
        m_pending.update(made->source->reader(), made->snapshot, made->taken, m_limits.connections_every)
            .longest_silence());
    m_alive.push_back(made);
    m_newest = made;
    moment = made;
    return 0;
}

} // namespace kavstat
