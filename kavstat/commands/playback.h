// Plays a recorded history in the live view.
#pragma once

#include "commands/recorded.h"
#include "watch/view.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

class Playback
{
public:
    // rules: of the health that the overview shows.
    explicit Playback(RuleSet rules) : m_rules(std::move(rules)), m_model(m_rules) {}

    // Returns why nothing can be played, or nothing.
    std::string open(const HistoryOptions& options);

    const WatchModel& model() const { return m_model; }
    // Shows the sample with the figures that a page needs. False after an error; see error().
    bool show(const WatchNeeds& needs);
    // Reads the figures of the page that is now shown.
    void turn(const WatchNeeds& needs);
    // Moves by so many samples, at most to the first or last one. False when the sample stays the same.
    bool move(long long by);
    // Handles a key. False when it is not a key of the playback.
    bool press(int key);
    bool is_playing() const { return m_b_playing; }
    void pause() { m_b_playing = false; }
    bool is_at_end() const { return m_at + 1 >= m_samples.size(); }
    // "2026-11-20 14:30:00, 17 of 360, playing".
    std::string position() const;
    const std::string& error() const { return m_history.error(); }

private:
    bool update(std::size_t at, const WatchNeeds& needs);

    RuleSet m_rules;
    WatchModel m_model;
    RecordedHistory m_history;
    std::vector<HistorySample> m_samples;
    std::size_t m_at = 0;
    std::optional<std::size_t> m_shown; // the sample that the model has
    WatchModel::clock::time_point m_time;
    std::unique_ptr<Source> m_source;
    bool m_b_playing = false;
};

} // namespace kavstat
