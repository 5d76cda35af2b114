// A document that is written in pieces, as fast as its reader takes them. Between two pieces it keeps only a position,
// so that many clients can be served with documents of any size.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace kavstat {

class Document
{
public:
    // Adds a part. write: writes a piece of the part with each call; returns false after the last piece.
    void add(std::function<bool()> write) { m_parts.push_back(std::move(write)); }

    // Adds a part that is written with one call.
    template <typename Write>
    void add_once(Write write)
    {
        add([write = std::move(write)] {
            write();
            return false;
        });
    }

    // Adds a part that is written with `count` calls: write(0), write(1), ...
    template <typename Write>
    void add_each(std::size_t count, Write write)
    {
        if (count == 0) {
            return;
        }
        add([at = std::size_t{0}, count, write = std::move(write)]() mutable {
            write(at);
            return ++at < count;
        });
    }

    // Writes the next piece. Returns false after the last one.
    bool write_more()
    {
        if (m_current < m_parts.size() && !m_parts[m_current]()) {
            m_parts[m_current++] = nullptr;
        }
        return m_current < m_parts.size();
    }

private:
    std::vector<std::function<bool()>> m_parts;
    std::size_t m_current = 0;
};

} // namespace kavstat
