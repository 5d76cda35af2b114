// The running engine's statistics for clients that read them at their own speed. Each client reads from a moment: a
// snapshot and the open statistics that it was taken from. Clients that ask within a short time share one, so that
// frequent requests cost little. All moments together have a bounded size, even with slow clients.
#pragma once

#include "documents/metrics.h"
#include "health/evaluation.h"
#include "model/snapshot.h"
#include "model/source.h"

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace kavstat {

struct Moment
{
    // open_source: open.
    explicit Moment(std::unique_ptr<Source> open_source)
        : source(std::move(open_source)), snapshot(take_snapshot(source->reader(), std::time(nullptr))),
          exposition(source->reader(), snapshot)
    {}
    Moment(const Moment&) = delete;
    Moment& operator=(const Moment&) = delete;

    // The size of its memory.
    std::size_t bytes() const
    {
        return sizeof *this + snapshot.peers.size() * (sizeof(SnapshotPeer) + sizeof(void*)) +
               snapshot.apps.size() * (sizeof(SnapshotApp) + sizeof(void*));
    }

    std::chrono::steady_clock::time_point taken = std::chrono::steady_clock::now();
    std::unique_ptr<Source> source;
    Snapshot snapshot;
    Exposition exposition;
};

struct MomentLimits
{
    // For all moments together. A moment of the largest engine needs 16 MB, and then there is only one.
    std::size_t bytes = std::size_t{24} << 20;
    // The time for which a moment is shared.
    std::chrono::milliseconds shared_for{1000};
    // When another moment does not fit, the newest is shared until the oldest is this old. Then the clients that read
    // from the oldest are cut off.
    std::chrono::milliseconds kept_for{10000};
    // Connections are searched for silent ones at most this often.
    std::chrono::milliseconds connections_every{2000};
};

class Moments
{
public:
    // end_readers: cuts off all clients that read from a moment.
    explicit Moments(std::function<void(const Moment&)> end_readers, const MomentLimits& limits = {})
        : m_end_readers(std::move(end_readers)), m_limits(limits)
    {}

    // Returns 0 and the moment for a new client, or an RE_stat_error.
    int take(std::shared_ptr<Moment>& moment);

    // Releases moments that are no longer shared. Called regularly until is_empty().
    void drop_old();
    bool is_empty() const { return m_newest == nullptr; }

private:
    // Whether another moment of the newest one's size fits.
    bool has_room() const;

    std::function<void(const Moment&)> m_end_readers;
    MomentLimits m_limits;
    PendingWatch m_pending;
    std::shared_ptr<Moment> m_newest;           // while it is shared, also without readers
    std::vector<std::weak_ptr<Moment>> m_alive; // oldest first
};

} // namespace kavstat
