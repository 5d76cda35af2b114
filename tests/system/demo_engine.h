// The demo engine beside the test.
#pragma once

#include "child_program.h"

#include <optional>
#include <string>
#include <vector>

class demo_engine
{
public:
    // segment: the name to publish under; the test's own when empty.
    explicit demo_engine(const std::vector<std::string>& arguments, const std::string& segment = {});

    // Whether the engine's next line is this one.
    bool says(const std::string& line);
    void send_signal(int signal) const { m_program.send_signal(signal); }
    // Asks it to stop and waits for its end.
    program_result stop();
    // Waits for its end.
    program_result finish() { return m_program.finish(); }

private:
    child_program m_program;
};

// Ages move on while all other figures of a quiet engine stand still; this replaces each by "AGE".
std::string without_ages(const std::string& report);
