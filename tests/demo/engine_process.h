// The demo engine as a process of its own, with a statistics segment of its own.
#pragma once

#include <string>
#include <vector>

class engine_process
{
public:
    // Starts the engine; this process's statistics readers look at it from now on.
    explicit engine_process(std::vector<std::string> arguments);
    // Kills the engine if it still runs, and clears up after it.
    ~engine_process();
    engine_process(const engine_process&) = delete;
    engine_process& operator=(const engine_process&) = delete;

    // Waits until the engine has said this on a line of its own; false when it ended before.
    bool wait_for(const std::string& line);
    void send(int signal) const;
    // Waits for the end; the exit status, or -signal.
    int wait();
    bool has_segment() const;
    // What it wrote to standard error; call after wait().
    std::string errors();

private:
    std::string segment_path() const;

    std::string m_segment;
    int m_process = -1;
    int m_output = -1;
    int m_errors = -1;
    std::string m_said;
};
