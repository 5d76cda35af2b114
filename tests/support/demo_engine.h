// The demo engine beside the test.
#pragma once

#include "support/child_program.h"

#include <string>
#include <vector>

class demo_engine
{
public:
    // segment: the name to publish under; that of the environment when empty.
    explicit demo_engine(const std::vector<std::string>& arguments, const std::string& segment = {});

    // Whether the engine's next line is this one.
    bool says(const std::string& line);
    // Waits for this line; false when the engine ended before.
    bool wait_for(const std::string& line);
    void send_signal(int signal) const { m_program.send_signal(signal); }
    // Asks it to stop and waits for its end.
    program_result stop();
    // Waits for its end.
    program_result finish() { return m_program.finish(); }

private:
    child_program m_program;
};
