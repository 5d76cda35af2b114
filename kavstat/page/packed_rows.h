// Rows of numbers in little memory, for figures that are kept often and looked at seldom: of each row only the figures
// that differ from the row before it are kept, as differences in as few bytes as they need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace kavstat {

class PackedRows
{
public:
    // Appends a row. All rows have the same size.
    void add(std::span<const long long> row);
    // Forgets the oldest row. There is one.
    void drop_oldest();

    std::size_t size() const { return m_size; }
    const std::vector<long long>& oldest() const { return m_oldest; }
    const std::vector<long long>& newest() const { return m_newest; }
    // That are needed; of memory it may be twice as much.
    std::size_t bytes() const
    {
        return sizeof *this + m_changes.size() - m_begin + (m_oldest.size() + m_newest.size()) * sizeof(long long);
    }

    // Calls take(row) for each row, oldest first.
    template <typename Take>
    void for_each(const Take& take) const
    {
        std::vector<long long> row = m_oldest;
        std::size_t at = m_begin;
        for (std::size_t count = 0; count < m_size; ++count) {
            if (count > 0) {
                at = apply_changes(row, at);
            }
            take(std::as_const(row));
        }
    }

private:
    void append(std::span<const std::uint8_t> bytes);
    unsigned long long read(std::size_t& at) const;
    // Changes the row into the next one. Returns where the changes after it begin.
    std::size_t apply_changes(std::vector<long long>& row, std::size_t at) const;

    std::size_t m_size = 0;
    std::vector<long long> m_oldest;
    std::vector<long long> m_newest;
    std::vector<std::uint8_t> m_changes; // from the oldest row to the newest
    std::size_t m_begin = 0;             // of what is still needed of them
};

} // namespace kavstat
