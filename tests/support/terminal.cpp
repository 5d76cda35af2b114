#include "support/terminal.h"

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

program_result run_on_terminal(const std::string& path, const std::vector<std::string>& arguments)
{
    termios raw{};
    cfmakeraw(&raw);
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, &raw, nullptr) != 0) {
        throw std::runtime_error("no terminal");
    }
    fcntl(master, F_SETFD, FD_CLOEXEC);
    std::string text;
    std::thread reader([&] {
        char bytes[4096];
        for (ssize_t count = 0; (count = read(master, bytes, sizeof bytes)) > 0;) {
            text.append(bytes, static_cast<std::size_t>(count));
        }
    });
    program_result result = child_program(path, arguments, {.output = slave}).finish();
    close(slave);
    reader.join();
    close(master);
    result.out = text;
    return result;
}

terminal::terminal(const std::string& folder, const std::string& command, int width, int height)
{
    // Each terminal has its own server, because an earlier server may not have ended yet.
    static int count = 0;
    m_socket = folder + "/tmux" + std::to_string(++count);
    run({"new-session", "-d", "-x", std::to_string(width), "-y", std::to_string(height),
         command + "; echo status $?; sleep 600"});
}

terminal::~terminal()
{
    // Ends the program before its terminal is closed. A hangup during a leak check would block both.
    if (screen().find("status") == std::string::npos) {
        press({"C-c"});
        screen_with("status");
    }
    run({"kill-server"});
}

std::string terminal::run(const std::vector<std::string>& words) const
{
    std::vector<std::string> arguments{"-f", "/dev/null", "-S", m_socket};
    arguments.insert(arguments.end(), words.begin(), words.end());
    run_surroundings surroundings;
    surroundings.environment = {{"LC_ALL", "C.UTF-8"}, {"TERM", "xterm"}};
    return child_program("/usr/bin/tmux", arguments, surroundings).finish().out;
}

void terminal::press(const std::vector<std::string>& keys) const
{
    std::vector<std::string> words{"send-keys"};
    words.insert(words.end(), keys.begin(), keys.end());
    run(words);
}

void terminal::resize(int width, int height) const
{
    run({"resize-window", "-x", std::to_string(width), "-y", std::to_string(height)});
}

std::string terminal::screen() const
{
    return run({"capture-pane", "-p"});
}

std::string terminal::wait_for(const std::function<bool(const std::string&)>& is_wanted) const
{
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::seconds(20);
    std::string before;
    std::string now = screen();
    // The program may be drawing: a whole screen looks the same twice.
    while ((!is_wanted(now) || now != before) && clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        before = std::exchange(now, screen());
    }
    return now;
}

std::string terminal::screen_with(const std::string& text) const
{
    return wait_for([&](const std::string& now) { return now.find(text) != std::string::npos; });
}

std::string terminal::screen_without(const std::string& text) const
{
    return wait_for([&](const std::string& now) { return now.find(text) == std::string::npos; });
}
