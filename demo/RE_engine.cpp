#include "RE_engine.h"

#include "RE_clock.h"
#include "RE_engine_config.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>

namespace {

constexpr std::int64_t refresh_interval_ns = ns_per_second / 10;
constexpr double longest_pause_seconds = 3600;
// How long the engine waits before it checks waiting connections again.
constexpr std::chrono::milliseconds waiting_pause(5);
constexpr std::uint64_t ill_sample_bytes = 64 * 1024;
// Checking for signals and reading the clock takes long compared with a tiny message, but not with a slow one.
constexpr unsigned int steps_between_looks(bool b_ill)
{
    return b_ill ? 1 : 32;
}

RE_stat_limits limits_of(const RE_options& options)
{
    RE_stat_limits limits;
    limits.peers = options.peers;
    limits.connections = options.slots;
    limits.applications = std::min(65536, options.peers * static_cast<int>(all_applications().size()));
    return limits;
}

RE_cache_settings cache_settings_of(const RE_options& options)
{
    const std::uint64_t bytes = std::uint64_t{options.cache_mb} << 20U;
    constexpr std::uint64_t least_bytes = 64 * 1024;
    RE_cache_settings settings;
    settings.folder = options.cache_folder;
    settings.bytes_per_peer = std::max(bytes / static_cast<std::uint64_t>(options.peers), least_bytes);
    settings.signature_bits = options.signature_bits;
    settings.chunk_sizes = configured_chunk_sizes();
    return settings;
}

RE_bypass_rule bypass_rule_of(const RE_options& options)
{
    RE_bypass_rule rule;
    rule.sample_bytes = std::uint64_t{options.bypass_threshold_mb} << 20U;
    rule.retry_after = options.bypass_retry;
    return rule;
}

// Each peer has two open cache files.
void allow_many_files()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// A line that cannot be written is not a reason to stop: its reader is gone.
void say(const char* word)
{
    std::puts(word);
    std::fflush(stdout);
}

} // namespace

RE_engine::RE_engine(const RE_options& options, RE_stop_signal& stop)
    : m_options(options), m_stop(stop), m_files(find_traffic(options.paths, options.b_variety)), m_lz(options.lz_level),
      m_concurrency(static_cast<std::size_t>(std::min(options.concurrency, options.slots))),
      m_keep_open(std::min(static_cast<std::size_t>(options.keep_open),
                           static_cast<std::size_t>(options.slots) - m_concurrency)),
      m_publisher(limits_of(options), options.segment_mode, make_config(options)),
      m_ledger(options.ledger.empty() ? 0 : static_cast<std::size_t>(options.slots)),
      m_bypass_policy(bypass_rule_of(options)), m_start_ns(monotonic_ns())
{
    if (options.b_install_config) {
        std::filesystem::create_directories(std::filesystem::path(installed_config_path).parent_path());
        write_config_file(installed_config_path, options);
    }
    if (!options.config_file.empty()) {
        write_config_file(options.config_file, options);
    }
    allow_many_files();
    const RE_cache_settings cache = cache_settings_of(options);
    for (int number = 1; number <= options.peers; ++number) {
        const RE_peer_profile profile = options.b_variety ? odd_peer_profile(number) : RE_peer_profile{};
        m_peers.push_back(std::make_unique<RE_peer>(number, profile, cache, bypass_rule_of(options), m_lz));
    }
    m_publisher.add_peers(m_peers);
    suffer();
    refresh();
}

void RE_engine::run()
{
    say("ready");
    m_start_ns = monotonic_ns();
    bool b_through = false;
    while (!m_stop.is_set()) {
        const int last_conn_id = m_last_conn_id;
        b_through = run_pass();
        if (!b_through) {
            break;
        }
        m_ledger.on_round_end();
        // Passes over little traffic are short.
        const std::int64_t now = monotonic_ns();
        if (m_published_ns == 0 || now - m_published_ns >= ns_per_second) {
            m_published_ns = now;
            publish_pass(b_through);
        }
        if (m_options.b_once) {
            say("idle");
            while (!m_stop.wait(std::chrono::seconds(1))) {
                m_publisher.stay_in_place();
            }
            break;
        }
        // Without traffic, the engine only waits.
        if (m_last_conn_id == last_conn_id) {
            m_stop.wait(std::chrono::seconds(1));
            refresh_now_and_then();
        }
        retry_bypassed_servers();
    }
    publish_pass(b_through);
}

// Runs one pass over the transfers, which take turns message by message. Returns true when all are complete, false when
// the engine must stop before.
bool RE_engine::run_pass()
{
    m_next_transfer = 0;
    while (true) {
        while (m_active.size() < m_concurrency && open_next()) {
        }
        if (m_active.empty()) {
            return true;
        }
        const turn_result result = take_turn();
        if (result == turn_result::stopped) {
            return false;
        }
        if (result == turn_result::waits) {
            // Connections that wait for their peer must not delay the other traffic.
            if (!m_options.b_once && is_pass_through()) {
                return true;
            }
            m_stop.wait(waiting_pause);
            refresh_now_and_then();
        }
    }
}

// Runs the next step of each connection.
RE_engine::turn_result RE_engine::take_turn()
{
    bool b_moved = false;
    for (std::size_t at = 0; at < m_active.size();) {
        const RE_step step = m_active[at]->step();
        b_moved = b_moved || step.b_through || step.sent_bytes > 0;
        if (step.b_through) {
            finish(std::move(m_active[at]));
            m_active.erase(m_active.begin() + static_cast<std::ptrdiff_t>(at));
        } else {
            hold_rate(step.sent_bytes);
            ++at;
        }
        if (++m_steps % steps_between_looks(!m_options.ills.empty()) == 0) {
            if (m_stop.is_set()) {
                return turn_result::stopped;
            }
            refresh_now_and_then();
        }
    }
    return b_moved ? turn_result::moved : turn_result::waits;
}

