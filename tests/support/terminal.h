// Programs on terminals.
#pragma once

#include "support/child_program.h"

#include <functional>
#include <string>
#include <vector>

// Runs a program to its end; `out` of the result is what arrives at the other end of a terminal that changes nothing
// itself.
program_result run_on_terminal(const std::string& path, const std::vector<std::string>& arguments);

// A terminal that a program runs in, held by tmux, whose keys a test presses and whose screen it reads.
class terminal
{
public:
    // folder: where the terminal keeps its socket. command: for a shell; behind it "status N" appears.
    terminal(const std::string& folder, const std::string& command, int width, int height);
    ~terminal();
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;

    // In tmux's words: "q", "Tab", "Up", "/".
    void press(const std::vector<std::string>& keys) const;
    void resize(int width, int height) const;
    std::string screen() const;
    // The first screen with this in it; the last one without it when that takes too long.
    std::string screen_with(const std::string& text) const;
    std::string screen_without(const std::string& text) const;

private:
    std::string run(const std::vector<std::string>& words) const;
    std::string wait_for(const std::function<bool(const std::string&)>& is_wanted) const;

    std::string m_socket;
};
