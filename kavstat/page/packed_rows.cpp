#include "page/packed_rows.h"

namespace kavstat {

namespace {

constexpr unsigned int bits_of_byte = 7; // the highest bit says that another byte follows
constexpr unsigned long long more = 1ULL << bits_of_byte;

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

} // namespace

void PackedRows::add(std::span<const long long> row)
{
    if (m_size++ == 0) {
        m_oldest.assign(row.begin(), row.end());
        m_newest = m_oldest;
        return;
    }
    for (std::size_t column = 0; column < row.size(); ++column) {
        unsigned long long value =
            folded(static_cast<unsigned long long>(row[column]) - static_cast<unsigned long long>(m_newest[column]));
        while (value >= more) {
            m_changes += static_cast<char>(value % more + more);
            value >>= bits_of_byte;
        }
        m_changes += static_cast<char>(value);
        m_newest[column] = row[column];
    }
}

void PackedRows::drop_oldest()
{
    if (--m_size > 0) {
        m_begin = apply_changes(m_oldest, m_begin);
    }
    if (m_size == 0 || m_begin > m_changes.size() / 2) {
        m_changes.erase(0, m_size == 0 ? m_changes.size() : m_begin);
        m_begin = 0;
    }
}

std::size_t PackedRows::apply_changes(std::vector<long long>& row, std::size_t at) const
{
    for (long long& figure : row) {
        unsigned long long value = 0;
        for (unsigned int shift = 0;; shift += bits_of_byte) {
            const auto byte = static_cast<unsigned char>(m_changes[at++]);
            value |= (byte % more) << shift;
            if (byte < more) {
                break;
            }
        }
        figure = static_cast<long long>(static_cast<unsigned long long>(figure) + unfolded(value));
    }
    return at;
}

} // namespace kavstat
