#include "RE_image_reset.h"

#include "RE_sequence.h"
#include "RE_stat_counters.h"

#include <array>

namespace {

// Which counters of one enumeration a reset of the totals sets to 0: all except current values and ids without a
// description. Computed by the compiler, so that programs that only reset do not contain the texts of the descriptions.
template <std::size_t Size, std::size_t Lines>
constexpr std::array<bool, Size> totals_among(const RE_stat_counter_info (&infos)[Lines])
{
    std::array<bool, Size> totals{};
    for (const RE_stat_counter_info& info : infos) {
        for (int id = info.id; id <= info.last_id; ++id) {
            totals[static_cast<std::size_t>(id)] = info.kind != RE_stat_kind::current;
        }
    }
    return totals;
}

constexpr auto global_totals = totals_among<RE_STAT_GLOBAL_ID_MAX>(re_stat_global_counters);
constexpr auto peer_totals = totals_among<RE_STAT_PEER_ID_MAX>(re_stat_peer_counters);
constexpr auto conn_totals = totals_among<RE_STAT_CONN_ID_MAX>(re_stat_conn_counters);

// Counters that only other builds know are reset only with RE_reset_extent::everything.
template <std::size_t Size>
void reset_counters(const RE_image_counters& counters, std::uint32_t row, const std::array<bool, Size>& b_totals,
                    RE_reset_extent extent)
{
    std::int64_t* const first = counters.of_row(row);
    for (std::size_t id = 0; id < counters.count; ++id) {
        if (extent == RE_reset_extent::everything || (id < Size && b_totals[id])) {
            store_relaxed(first + id, std::int64_t{0});
        }
    }
}

} // namespace

void reset_global(const RE_stat_image& image, RE_reset_extent extent)
{
    reset_counters(image.global_stats, 0, global_totals, extent);
    reset_counters(image.global_conn_stats, 0, conn_totals, extent);
}

void reset_peer(const RE_stat_image& image, std::uint32_t row, RE_reset_extent extent)
{
    reset_counters(image.peer_stats, row, peer_totals, extent);
    reset_counters(image.peer_conn_stats, row, conn_totals, extent);
}

void reset_peers(const RE_stat_image& image, RE_reset_extent extent)
{
    const std::uint32_t rows = image.peer_rows_in_reach();
    for (std::uint32_t row = 0; row < rows; ++row) {
        reset_peer(image, row, extent);
    }
}

void reset_conn(const RE_stat_image& image, std::uint32_t row, RE_reset_extent extent)
{
    reset_counters(image.conn_stats, row, conn_totals, extent);
}

void reset_conns(const RE_stat_image& image, RE_reset_extent extent)
{
    const std::uint32_t rows = image.conn_rows_in_reach();
    for (std::uint32_t row = 0; row < rows; ++row) {
        reset_conn(image, row, extent);
    }
}

void reset_apps(const RE_stat_image& image)
{
    // The port and the source-port flag, which identify the application.
    constexpr std::uint64_t identity_bits = 0x1ffff;
    const std::uint32_t rows = image.app_rows_in_reach();
    for (std::uint32_t row = 0; row < rows; ++row) {
        std::uint32_t* const counters = image.app_stats(row);
        for (std::uint32_t id = 0; id < image.counts.app; ++id) {
            store_relaxed(counters + id, std::uint32_t{0});
        }
        __atomic_and_fetch(RE_image_app_word(image.app_header(row)), identity_bits, __ATOMIC_RELAXED);
    }
}

void reset_nacks(const RE_stat_image& image)
{
    store_relaxed(&image.header->nacks_reset, load_acquire(&image.header->nacks_logged));
}
