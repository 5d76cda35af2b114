// Controls the terminal during the lifetime of this object and restores its state afterwards.
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

    // Returns false if TERM is missing or unknown, or the terminal cannot position the cursor. In this case nothing has
    // been written.
    bool is_usable() const { return m_b_usable; }

    // The size of the terminal; at least 1.
    static std::size_t width();
    static std::size_t height();
    void draw(const std::vector<WatchLine>& picture);

    enum class event
    {
        timeout,
        key,
        resize,
        gone, // the input has ended
    };
    // Waits for a key for at most this many seconds. A signal ends the wait like a timeout.
    event wait(double seconds, int& key);

private:
    bool m_b_usable = false;
    void* m_screen = nullptr;
};

} // namespace kavstat
