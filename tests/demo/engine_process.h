// The demo engine as a child process with its own statistics segment.
#pragma once

#include "support/demo_engine.h"

#include <string>
#include <vector>

class engine_process
{
public:
    // Starts the engine. From now on, this process's statistics readers read its segment.
    explicit engine_process(const std::vector<std::string>& arguments);
    // Kills the engine if it still runs, and removes its segment.
    ~engine_process();

    // Waits until the engine has printed this line. Returns false when it ends before.
    bool wait_for(const std::string& line) { return m_engine.wait_for(line); }
    void send(int signal) const { m_engine.send_signal(signal); }
    // Waits for the end. Returns the exit status, or -signal.
    int wait();
    bool has_segment() const;
    // Returns what the engine wrote to standard error. Call it after wait().
    const std::string& errors() const { return m_result.err; }

private:
    std::string segment_path() const;

    std::string m_segment;
    demo_engine m_engine;
    program_result m_result;
};
