#include "RE_image_reset.h"

#include "RE_sequence.h"
#include "RE_stat_counters.h"

namespace {

// Sets the counters of one enumeration to 0. infos: what RE_stat_counters.def says of them; a line may stand for a
// range. "Everything" takes in places of the array that no line describes.
template <std::size_t Size, typename Infos>
void reset_counters(std::int64_t (&counters)[Size], const Infos& infos, RE_reset_extent extent)
{
    if (extent == RE_reset_extent::everything) {
        for (std::int64_t& counter : counters) {
            store_relaxed(&counter, std::int64_t{0});
        }
        return;
    }
    for (const RE_stat_counter_info& info : infos) {
        if (info.kind == RE_stat_kind::current) {
            continue;
        }
        for (int id = info.id; id <= info.last_id; ++id) {
            store_relaxed(&counters[id], std::int64_t{0});
        }
    }
}

} // namespace

void reset_global(const RE_stat_image& image, RE_reset_extent extent)
{
    reset_counters(image.global->stats, re_stat_global_counters, extent);
    reset_counters(image.global->conn_stats, re_stat_conn_counters, extent);
}

void reset_peer(const RE_stat_image& image, std::uint32_t row, RE_reset_extent extent)
{
    reset_counters(image.peer_counters[row].stats, re_stat_peer_counters, extent);
    reset_counters(image.peer_counters[row].conn_stats, re_stat_conn_counters, extent);
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
    reset_counters(image.conn_counters[row].stats, re_stat_conn_counters, extent);
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
    // Port and source-port flag, which name the application, share their word with the two connection counts.
    constexpr std::uint64_t identity_bits = 0x1ffff;
    const std::uint32_t rows = image.app_rows_in_reach();
    for (std::uint32_t row = 0; row < rows; ++row) {
        RE_stat_app_struct& app = image.apps[row].app;
        for (std::uint32_t& counter : app.m_id_array) {
            store_relaxed(&counter, std::uint32_t{0});
        }
        auto* const header = reinterpret_cast<unsigned char*>(&app.m_header);
        __atomic_and_fetch(reinterpret_cast<std::uint64_t*>(header + 4), identity_bits, __ATOMIC_RELAXED);
    }
}

void reset_nacks(const RE_stat_image& image)
{
    store_relaxed(&image.header->nacks_reset, load_acquire(&image.header->nacks_logged));
}
