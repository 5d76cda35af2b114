#include "RE_peer.h"

#include "RE_clock.h"
#include "RE_random.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::uint64_t kilobyte = 1024;
constexpr std::uint64_t megabyte = 1024 * kilobyte;

// The strength of illnesses. A small cache is slightly larger than its whole megabytes, so that it shows as full when
// it is full.
constexpr RE_fifo_limit small_cache{megabyte + 64 * kilobyte};
constexpr RE_fifo_limit tiny_cache{64 * kilobyte};
constexpr RE_fifo_limit small_index{std::numeric_limits<std::uint64_t>::max(), 64};
constexpr std::int64_t slow_read_ns = 20 * ns_per_ms;
constexpr std::int64_t slow_message_ns = 50 * ns_per_ms;
constexpr std::int64_t far_ns = 600 * ns_per_ms;
constexpr std::uint64_t ticks_between_losses = 5;

// All addresses are in the networks reserved for examples: 192.0.2.0/24, 198.51.100.0/24 and 203.0.113.0/24.
constexpr std::uint32_t server_network = 0xc6336400U;
constexpr std::uint32_t peer_network = 0xcb007100U;

std::uint32_t host_in(std::uint32_t network, std::uint32_t host)
{
    return network + 1 + host % 254;
}

// The second lowest bit of the first byte marks an address as locally administered.
RE_mac_id mac_id_of(int number)
{
    const auto low = static_cast<std::uint32_t>(number);
    const unsigned char bytes[6] = {
        0x02, 0x4b, 0x41, 0x56, static_cast<unsigned char>(low >> 8U), static_cast<unsigned char>(low)};
    return RE_mac_id(bytes);
}

RE_kav_peer_id kav_peer_id_of(int number)
{
    RE_kav_peer_id id{};
    mac_id_of(number).copy_to(id.m_data);
    auto state = static_cast<std::uint64_t>(number);
    for (std::size_t at = sizeof(RE_mac_id); at < sizeof id.m_data; ++at) {
        id.m_data[at] = static_cast<unsigned char>(next_random(state));
    }
    return id;
}

RE_stat_peer_header header_of(int number, const RE_peer_profile& profile)
{
    RE_stat_peer_header header{};
    RE_param_id param{};
    std::memcpy(param.m_data, &number, sizeof number);
    header.m_context_id = RE_context_id(own_mac_id(), mac_id_of(number), param);
    header.m_peer_mac_id = mac_id_of(number);
    header.m_kav_peer_id = kav_peer_id_of(number);
    header.m_peer_ip = host_in(peer_network, static_cast<std::uint32_t>(number - 1));
    if (profile.b_named) {
        std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "branch-%d.example.net", number);
    }
    header.m_b_update_from_active_conn = 1;
    header.m_b_outdated = profile.b_outdated ? 1 : 0;
    return header;
}

RE_decoder_settings decoder_settings(const RE_peer_profile& profile, const RE_cache_settings& cache)
{
    RE_decoder_settings settings;
    settings.folder = cache.folder;
    settings.capacity = std::max<std::uint64_t>(cache.bytes_per_peer / profile.cache_divisor, 64 * kilobyte);
    settings.smallest_chunk = cache.chunk_sizes.min;
    settings.signature_bits = std::min(profile.signature_bits, cache.signature_bits);
    return settings;
}

// Returns the settings of the peer's decoder.
RE_decoder_settings remote_settings(const RE_peer_profile& profile, const RE_cache_settings& cache)
{
    RE_decoder_settings settings = decoder_settings(profile, cache);
    settings.load_step = profile.b_slow_start ? settings.capacity / 32 : 0;
    settings.read_budget = profile.read_budget;
    return settings;
}

} // namespace

RE_peer_profile odd_peer_profile(int number)
{
    RE_peer_profile profile;
    switch (number) {
    case 2: // outdated, with a small cache
        profile.b_outdated = true;
        profile.cache_divisor = 16;
        break;
    case 3: // just started, with a slow disk
        profile.b_named = false;
        profile.b_slow_start = true;
        profile.read_budget = {4 * kilobyte, 48 * kilobyte};
        break;
    case 4: // an older release with short signatures
        profile.minor_version = 3;
        profile.signature_bits = 20;
        break;
    default:
        break;
    }
    return profile;
}

