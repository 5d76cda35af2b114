// A document that is written a little at a time, as fast as somebody takes it. What it needs in between is a position,
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
    // Adds a part. write: writes a little of it with each call; returns false when that was the last of it.
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

    // Writes a little more; false when that was the last of the document.
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
