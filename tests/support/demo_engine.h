// The demo engine as a child process of the test.
#pragma once

#include "support/child_program.h"

#include <string>
#include <vector>

class demo_engine
{
public:
    // segment: the name to publish under. If empty, the name in the environment is used.
    explicit demo_engine(const std::vector<std::string>& arguments, const std::string& segment = {});
    // Stops an engine that still runs, so that it removes its segment.
    ~demo_engine();

    // Whether the next line that the engine prints is `line`.
    bool says(const std::string& line);
    // Waits for `line`. Returns false when the engine ends before.
    bool wait_for(const std::string& line);
    void send_signal(int signal) const { m_program.send_signal(signal); }
    // Asks the engine to stop and waits for its end.
    program_result stop();
    // Waits for the engine's end.
    program_result finish() { return m_program.finish(); }

private:
    child_program m_program;
};
