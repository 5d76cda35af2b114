// The engine as a whole: its peers, its concurrent connections, and its passes over the traffic.
#pragma once

#include "RE_connection.h"
#include "RE_options.h"
#include "RE_stop_signal.h"

class RE_engine
{
public:
    // Publishes the statistics. options, stop: used, not owned. Throws when the engine cannot start.
    RE_engine(const RE_options& options, RE_stop_signal& stop);

    // Runs until the engine must stop. Throws when data is wrong or cannot be written.
    void run();

private:
    enum class turn_result
    {
        moved,
        waits, // every connection waits for its peer
        stopped,
    };

    bool run_pass();
    turn_result take_turn();
    bool is_pass_through() const;
    bool is_passed_over(const RE_peer& peer) const;
    void refresh();
    void suffer();
    int next_conn_id() const;
    bool open_next();
    void finish(std::unique_ptr<RE_connection> connection);
    void close_spare(std::size_t connections_to_keep);
    void hold_rate(std::size_t bytes);
    void refresh_now_and_then();
    void retry_bypassed_servers();
    void publish_pass(bool b_finished);

    const RE_options& m_options;
    RE_stop_signal& m_stop;
    std::vector<std::string> m_files;
    RE_lz m_lz;
    std::size_t m_concurrency;
    std::size_t m_keep_open;
    RE_publisher m_publisher;
    RE_ledger m_ledger;
    RE_bypass_policy m_bypass_policy;
    std::vector<std::unique_ptr<RE_peer>> m_peers;
    RE_health m_health;
    std::uint64_t m_ticks = 0; // counted only when illnesses are planned

    int m_last_conn_id = 0;
    std::size_t m_next_transfer = 0; // of this pass
    std::vector<std::unique_ptr<RE_connection>> m_active;
    std::deque<std::unique_ptr<RE_connection>> m_kept_open; // their transfers are complete; oldest first
    std::uint64_t m_bytes_sent = 0;
    std::int64_t m_start_ns;
    std::int64_t m_refreshed_ns = 0;
    std::int64_t m_published_ns = 0;
    unsigned int m_steps = 0;
};
