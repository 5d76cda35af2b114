// The engines that exchange traffic with this one. Each is a complete engine with its own caches and policies, but runs
// in the same process.
#pragma once

#include "RE_bypass_policy.h"
#include "RE_illness.h"
#include "RE_path.h"
#include "RE_stat_records.h"

// The differences between a peer and an ordinary one.
struct RE_peer_profile
{
    bool b_outdated = false;
    bool b_named = true; // its host name is known
    int major_version = 4;
    int minor_version = 4;
    // The senders assume full caches. The receivers of both directions have caches of this part of the size.
    unsigned int cache_divisor = 1;
    unsigned int signature_bits = 64; // at most
    bool b_slow_start = false;        // its cache is loaded in steps while traffic already arrives
    RE_read_budget read_budget;       // of its disk
};

// Returns the profile of the peer with this number. The second to the fourth peer have problems.
RE_peer_profile odd_peer_profile(int number);

// The cache that this engine has for each peer.
struct RE_cache_settings
{
    std::string folder;
    std::uint64_t bytes_per_peer = 0;
    unsigned int signature_bits = 64;
    RE_chunk_sizes chunk_sizes;
};

// This engine's own address and identity, in the range of locally administered addresses.
RE_mac_id own_mac_id();
RE_kav_peer_id own_kav_peer_id();

class RE_peer
{
public:
    // number: from 1; it determines the peer's name and addresses. lz: used, not owned.
    RE_peer(int number, const RE_peer_profile& profile, const RE_cache_settings& cache,
            const RE_bypass_rule& bypass_rule, RE_lz& lz);

    // Gives these illnesses, and no others, to the peer's parts. tick: how often the engine has called this function.
    void suffer(const RE_illness_set& ills, std::uint64_t tick);
    // How long an answer from the peer takes.
    std::int64_t distance_ns() const { return m_distance_ns; }

    int number() const { return m_number; }
    const RE_peer_profile& profile() const { return m_profile; }
    const RE_stat_peer_header& header() const { return m_header; }
    // Releases before 4.4.1 use other clocks for their caches.
    bool is_before_4_4_1() const;

    RE_path& outbound() { return m_outbound; } // this engine encodes
    RE_path& inbound() { return m_inbound; }   // the peer encodes
    const RE_path& outbound() const { return m_outbound; }
    const RE_path& inbound() const { return m_inbound; }
    // The peer's own measurements of the servers whose traffic it encodes.
    RE_bypass_policy& bypass_policy() { return m_bypass_policy; }

    // The peer's server of an application that uses this port, in host order.
    RE_server server(std::uint16_t handler, std::uint16_t port) const;

private:
    void start_anew_after(const RE_illness_set& ills);

    int m_number;
    RE_peer_profile m_profile;
    RE_stat_peer_header m_header;
    RE_path m_outbound;
    RE_path m_inbound;
    RE_bypass_policy m_bypass_policy;
    RE_illness_set m_ills;
    std::int64_t m_distance_ns = 0;
};