RE_mac_id own_mac_id()
{
    return mac_id_of(0);
}

RE_kav_peer_id own_kav_peer_id()
{
    return kav_peer_id_of(0);
}

RE_peer::RE_peer(int number, const RE_peer_profile& profile, const RE_cache_settings& cache,
                 const RE_bypass_rule& bypass_rule, RE_lz& lz)
    : m_number(number), m_profile(profile), m_header(header_of(number, m_profile)),
      m_outbound(cache.chunk_sizes, cache.bytes_per_peer, remote_settings(m_profile, cache), lz),
      m_inbound(cache.chunk_sizes, cache.bytes_per_peer, decoder_settings(m_profile, cache), lz),
      m_bypass_policy(bypass_rule)
{}

void RE_peer::suffer(const RE_illness_set& ills, std::uint64_t tick)
{
    const auto has = [&](RE_illness illness) { return ills.has(illness); };
    const auto first_has = [&](RE_illness illness) { return m_number == ill_peer_number && ills.has(illness); };
    const std::time_t now = wall_seconds();

    RE_chunk_store& store = m_inbound.decoder().store();
    store.set_in_use(!has(RE_illness::cache_unusable) && !has(RE_illness::cache_initialising));
    store.set_disk_full(has(RE_illness::cache_failed) || has(RE_illness::cache_lost));
    store.set_disk_delay(has(RE_illness::slow_disk) ? slow_read_ns : 0);
    m_inbound.decoder().set_delay(has(RE_illness::slow_decode) ? slow_message_ns : 0);
    m_outbound.encoder().set_delay(has(RE_illness::slow_encode) ? slow_message_ns : 0);

    // Both ends use the limits of a small cache and a small index. A tiny cache is unknown to the other end.
    RE_fifo_limit inbound_limit = has(RE_illness::cache_small) ? small_cache : RE_fifo_limit{};
    inbound_limit.chunks = has(RE_illness::index_full) ? small_index.chunks : inbound_limit.chunks;
    m_inbound.encoder().limit(inbound_limit, now);
    store.limit(first_has(RE_illness::nacks) ? tiny_cache : inbound_limit, now);
    m_outbound.encoder().limit(has(RE_illness::index_full) ? small_index : RE_fifo_limit{}, now);

    RE_chunk_store& remote_store = m_outbound.decoder().store();
    remote_store.limit(first_has(RE_illness::retransmissions) ? tiny_cache : RE_fifo_limit{}, now);
    remote_store.set_in_use(!first_has(RE_illness::peer_out_of_sync) || tick % ticks_between_losses != 0);
    m_distance_ns = first_has(RE_illness::peer_far) ? far_ns : 0;

    start_anew_after(ills);
    m_ills = ills;
}

// After an illness the sender may still refer to chunks that the receiver has lost, and each would be refused. So the
// sender forgets all of them.
void RE_peer::start_anew_after(const RE_illness_set& ills)
{
    const auto one_ended = [&](std::initializer_list<RE_illness> illnesses) {
        return std::any_of(illnesses.begin(), illnesses.end(),
                           [&](RE_illness illness) { return m_ills.has(illness) && !ills.has(illness); });
    };
    const bool b_first = m_number == ill_peer_number;
    if (one_ended({RE_illness::cache_unusable, RE_illness::cache_failed, RE_illness::cache_lost,
                   RE_illness::cache_initialising}) ||
        (b_first && one_ended({RE_illness::nacks}))) {
        m_inbound.encoder().start_anew();
    }
    if (b_first && one_ended({RE_illness::retransmissions, RE_illness::peer_out_of_sync})) {
        m_outbound.encoder().start_anew();
    }
}

bool RE_peer::is_before_4_4_1() const
{
    return m_profile.major_version < 4 || (m_profile.major_version == 4 && m_profile.minor_version < 4);
}

RE_server RE_peer::server(std::uint16_t handler, std::uint16_t port) const
{
    const auto number = static_cast<std::uint32_t>(m_number - 1);
    return {host_in(server_network, number * 8 + handler), port};
}
