#include "RE_chunker.h"

#include "RE_random.h"

#include <algorithm>
#include <array>
#include <bit>

namespace {

// The rolling hash adds a random number per byte value and shifts everything up by one bit, so it depends only on the
// last 64 bytes.
constexpr std::size_t window = 64;

constexpr std::array<std::uint64_t, 256> make_gear_table()
{
    std::array<std::uint64_t, 256> table{};
    std::uint64_t state = 0x6b61765f67656172U;
    for (std::uint64_t& entry : table) {
        entry = next_random(state);
    }
    return table;
}

constexpr std::array<std::uint64_t, 256> gear = make_gear_table();

constexpr std::uint32_t largest_chunk = (1U << 14U) - 1;

} // namespace

RE_chunker::RE_chunker(const RE_chunk_sizes& sizes) : m_sizes(sizes)
{
    if (sizes.min < window || sizes.min > sizes.max || sizes.max > largest_chunk ||
        !std::has_single_bit(sizes.anchor_distance)) {
        throw std::invalid_argument("chunk sizes out of range");
    }
    // Only the highest bits of the hash depend on the whole window.
    const int anchor_bits = std::countr_zero(sizes.anchor_distance);
    m_anchor_mask = anchor_bits == 0 ? 0 : ~std::uint64_t{0} << (64 - anchor_bits);
}

RE_chunk_cut RE_chunker::cut(RE_byte_view data) const
{
    const std::size_t end = std::min<std::size_t>(data.size(), m_sizes.max);
    std::uint64_t hash = 0;
    for (std::size_t at = m_sizes.min - window; at < end; ++at) {
        hash = (hash << 1U) + gear[data[at]];
        if (at + 1 >= m_sizes.min && (hash & m_anchor_mask) == 0) {
            return {static_cast<std::uint32_t>(at + 1), RE_cut_cause::anchor};
        }
    }
    const RE_cut_cause cause = end == m_sizes.max ? RE_cut_cause::forced : RE_cut_cause::end_of_data;
    return {static_cast<std::uint32_t>(end), cause};
}
