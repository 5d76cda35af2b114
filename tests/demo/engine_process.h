// The demo engine as a process of its own, with a statistics segment of its own.
#pragma once

#include "support/demo_engine.h"

#include <string>
#include <vector>

class engine_process
{
public:
    // Starts the engine; this process's statistics readers look at it from now on.
    explicit engine_process(const std::vector<std::string>& arguments);
    // Kills the engine if it still runs, and clears up after it.
    ~engine_process();

    // Waits until the engine has said this on a line of its own; false when it ended before.
    bool wait_for(const std::string& line) { return m_engine.wait_for(line); }
    void send(int signal) const { m_engine.send_signal(signal); }
    // Waits for the end; the exit status, or -signal.
    int wait();
    bool has_segment() const;
    // What it wrote to standard error; call after wait().
    const std::string& errors() const { return m_result.err; }

private:
    std::string segment_path() const;

    std::string m_segment;
    demo_engine m_engine;
    program_result m_result;
};
