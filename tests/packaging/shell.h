// Shared by the tests of everything that is shipped: the shell, and an engine to report on.
#pragma once

#include "support/demo_engine.h"
#include "support/files.h"

#include <memory>
#include <string>
#include <vector>

// Runs a shell command and returns both outputs in the order in which they were written. exit_status: receives the exit
// status of the command. May be null.
std::string output_of(const std::string& command, int* exit_status = nullptr);

// The words of the viewer's commands, in the order in which it looks for them.
std::vector<std::string> viewer_commands();

// Runs the demo engine once over this project's documents. After that, its statistics do not change. The name of its
// segment is in KAV_STAT_SEGMENT.
class idle_engine
{
public:
    explicit idle_engine(std::vector<std::string> options = {});
    ~idle_engine();
    idle_engine(const idle_engine&) = delete;
    idle_engine& operator=(const idle_engine&) = delete;

private:
    std::unique_ptr<demo_engine> m_engine;
};
