#include "page/packed_rows.h"

#include <algorithm>
#include <limits>

namespace kavstat {

namespace {

constexpr unsigned int bits_of_byte = 7; // the highest bit says that another byte follows
constexpr unsigned long long more = 1ULL << bits_of_byte;

// One number says which figures of so many changed.
constexpr std::size_t figures_of_mask = std::numeric_limits<unsigned long long>::digits;

// Small numbers for small differences of either sign.
unsigned long long folded(unsigned long long difference)
{
    const bool b_negative = (difference >> 63U) != 0;
    return b_negative ? ~(difference << 1U) : difference << 1U;
}

unsigned long long unfolded(unsigned long long value)
{
    return (value & 1U) != 0 ? ~(value >> 1U) : value >> 1U;
}

void write(unsigned long long value, std::vector<std::uint8_t>& bytes)
{
    while (value >= more) {
        bytes.push_back(static_cast<std::uint8_t>(value % more + more));
        value >>= bits_of_byte;
    }
    bytes.push_back(static_cast<std::uint8_t>(value));
}

// The figures from `first` on that one mask describes.
std::size_t end_of_mask(std::size_t first, std::size_t size)
{
    return std::min(first + figures_of_mask, size);
}

} // namespace

void PackedRows::add(std::span<const long long> row)
{
    if (m_size == 0) {
        m_oldest.assign(row.begin(), row.end());
        m_newest = m_oldest;
        m_size = 1;
        return;
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(2 * row.size());
    for (std::size_t first = 0; first < row.size(); first += figures_of_mask) {
        const std::size_t end = end_of_mask(first, row.size());
        unsigned long long mask = 0;
        for (std::size_t column = first; column < end; ++column) {
            mask |= static_cast<unsigned long long>(row[column] != m_newest[column]) << (column - first);
        }
        write(mask, bytes);
        for (std::size_t column = first; column < end; ++column) {
            if (row[column] != m_newest[column]) {
                write(folded(static_cast<unsigned long long>(row[column]) -
                             static_cast<unsigned long long>(m_newest[column])),
                      bytes);
            }
        }
    }
    append(bytes);
    std::copy(row.begin(), row.end(), m_newest.begin());
    ++m_size;
}

// There are thousands of these objects, so memory grows by little.
void PackedRows::append(std::span<const std::uint8_t> bytes)
{
    constexpr std::size_t part = 8;
    if (m_changes.size() + bytes.size() > m_changes.capacity()) {
        if (m_begin > m_changes.size() / part) {
            m_changes.erase(m_changes.begin(), m_changes.begin() + static_cast<std::ptrdiff_t>(m_begin));
            m_begin = 0;
        }
        const std::size_t needed = m_changes.size() + bytes.size();
        m_changes.reserve(std::max(m_changes.capacity(), needed + needed / part));
    }
    m_changes.insert(m_changes.end(), bytes.begin(), bytes.end());
}

void PackedRows::drop_oldest()
{
    if (--m_size > 0) {
        m_begin = apply_changes(m_oldest, m_begin);
    } else {
        m_begin = m_changes.size();
    }
    if (m_begin > m_changes.size() / 2) {
        m_changes =
            std::vector<std::uint8_t>(m_changes.begin() + static_cast<std::ptrdiff_t>(m_begin), m_changes.end());
        m_begin = 0;
    }
}

unsigned long long PackedRows::read(std::size_t& at) const
{
    unsigned long long value = 0;
    for (unsigned int shift = 0;; shift += bits_of_byte) {
        const std::uint8_t byte = m_changes[at++];
        value |= (byte % more) << shift;
        if (byte < more) {
            return value;
        }
    }
}

std::size_t PackedRows::apply_changes(std::vector<long long>& row, std::size_t at) const
{
    for (std::size_t first = 0; first < row.size(); first += figures_of_mask) {
        const std::size_t end = end_of_mask(first, row.size());
        const unsigned long long mask = read(at);
        for (std::size_t column = first; column < end; ++column) {
            if ((mask >> (column - first) & 1U) != 0) {
                row[column] = static_cast<long long>(static_cast<unsigned long long>(row[column]) + unfolded(read(at)));
            }
        }
    }
    return at;
}

} // namespace kavstat
