// A terminal that is taken over for as long as this object lives, and given back as it was.
#pragma once

#include "watch/view.h"

namespace kavstat {

class WatchScreen
{
public:
    WatchScreen();
    ~WatchScreen();
    WatchScreen(const WatchScreen&) = delete;
    WatchScreen& operator=(const WatchScreen&) = delete;

    // False when the terminal cannot be drawn on: it has no name, an unknown one, or no way to put the cursor
    // somewhere. Nothing has been written then.
    bool is_usable() const { return m_b_usable; }

    // Of the terminal that is in use; 1 at least.
    static std::size_t width();
    static std::size_t height();
    void draw(const std::vector<WatchLine>& picture);

    enum class event
    {
        timeout,
        key,
        resize,
        gone, // nobody types any more
    };
    // Waits for a key, so many seconds at most. A signal ends the wait, as a timeout.
    event wait(double seconds, int& key);

private:
    bool m_b_usable = false;
    void* m_screen = nullptr;
};

} // namespace kavstat
