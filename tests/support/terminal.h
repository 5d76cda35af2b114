// Programs on terminals.
#pragma once

#include "support/child_program.h"

#include <functional>
#include <string>
#include <vector>

// Runs a program to its end on a terminal that does not change its output. `out` of the result is what arrives at the
// other end.
program_result run_on_terminal(const std::string& path, const std::vector<std::string>& arguments);

// A terminal that runs a program in tmux. A test presses its keys and reads its screen.
class terminal
{
public:
    // folder: contains the terminal's socket. command: a shell command. After it, "status N" appears.
    terminal(const std::string& folder, const std::string& command, int width, int height);
    ~terminal();
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;

    // keys: in tmux's notation, such as "q", "Tab", "Up", "/".
    void press(const std::vector<std::string>& keys) const;
    void resize(int width, int height) const;
    std::string screen() const;
    // Returns the first whole screen that contains the text, or the last screen when that takes too long.
    std::string screen_with(const std::string& text) const;
    std::string screen_without(const std::string& text) const;

private:
    std::string run(const std::vector<std::string>& words) const;
    std::string wait_for(const std::function<bool(const std::string&)>& is_wanted) const;

    std::string m_socket;
};