bool RE_engine::is_pass_through() const
{
    return m_next_transfer >= m_files.size() * static_cast<std::size_t>(m_options.repeat);
}

// Whether the peer gets no further connection, because its stopped ones leave too few places for other peers.
bool RE_engine::is_passed_over(const RE_peer& peer) const
{
    const auto stopped = std::count_if(m_active.begin(), m_active.end(), [&](const auto& connection) {
        return connection->is_stopped() && &connection->peer() == &peer;
    });
    return stopped > 0 && static_cast<std::size_t>(stopped) >= m_concurrency / 2;
}

int RE_engine::next_conn_id() const
{
    return m_last_conn_id == std::numeric_limits<int>::max() ? 1 : m_last_conn_id + 1;
}

// The repeats of a pass come one after another. Each file keeps its peer, its direction and its messages in all
// repeats, so a repeat meets caches that already contain it, and adds nothing to them.
bool RE_engine::open_next()
{
    while (!is_pass_through()) {
        const std::size_t file = m_next_transfer++ % m_files.size();
        const int conn_id = next_conn_id();
        auto seed = m_options.seed + file;
        if (m_files[file].empty()) {
            continue;
        }
        RE_message_source source(m_files[file], {m_options.message_size}, next_random(seed));
        if (!source.is_open()) {
            m_files[file].clear(); // a message was printed before; once is enough
            continue;
        }
        RE_peer& peer = *m_peers[file % m_peers.size()];
        if (is_passed_over(peer)) {
            continue;
        }
        const RE_direction direction = file / m_peers.size() % 2 == 0 ? RE_direction::encode : RE_direction::decode;
        close_spare(m_keep_open);
        m_last_conn_id = conn_id;
        m_active.push_back(std::make_unique<RE_connection>(
            RE_connection_surroundings{m_publisher, m_ledger, m_bypass_policy, m_health}, peer, direction,
            std::move(source), conn_id));
        if (m_health.stuck_conn_id == 0 && m_health.ills.has(RE_illness::conn_stuck)) {
            m_health.stuck_conn_id = conn_id;
        }
        return true;
    }
    return false;
}

void RE_engine::finish(std::unique_ptr<RE_connection> connection)
{
    m_kept_open.push_back(std::move(connection));
    close_spare(m_keep_open);
}

void RE_engine::close_spare(std::size_t connections_to_keep)
{
    while (m_kept_open.size() > connections_to_keep) {
        m_kept_open.front()->close();
        m_kept_open.pop_front();
    }
}

void RE_engine::hold_rate(std::size_t bytes)
{
    m_bytes_sent += bytes;
    if (m_options.rate <= 0) {
        return;
    }
    const double due_seconds = static_cast<double>(m_bytes_sent) / (m_options.rate * 1024 * 1024);
    const double spent_seconds = static_cast<double>(monotonic_ns() - m_start_ns) / static_cast<double>(ns_per_second);
    if (due_seconds > spent_seconds) {
        // The wire does not delay answers for this long, so they are taken before the pause.
        for (const std::unique_ptr<RE_connection>& connection : m_active) {
            connection->receive();
        }
        const std::chrono::duration<double> pause(std::min(due_seconds - spent_seconds, longest_pause_seconds));
        m_stop.wait(std::chrono::duration_cast<std::chrono::nanoseconds>(pause));
        refresh_now_and_then();
    }
}

void RE_engine::refresh_now_and_then()
{
    const std::int64_t now = monotonic_ns();
    if (now - m_refreshed_ns >= refresh_interval_ns) {
        m_refreshed_ns = now;
        m_publisher.stay_in_place();
        suffer();
        refresh();
    }
}

void RE_engine::refresh()
{
    const auto waiting = std::count_if(m_active.begin(), m_active.end(), [](const auto& connection) {
        return connection->is_encoding() && connection->has_pending();
    });
    m_publisher.refresh(m_peers, m_health.ills, static_cast<int>(waiting));
    if (!m_options.ills.empty()) {
        m_publisher.stage(m_peers, m_health.ills);
    }
}

// Starts and ends illnesses as planned.
void RE_engine::suffer()
{
    if (m_options.ills.empty()) {
        return;
    }
    const double seconds = static_cast<double>(monotonic_ns() - m_start_ns) / ns_per_second;
    m_health.ills = illnesses_at(m_options.ills, seconds, m_stop.is_toggled());
    if (!m_health.ills.has(RE_illness::conn_stuck)) {
        m_health.stuck_conn_id = 0;
    }
    m_bypass_policy.set_sample_bytes(
        m_health.ills.has(RE_illness::auto_bypass) ? ill_sample_bytes : bypass_rule_of(m_options).sample_bytes);
    for (const std::unique_ptr<RE_peer>& peer : m_peers) {
        peer->suffer(m_health.ills, m_ticks);
    }
    ++m_ticks;
}

void RE_engine::retry_bypassed_servers()
{
    const std::time_t now = wall_seconds();
    RE_server server{};
    while (m_bypass_policy.take_due(now, server)) {
        m_publisher.clear_bypass(server);
    }
    for (const std::unique_ptr<RE_peer>& peer : m_peers) {
        while (peer->bypass_policy().take_due(now, server)) {
        }
    }
}

void RE_engine::publish_pass(bool b_finished)
{
    refresh();
    if (!m_options.top_app_log.empty()) {
        m_publisher.append_app_log(m_options.top_app_log);
    }
    if (!m_options.ledger.empty()) {
        m_ledger.write(m_options.ledger, b_finished);
    }
}
