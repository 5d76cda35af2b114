#include "watch/screen.h"

#include <curses.h>
#include <poll.h>
#include <term.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace kavstat {

namespace {

enum color_pair : short
{
    pair_critical = 1,
    pair_warning = 2,
    pair_prompt = 3,
};

// Whether the terminal is known and can position the cursor.
bool is_drawable(const char* name)
{
    int error = 0;
    if (name == nullptr || *name == '\0' || setupterm(name, STDOUT_FILENO, &error) != OK) {
        return false;
    }
    char capability[] = "cup";
    const char* const move = tigetstr(capability);
    const bool b_drawable = move != nullptr && reinterpret_cast<std::intptr_t>(move) != -1;
    del_curterm(cur_term);
    return b_drawable;
}

attr_t colored(color_pair pair, attr_t without_color)
{
    return has_colors() ? static_cast<attr_t>(COLOR_PAIR(pair)) : without_color;
}

attr_t attributes_of(WatchStyle style)
{
    switch (style) {
    case WatchStyle::title:
    case WatchStyle::selected:
    case WatchStyle::fresh:
        return A_BOLD;
    case WatchStyle::head:
        return A_REVERSE;
    case WatchStyle::critical:
        return A_BOLD | colored(pair_critical, A_NORMAL);
    case WatchStyle::warning:
        return colored(pair_warning, A_BOLD);
    case WatchStyle::prompt:
        return colored(pair_prompt, A_UNDERLINE);
    case WatchStyle::plain:
        break;
    }
    return A_NORMAL;
}

int key_of(int code)
{
    switch (code) {
    case KEY_UP:
        return WATCH_KEY_UP;
    case KEY_DOWN:
        return WATCH_KEY_DOWN;
    case KEY_LEFT:
        return WATCH_KEY_LEFT;
    case KEY_RIGHT:
        return WATCH_KEY_RIGHT;
    case KEY_PPAGE:
        return WATCH_KEY_PAGE_UP;
    case KEY_NPAGE:
        return WATCH_KEY_PAGE_DOWN;
    case KEY_HOME:
        return WATCH_KEY_HOME;
    case KEY_END:
        return WATCH_KEY_END;
    case KEY_ENTER:
    case '\n':
    case '\r':
        return WATCH_KEY_ENTER;
    case 27:
        return WATCH_KEY_ESCAPE;
    case KEY_BACKSPACE:
    case 8:
    case 127:
        return WATCH_KEY_BACKSPACE;
    default:
        return code;
    }
}

} // namespace

WatchScreen::WatchScreen()
{
    const char* const name = std::getenv("TERM");
    if (!is_drawable(name)) {
        return;
    }
    SCREEN* const screen = newterm(name, stdout, stdin);
    if (screen == nullptr) {
        return;
    }
    m_screen = screen;
    m_b_usable = true;
    set_term(screen);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(50);
    curs_set(0);
    const char* const no_color = std::getenv("NO_COLOR");
    if (has_colors() && (no_color == nullptr || *no_color == '\0')) {
        start_color();
        use_default_colors();
        init_pair(pair_critical, COLOR_RED, -1);
        init_pair(pair_warning, COLOR_YELLOW, -1);
        init_pair(pair_prompt, COLOR_CYAN, -1);
    }
}

WatchScreen::~WatchScreen()
{
    if (m_b_usable) {
        endwin();
        delscreen(static_cast<SCREEN*>(m_screen));
    }
}

std::size_t WatchScreen::width()
{
    return static_cast<std::size_t>(std::max(COLS, 1));
}

std::size_t WatchScreen::height()
{
    return static_cast<std::size_t>(std::max(LINES, 1));
}

void WatchScreen::draw(const std::vector<WatchLine>& picture)
{
    set_term(static_cast<SCREEN*>(m_screen));
    erase();
    int row = 0;
    for (const WatchLine& line : picture) {
        const attr_t attributes = attributes_of(line.style);
        attrset(static_cast<int>(attributes));
        mvaddstr(row, 0, line.text.c_str());
        if (line.style == WatchStyle::head) {
            for (int column = static_cast<int>(line.text.size()); column < COLS; ++column) {
                mvaddch(row, column, ' ');
            }
        }
        ++row;
    }
    attrset(A_NORMAL);
    refresh();
}

WatchScreen::event WatchScreen::wait(double seconds, int& key)
{
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const auto milliseconds = static_cast<int>(std::clamp(std::ceil(seconds * 1000), 0.0, 3.6e6));
    const int ready = poll(&input, 1, milliseconds);
    set_term(static_cast<SCREEN*>(m_screen));
    const int code = getch();
    if (code == KEY_RESIZE) {
        return event::resize;
    }
    if (code != ERR) {
        key = key_of(code);
        return event::key;
    }
    if (ready > 0) {
        return event::gone; // the end of the input
    }
    return event::timeout;
}

} // namespace kavstat
