// Faults that the engine can have on purpose, to test the programs that watch it: see all_illnesses().
#pragma once

#include <bitset>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

enum class RE_illness : std::uint8_t
{
    cache_unusable,
    cache_failed,
    cache_lost,
    cache_initialising,
    cache_small,
    index_full,
    low_memory,
    slow_disk,
    slow_encode,
    slow_decode,
    bypass,
    nacks,
    retransmissions,
    peer_degraded_sigblock,
    peer_degraded_dataunit,
    peer_out_of_sync,
    peer_outdated,
    peer_low_buffer,
    peer_disconnected,
    peer_far,
    ack_queue,
    incompressible,
    tiny_messages,
    auto_bypass,
    conn_stuck,
    wait_queue,
    bypass_nacks,
    bypass_table_full,
    app_table_full,
    count,
};

struct RE_illness_info
{
    const char* name;
    bool b_happens; // whether the engine's parts really have it; otherwise only its figures are set
    const char* effect;
};

// In the order of RE_illness.
std::span<const RE_illness_info> all_illnesses();

class RE_illness_set
{
public:
    bool has(RE_illness illness) const { return m_bits[static_cast<std::size_t>(illness)]; }
    void add(RE_illness illness) { m_bits.set(static_cast<std::size_t>(illness)); }
    bool operator==(const RE_illness_set&) const = default;

private:
    std::bitset<static_cast<std::size_t>(RE_illness::count)> m_bits;
};

// An illness and its time, in seconds after the engine's start, or from one SIGUSR1 to the next.
struct RE_planned_illness
{
    RE_illness illness;
    double begin;
    double end;
    bool b_by_signal = false;
};

// Reads NAME, NAME@BEGIN, NAME@BEGIN+LENGTH, with times such as 90s, 1.5m or 1h, or NAME@signal. Returns an error
// message or an empty string.
std::string parse_illness(const std::string& text, RE_planned_illness& planned);

RE_illness_set illnesses_at(const std::vector<RE_planned_illness>& plan, double seconds, bool b_signalled);

// The engine's current health, for all of its parts to read.
struct RE_health
{
    RE_illness_set ills;
    int stuck_conn_id = 0; // the connection that RE_illness::conn_stuck holds, 0 for none
};

// The peer that has the illnesses of a single peer.
constexpr int ill_peer_number = 1;
