// The running engine's statistics for clients that take them at their own speed. Each client reads from a moment: a
// snapshot and the open statistics that it was taken from. Clients that ask soon after one another share one, so that
// taking snapshots costs little however often they ask, and all moments together have a bounded size, however slow the
// clients are.
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

    // Of its memory.
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
    // Of all moments together. One of the largest engine takes 16 MB.
    std::size_t bytes = std::size_t{36} << 20;
    // A moment is shared for so long.
    std::chrono::milliseconds shared_for{1000};
    // When there is no room for another one, the newest is shared until the oldest has been there for so long. Then
    // those who still read from the oldest have to go.
    std::chrono::milliseconds kept_for{10000};
    // Connections are searched for silent ones at most this often.
    std::chrono::milliseconds connections_every{2000};
};

class Moments
{
public:
    // end_readers: makes everybody let go of a moment.
    explicit Moments(std::function<void(const Moment&)> end_readers, const MomentLimits& limits = {})
        : m_end_readers(std::move(end_readers)), m_limits(limits)
    {}

    // Gives the moment for a client that asks now. Returns 0 or an RE_stat_error.
    int take(std::shared_ptr<Moment>& moment);

    // Lets go of what is not shared any more; to be called again and again while there is something.
    void drop_old();
    bool is_empty() const { return m_newest == nullptr; }

private:
    // For another one like the newest.
    bool has_room() const;

    std::function<void(const Moment&)> m_end_readers;
    MomentLimits m_limits;
    PendingWatch m_pending;
    std::shared_ptr<Moment> m_newest;           // while it is shared, also without readers
    std::vector<std::weak_ptr<Moment>> m_alive; // oldest first
};

} // namespace kavstat
